// The SHA-256 of a file, to tell later that it is still the same.
#pragma once

#include <QString>

/// 64 hexadecimal digits; empty when the file cannot be read. Blocks.
QString sha256Of(const QString& path);

// FFmpeg's error codes as text for the log.
#pragma once

#include <QString>

/// FFmpeg's text for a status code, at most 64 bytes. Thread-safe.
QString avErrorString(int errnum);

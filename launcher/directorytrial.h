// Whether files can be made in a directory.
#pragma once

#include <QString>

/// Makes the directory, for the user alone, when it is missing, writes 64 KiB into a file there and takes it away
/// again: neither permissions nor the free room that is told decide what a file system takes. Empty, or why nothing
/// can be written there, in one sentence.
QString whyNothingFitsInto(const QString& directory);

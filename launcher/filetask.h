// FileTask: what record-window does with files that are there already, instead of recording.
#pragma once

#include "extras.h"

#include <QString>
#include <QStringList>

#include <optional>

class OptionReader;

struct FileTask {
    enum class Kind { Verify, Share, Explain };

    Kind kind = Kind::Verify;
    QString file; ///< to be read
    QString copy; ///< Share: absolute path of what is made
    ExtraWishes extras; ///< Verify: what else is made
    bool json = false;
    bool quiet = false;
};

/// Nothing when the command line asks for none. What does not fit is refused through the reader. positional: the
/// arguments that are no options' values.
std::optional<FileTask> readFileTask(OptionReader& reader, const QStringList& positional);

/// Does it, and tells it on the standard streams. The exit code. The application object exists. Blocks.
int runFileTask(const FileTask& task);

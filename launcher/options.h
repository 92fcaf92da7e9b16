// Options: the command line of record-window, checked.
#pragma once

#include "extras.h"
#include "filetask.h"
#include "windowwish.h"

#include <QList>
#include <QPointF>
#include <QSize>
#include <QString>
#include <QStringList>

#include <optional>

/// A click that was ordered on the command line. Times count from the recorder's readiness.
struct PlannedClick {
    QPointF global; ///< global screen points
    qint64 atMs = 0; ///< when it is said to have happened
    qint64 delayMs = 0; ///< how much later it is reported to the recorder
};

/// Whose audio is recorded.
struct AudioWish {
    enum class Source { WindowsProcess, Process, Everything, Nothing };

    Source source = Source::WindowsProcess;
    qint64 process = 0; ///< process id
    bool isGiven = false; ///< not by default
};

struct Options {
    WindowWish window;
    QString output; ///< absolute; the recorder leaves it as it is
    QString outputRemark; ///< to be told to the person; mostly empty
    bool overwrite = false;
    std::optional<QSize> canvas; ///< pixels, as asked for; the recorder rounds it up
    std::optional<qint64> lengthMs; ///< of the recording; nothing: until interrupted
    qint64 readyLimitMs = 0; ///< how long the window may take to give an image
    qint64 finishLimitMs = 0; ///< how long the recorder may take to finish the file
    int countdownSeconds = 0; ///< before the recorder is started
    AudioWish audio;
    bool keepGoing = false; ///< when the window closes
    QString recorder; ///< absolute path of the executable
    QString logDirectory; ///< absolute
    bool keepLog = false; ///< also when all went well
    QList<PlannedClick> clicks;
    bool popups = true; ///< menus and the like of the window's program are recorded, too
    bool watchClicks = true;
    bool quiet = false;
    bool json = false;
    bool verbose = false;
    ExtraWishes extras;
};

/// What the command line asks for: a recording (options), something of a finished file (task), the windows, or a text
/// to print and nothing more.
struct CommandLine {
    std::optional<Options> options;
    std::optional<FileTask> task;
    bool listsWindows = false;
    bool json = false;
    QString text; ///< help or version
    QString error; ///< not empty: bad usage
};

/// arguments: with the executable in front. The application object exists. Relative paths count from the current
/// directory. lookup: which encoders there are, as a copy that cannot be made is refused here. Nothing is made or
/// written.
CommandLine readCommandLine(
    const QStringList& arguments, const EncoderLookup& lookup = &avcodec_find_encoder_by_name);

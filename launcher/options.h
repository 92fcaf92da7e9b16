// Options: the command line of record-window, checked.
#pragma once

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

struct Options {
    quint32 window = 0;
    QString output; ///< absolute
    QSize canvas; ///< pixels, as asked for; the recorder rounds it up
    std::optional<qint64> lengthMs; ///< of the recording; nothing: until interrupted
    std::optional<qint64> readyLimitMs; ///< how long the window may take to give an image; nothing: no limit
    qint64 finishLimitMs = 0; ///< how long the recorder may take to finish the file
    QString audioSource;
    QString recorder; ///< absolute path of the executable
    QString logDirectory; ///< absolute
    QList<PlannedClick> clicks;
    bool watchClicks = true;
    bool quiet = false;
    bool json = false;
    bool verbose = false;
};

/// What the command line asks for: a recording (options), or a text to print and nothing more.
struct CommandLine {
    std::optional<Options> options;
    QString text; ///< help or version
    QString error; ///< not empty: bad usage
};

/// arguments: with the executable in front. The application object exists. Relative paths count from the current
/// directory. Nothing is made or written.
CommandLine readCommandLine(const QStringList& arguments);

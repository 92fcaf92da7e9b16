// Outcome: what became of a recording, as record-window reports it.
#pragma once

#include "exitcode.h"
#include "inspection.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

struct Outcome {
    ExitCode code = ExitCode::Recorded;
    QString error; ///< one sentence; empty when recorded
    QString file; ///< as the recorder named it; empty when there is none
    std::optional<qint64> durationMs; ///< as the recorder said
    QStringList warnings; ///< what is not as it was asked for, one sentence each
    std::optional<Inspection> inspection; ///< of the file, when there is one
    QString logFile; ///< empty when the recorder made none, or it is not kept
    std::optional<int> recorderExitCode; ///< 128 + n: ended by signal n; nothing: it never started

    QString sha256; ///< of the file; empty when nobody asked
    QString share; ///< the WebM copy; empty when there is none
    QString contactSheet; ///< likewise

    QByteArray toJson() const; ///< one line with its line feed
    /// For people, several lines. The log is named only when all went well; else its path is told last of all.
    QByteArray toText() const;
};

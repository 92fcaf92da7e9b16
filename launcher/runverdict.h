// What became of a run of the recorder, in an exit code and a sentence.
#pragma once

#include "outcome.h"

#include <QByteArray>
#include <QString>

/// How the run went, as far as the outcome does not have it.
struct RunFacts {
    quint32 window = 0; ///< 0: it has no id that people know
    QString refusal; ///< why nothing can be recorded, as the log or the window told; mostly empty
    bool killed = false;
    bool wasReady = false; ///< before the stop was requested
    bool wasStarting = false; ///< it ended without having been asked
    bool gaveUpWaiting = false; ///< for the first image
    bool gaveUpOnDuration = false;
    QByteArray nonsense; ///< the first reply that was none
    bool crashed = false;
    int exitCode = 0; ///< of the recorder, or the signal that ended it
};

/// Fills in the exit code and the error; everything else in the outcome is known.
void judgeRun(const RunFacts& facts, Outcome& outcome);

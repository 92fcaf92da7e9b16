// What in a recording is not as it was asked for.
#pragma once

#include "inspection.h"

#include <QStringList>

#include <optional>

/// What the recording should be.
struct Expectation {
    std::optional<qint64> durationMs; ///< as the recorder said; nothing: it did not
    std::optional<qint64> lengthMs; ///< as asked for; nothing: any
    bool withAudio = true;
    QString earlyEnd; ///< why it may have ended before its length, in words; empty: not known
};

/// One sentence for each thing that does not fit; empty when everything does.
QStringList judge(const Inspection& inspection, const Expectation& expectation);

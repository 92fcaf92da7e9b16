// Finding: one line of a check's table.
#pragma once

#include <QString>

struct Finding {
    enum class Verdict { Passed, Failed, Note };

    Verdict verdict;
    QString check; ///< a word or two
    QString sentence; ///< what was seen
};

/// The sentence that fits.
inline Finding finding(const QString& check, bool passed, const QString& good, const QString& bad)
{
    return {passed ? Finding::Verdict::Passed : Finding::Verdict::Failed, check, passed ? good : bad};
}

/// Where it is advice only.
inline Finding advice(const QString& check, bool passed, const QString& good, const QString& bad)
{
    return {passed ? Finding::Verdict::Passed : Finding::Verdict::Note, check, passed ? good : bad};
}

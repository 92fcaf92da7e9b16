// The table of a check program, as text in columns.
#include "checktable.h"

#include <cstdio>

namespace {

void printLine(const char* word, const QString& caseName, const QString& check, const QString& sentence)
{
    std::printf(
        "%-6s  %-15s %-14s %s\n", word, qUtf8Printable(caseName), qUtf8Printable(check), qUtf8Printable(sentence));
}

}

void CheckTable::add(const QString& caseName, const QList<Finding>& findings)
{
    int passed = 0;
    for (const Finding& finding : findings) {
        const bool good = finding.verdict == Finding::Verdict::Passed;
        const bool noted = finding.verdict == Finding::Verdict::Note;
        passed += int(good);
        failed_ += int(!good && !noted);
        notes_ += int(noted);
        if (all_ || !good)
            printLine(good ? "ok" : noted ? "note" : "FAILED", caseName, finding.check, finding.sentence);
    }
    passed_ += passed;
    if (!all_ && passed > 0)
        printLine("ok", caseName, QStringLiteral("%1 checks").arg(passed), QStringLiteral("passed"));
    std::fflush(stdout);
}

int CheckTable::finish() const
{
    std::printf("\n%d passed, %d failed, %d notes\n", passed_, failed_, notes_);
    return failed_ == 0 ? 0 : 1;
}

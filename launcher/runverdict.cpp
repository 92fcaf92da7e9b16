// The order of the questions: the first one that is answered counts.
#include "runverdict.h"

#include "plaintext.h"

namespace {

/// In words; the recorder has ended.
QString endOfRecorder(const RunFacts& facts)
{
    if (facts.crashed)
        return QStringLiteral("ended by signal %1").arg(facts.exitCode);
    constexpr int captureSetupFailed = 2;
    return facts.exitCode == captureSetupFailed
        ? QStringLiteral("exit code 2: the window capture could not be set up")
        : QStringLiteral("exit code %1").arg(facts.exitCode);
}

void judgeWithoutImage(const RunFacts& facts, Outcome& outcome)
{
    if (!facts.refusal.isEmpty()) {
        outcome.code = ExitCode::EndedBeforeReady;
        outcome.error = QStringLiteral("nothing was recorded: %1").arg(facts.refusal);
    } else if (facts.wasStarting) {
        outcome.code = ExitCode::EndedBeforeReady;
        outcome.error = QStringLiteral("the recorder ended before it was ready (%1)").arg(endOfRecorder(facts));
    } else if (outcome.durationMs) {
        outcome.code = ExitCode::NoImage;
        const QString window = facts.window == 0 ? QStringLiteral("the window")
                                                 : QStringLiteral("window 0x%1").arg(facts.window, 0, 16);
        outcome.error = window
            + (facts.gaveUpWaiting ? QLatin1String(" gave no image in time; is it closed or minimised?")
                                   : QLatin1String(" never gave an image"));
    }
}

void judgeEnd(const RunFacts& facts, Outcome& outcome)
{
    if (!outcome.durationMs) {
        outcome.code = ExitCode::NoDuration;
        if (!facts.nonsense.isEmpty())
            outcome.error = QStringLiteral("the recorder did not answer with a duration but with: %1")
                                .arg(plainText(QString::fromUtf8(facts.nonsense)));
        else if (facts.gaveUpOnDuration)
            outcome.error
                = QStringLiteral("the recorder did not confirm the recording in time (%1)").arg(endOfRecorder(facts));
        else
            outcome.error = QStringLiteral("the recorder ended without confirming the recording (%1)")
                                .arg(endOfRecorder(facts));
    } else if (outcome.file.isEmpty()) {
        outcome.code = ExitCode::BadEnd;
        outcome.error = outcome.logFile.isEmpty()
            ? QStringLiteral("the recorder left no log, in which it names its file")
            : QStringLiteral("the recorder left no file");
    } else if (*outcome.recorderExitCode != 0) {
        outcome.code = ExitCode::BadEnd;
        outcome.error = QStringLiteral("the recorder did not end well (%1)").arg(endOfRecorder(facts));
    }
}

}

void judgeRun(const RunFacts& facts, Outcome& outcome)
{
    if (facts.killed) {
        outcome.code = ExitCode::Killed;
        outcome.error = QStringLiteral("the recorder was killed");
    } else if (!facts.wasReady) {
        judgeWithoutImage(facts, outcome);
    }
    if (outcome.error.isEmpty())
        judgeEnd(facts, outcome);
}

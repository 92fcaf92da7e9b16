// record-window: plays the launcher's part for people and tests.
#include "options.h"
#include "output.h"
#include "plaintext.h"
#include "progress.h"
#include "recordingsession.h"
#include "signalnotifier.h"
#include "standardstreams.h"
#include "stderrlines.h"
#include "target.h"

#include <QCoreApplication>
#include <QStringList>

#include <algorithm>
#include <csignal>

namespace {

using output::print;
using output::printError;

int list(bool asJson)
{
    const WindowAnswer answer = listWindows();
    if (!answer.error.isEmpty()) {
        printError(answer.error);
        return int(ExitCode::BadUsage);
    }
    print(asJson ? windowJson(answer.windows) : windowTable(answer.windows).toLocal8Bit());
    return 0;
}

int end(const Outcome& outcome, const Options& options)
{
    if (!outcome.error.isEmpty())
        printError(outcome.error);
    if (options.json)
        print(outcome.toJson());
    else if (!options.quiet)
        print(outcome.toText());
    if (outcome.code != ExitCode::Recorded && !outcome.logFile.isEmpty())
        stderrlines::write("the recorder's log: " + plainText(outcome.logFile).toLocal8Bit() + '\n');
    return int(outcome.code);
}

/// An interruption costs the copy only: the recording is finished.
void addExtras(
    const Options& options, Outcome& outcome, const RecordingSession& session, const SignalNotifier& interruptions)
{
    if (outcome.code != ExitCode::Recorded && outcome.code != ExitCode::NotAsAsked)
        return;
    bool isInterrupted = false;
    const auto interrupt = [&isInterrupted] { isInterrupted = true; };
    interruptions.disconnect(&session);
    QObject::connect(&interruptions, &SignalNotifier::received, QCoreApplication::instance(), interrupt);
    QObject::connect(&interruptions, &SignalNotifier::insisted, QCoreApplication::instance(), interrupt);
    Progress progress(options.quiet);
    makeExtras(options.extras, outcome, progress, [&isInterrupted] {
        QCoreApplication::processEvents();
        return isInterrupted;
    });
    interruptions.disconnect(QCoreApplication::instance());
    if (!outcome.warnings.isEmpty())
        outcome.code = ExitCode::NotAsAsked;
}

int record(const Options& options)
{
    // A shell without job control starts what is in the background with SIGINT ignored, which would leave no usual
    // way to end the choice of the window or the recording.
    SignalNotifier::restore(SIGINT);
    if (options.window.by == WindowWish::By::Click && !options.quiet)
        stderrlines::write(asksTheDesktop(options.window)
                ? "choose the window to record in the desktop's dialogue\n"
                : "click the window to record; another mouse button or Escape cancels\n");
    const Target target = chooseTarget(options);
    if (!target.error.isEmpty()) {
        Outcome refused;
        refused.code = ExitCode::BadUsage;
        refused.error = target.error;
        return end(refused, options);
    }
    SignalNotifier::ignore(SIGPIPE); // the recording goes on when the reader of our output ends
    const SignalNotifier interruptions({SIGINT, SIGTERM, SIGHUP}, SignalNotifier::Insisting::IsReported);
    RecordingSession session(options, target);
    QObject::connect(&interruptions, &SignalNotifier::received, &session, &RecordingSession::interrupt);
    QObject::connect(&interruptions, &SignalNotifier::insisted, &session, &RecordingSession::kill);
    QObject::connect(
        &session, &RecordingSession::over, QCoreApplication::instance(), [] { QCoreApplication::quit(); });
    session.start();
    QCoreApplication::exec();
    Outcome outcome = session.outcome();
    addExtras(options, outcome, session, interruptions); // while the session holds the file
    return end(outcome, options);
}

}

int main(int argc, char** argv)
{
    standardstreams::openMissing();
    // Qt takes out of the arguments what looks like an option of its own, also where it is another option's value.
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    int ownNameOnly = std::min(argc, 1);
    const QCoreApplication application(ownNameOnly, argv);
    QCoreApplication::setApplicationName(QStringLiteral("record-window"));
    QCoreApplication::setApplicationVersion(QStringLiteral(ORVANTIS_VERSION));

    const CommandLine commandLine = readCommandLine(arguments);
    if (!commandLine.error.isEmpty()) {
        printError(commandLine.error + QLatin1String("\n(--help shows what is possible)"));
        return int(ExitCode::BadUsage);
    }
    if (commandLine.listsWindows)
        return list(commandLine.json);
    if (commandLine.task)
        return runFileTask(*commandLine.task);
    if (!commandLine.options) {
        print(commandLine.text.toLocal8Bit());
        return 0;
    }
    return record(*commandLine.options);
}

// Start-up order and the two modes: recording (ten arguments) and permission mode ("--request-permissions").
#include "gstrecorder.h"
#include "lastline.h"
#include "platform/application.h"
#include "platform/recordinghold.h"
#include "recorderapplication.h"
#include "recordingarguments.h"
#include "signalnotifier.h"
#include "standardstreams.h"
#include "startup.h"
#include "usage.h"

#include <QDebug>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>

using namespace std::chrono_literals;

namespace {

constexpr auto finishLimit = 60s; // three seconds of queued frames on a slow machine, several times over

/// Made from the command line. It has no parent and is never deleted: it lives until the process ends.
GstRecorder* makeRecorder(char** argv)
{
    const RecordingArguments arguments = RecordingArguments::read(argv);
    return new GstRecorder(arguments.command, arguments.output, arguments.window, arguments.screenOriginX,
        arguments.screenOriginY, arguments.canvasWidth, arguments.canvasHeight, arguments.scale,
        arguments.audioSource, nullptr);
}

/// The file is finished before the process ends, however that has come about.
void finish(GstRecorder& recorder, int exitCode)
{
    if (!recorder.finishRecording(finishLimit)) {
        qCritical() << "recorder worker did not end in time; leaving the output as it is";
        std::_Exit(exitCode);
    }
    qDebug() << "recorder exiting" << exitCode;
}

/// From here on there is a file to be finished, whatever happens.
int recordAndFinish(GstRecorder& recorder)
{
    int exitCode = RecorderApplication::interruptedExitCode;
    std::optional<platform::RecordingHold> hold;
    try {
        // Behind the lines of the start, whose texts and order are an interface.
        qDebug() << "recorder version" << ORVANTIS_VERSION << "Qt" << qVersion();
        hold.emplace([&recorder] { finish(recorder, 0); });
        exitCode = RecorderApplication::exec();
    } catch (const std::exception& error) {
        lastline::tellException(error.what());
    }
    try {
        finish(recorder, exitCode);
        return exitCode;
    } catch (const std::exception& error) { // in what comes behind the end of the file
        lastline::tellException(error.what());
        return RecorderApplication::interruptedExitCode;
    }
}

int record(int argc, char** argv, const QStringList& refusedPlugIns)
{
    const QByteArray usageText = usage::text(argc, argv);
    if (usageText.isEmpty())
        startup::startLogging(startup::logFilePath(argc > 1 ? argv[1] : nullptr));
    else
        startup::startLoggingWithoutFile();
    lastline::tellFaults();
    startup::logIdentity(argc, argv);
    startup::logRefusedPlugIns(refusedPlugIns);
    if (argc < RecordingArguments::neededCount) {
        qDebug() << "invalid param count";
        std::fputs(usageText.constData(), stdout);
        return 0;
    }
    startup::preparePainting();
    const SignalNotifier signalsAsExit({SIGTERM, SIGINT, SIGHUP}, SignalNotifier::Insisting::EndsProcess);
    QObject::connect(&signalsAsExit, &SignalNotifier::received,
        [](int number) { QCoreApplication::exit(SignalNotifier::exitCode(number)); });

    static GstRecorder* const recorder = makeRecorder(argv);
    return recordAndFinish(*recorder);
}

int run(int argc, char** argv)
{
    // A launcher that closed our stderr, and a file-size limit, are errors of the call that meets them, not the end.
    SignalNotifier::ignore(SIGPIPE);
    SignalNotifier::ignore(SIGXFSZ);
    standardstreams::openMissing();
    standardstreams::keepErrorOutputFromBlocking();
    lastline::tellFaults();
    startup::keepEveryLogLine();
    startup::useQtEventLoops();
    const QStringList refusedPlugIns = startup::extendPluginPath(argv[0]) + startup::leaveOutSharedDirectory();
    platform::chooseGuiPlatform();
    // Qt takes out of the arguments what looks like an option of its own; here everything means what its place says.
    int ownNameOnly = std::min(argc, 1);
    RecorderApplication application(ownNameOnly, argv);
    platform::becomeAccessory();
    startup::setOrganization();

    const auto asksForPermissions
        = [](const char* given) { return std::strcmp(given, "--request-permissions") == 0; };
    if (std::any_of(argv, argv + argc, asksForPermissions))
        return startup::requestPermissions();
    return record(argc, argv, refusedPlugIns);
}

}

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception&) { // there is no recorder yet
        lastline::endNow(RecorderApplication::interruptedExitCode);
    }
}

// The verification, the copy and the story of finished files.
#include "filetask.h"

#include "judgement.h"
#include "outcome.h"
#include "output.h"
#include "plaintext.h"
#include "progress.h"
#include "signalnotifier.h"
#include "story.h"

#include <QCoreApplication>
#include <QFileInfo>

#include <csignal>
#include <limits>

namespace {

/// Empty, or why the file cannot be one that was recorded.
QString refusalOf(const QString& path)
{
    const QFileInfo file(path);
    const QString shown = plainText(path);
    if (!file.exists())
        return QStringLiteral("there is no file %1").arg(shown);
    if (!file.isFile())
        return QStringLiteral("%1 is no file").arg(shown);
    return file.isReadable() ? QString() : QStringLiteral("%1 must not be read").arg(shown);
}

int refuse(const QString& error)
{
    output::printError(error);
    return int(ExitCode::BadUsage);
}

QByteArray details(const Inspection& inspection)
{
    QString text;
    if (inspection.video) {
        const Inspection::Video& video = *inspection.video;
        text += QStringLiteral("decoded   %1 of %2 frames, %3 bad\n")
                    .arg(video.decodedFrames)
                    .arg(video.frames)
                    .arg(video.badFrames);
        text += QStringLiteral("gaps      %1 longer than 1 s, the longest time between two frames is %2 s\n")
                    .arg(video.gaps.size())
                    .arg(double(video.longestGapMs) / 1000, 0, 'f', 3);
    }
    if (inspection.audio)
        text += QStringLiteral("          %1 bad blocks of audio\n").arg(inspection.audio->badBlocks);
    return text.toLocal8Bit();
}

/// The video's length is what the audio is compared with: what the recorder said of it is not known any more.
Expectation expectationOf(const Inspection& inspection)
{
    Expectation expectation;
    expectation.withAudio = inspection.audio.has_value();
    if (inspection.video)
        expectation.durationMs = inspection.video->endMs;
    return expectation;
}

int verify(const FileTask& task)
{
    Outcome outcome;
    outcome.inspection = inspectRecording(task.file, std::numeric_limits<qint64>::max());
    if (!outcome.inspection->video)
        return refuse(outcome.inspection->error.isEmpty()
                ? QStringLiteral("%1 holds no video").arg(plainText(task.file))
                : QStringLiteral("cannot read %1: %2").arg(plainText(task.file), outcome.inspection->error));
    outcome.file = QFileInfo(task.file).absoluteFilePath();
    Progress progress(task.quiet);
    for (const QString& complaint : judge(*outcome.inspection, expectationOf(*outcome.inspection))) {
        progress.warn(complaint);
        outcome.warnings.append(complaint);
    }
    makeExtras(task.extras, outcome, progress, [] { return false; });
    if (task.json)
        output::print(outcome.toJson());
    else if (!task.quiet)
        output::print(outcome.toText() + details(*outcome.inspection));
    return int(outcome.warnings.isEmpty() ? ExitCode::Recorded : ExitCode::NotAsAsked);
}

ExitCode exitCodeOf(const ShareCopy& copy)
{
    switch (copy.end) {
    case ShareCopy::End::Made:
        break;
    case ShareCopy::End::BadInput:
        return ExitCode::BadUsage;
    case ShareCopy::End::NotWritten:
        return ExitCode::BadEnd;
    case ShareCopy::End::Cancelled:
        return ExitCode::Killed;
    }
    return copy.remark.isEmpty() ? ExitCode::Recorded : ExitCode::NotAsAsked;
}

int share(const FileTask& task)
{
    SignalNotifier::ignore(SIGPIPE);
    SignalNotifier::restore(SIGINT);
    const SignalNotifier interruptions({SIGINT, SIGTERM, SIGHUP}, SignalNotifier::Insisting::IsReported);
    bool isInterrupted = false;
    const auto interrupt = [&isInterrupted] { isInterrupted = true; };
    QObject::connect(&interruptions, &SignalNotifier::received, QCoreApplication::instance(), interrupt);
    QObject::connect(&interruptions, &SignalNotifier::insisted, QCoreApplication::instance(), interrupt);
    Progress progress(task.quiet);
    const ShareCopy copy = writeShareCopy(task.file, task.copy, task.extras.overwrite, progress, [&isInterrupted] {
        QCoreApplication::processEvents();
        return isInterrupted;
    });
    for (const QString& sentence : {copy.error, copy.remark}) {
        if (!sentence.isEmpty())
            progress.warn(sentence);
    }
    if (copy.end == ShareCopy::End::Made && !task.quiet) {
        Outcome outcome;
        outcome.share = task.copy;
        output::print(outcome.toText());
    }
    return int(exitCodeOf(copy));
}

int explain(const FileTask& task)
{
    const Story story = tellStory(task.file);
    if (!story.error.isEmpty())
        return refuse(story.error);
    output::print(story.text.toLocal8Bit());
    return int(ExitCode::Recorded);
}

}

int runFileTask(const FileTask& task)
{
    const QString refusal = refusalOf(task.file);
    if (!refusal.isEmpty())
        return refuse(refusal);
    switch (task.kind) {
    case FileTask::Kind::Verify:
        return verify(task);
    case FileTask::Kind::Share:
        return share(task);
    case FileTask::Kind::Explain:
        return explain(task);
    }
    return int(ExitCode::BadUsage);
}

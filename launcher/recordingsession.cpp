// The course of a recording, seen from the launcher's side, and the outcome at its end.
#include "recordingsession.h"

#include "judgement.h"
#include "plaintext.h"
#include "signalnotifier.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <chrono>
#include <unistd.h>
#include <utility>

using namespace std::chrono_literals;

namespace {

constexpr qint64 readinessLeadMs = 500; // from the readiness byte to the first frame
constexpr qint64 decodingLimitMs = 20'000; // of an hour's recording not all is decoded
constexpr auto connectLimit = 6s; // a recorder tries to connect for 5 s
constexpr auto lostLineLimit = 2s; // between the end of the connection and that of the process
constexpr auto leaveLimit = 10s; // between "exit", which takes effect after one second, and the end of the process

/// How the person ends the recording: a job in the background gets nothing from the keyboard.
QString endingHint()
{
    return ::tcgetpgrp(STDERR_FILENO) == ::getpgrp()
        ? QStringLiteral("recording; Ctrl-C ends it")
        : QStringLiteral("recording; kill -INT %1 ends it").arg(::getpid());
}

QString windowClosed(const Target& target)
{
    const QString closed = QStringLiteral("the window has closed");
    return target.shared ? closed + QLatin1String(", or its sharing was ended") : closed;
}

}

RecordingSession::RecordingSession(const Options& options, const Target& target, QObject* parent)
    : QObject(parent), options_(options), target_(target), progress_(options.quiet)
{
    connect(&server_, &ControlServer::connected, this, [this] {
        if (state_ == State::Stopping)
            requestStop();
    });
    connect(&server_, &ControlServer::ready, this, &RecordingSession::onReady);
    connect(&server_, &ControlServer::durationReceived, this, &RecordingSession::onDuration);
    connect(&server_, &ControlServer::nonsenseReceived, this, &RecordingSession::onNonsense);
    connect(&server_, &ControlServer::disconnected, this, &RecordingSession::onDisconnected);
    connect(&recorder_, &QProcess::finished, this, &RecordingSession::onRecorderEnded);
    connect(&recorder_, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            fail(ExitCode::NotStarted,
                QStringLiteral("cannot start the recorder %1: %2")
                    .arg(plainText(options_.recorder), recorder_.errorString()));
    });
    if (!target_.shared)
        facts_.window = target_.window;
    connect(&logTimer_, &QTimer::timeout, this, &RecordingSession::readLog);
    finishTimer_.setSingleShot(true);
    connect(&finishTimer_, &QTimer::timeout, this, &RecordingSession::onFinishTimeout);
}

RecordingSession::~RecordingSession()
{
    recorder_.disconnect(this);
    if (recorder_.state() == QProcess::NotRunning)
        return;
    recorder_.kill();
    recorder_.waitForFinished(-1);
}

// ==== recording ==============================================================================================

void RecordingSession::onReady()
{
    if (state_ != State::Starting)
        return; // after a stop the byte only says that the file holds a black frame
    state_ = State::Recording;
    facts_.wasReady = true;
    const qint64 readyAtMs = QDateTime::currentMSecsSinceEpoch();
    progress_.step(options_.lengthMs ? QStringLiteral("recording") : endingHint());
    scheduleClicks(readyAtMs);
    sinceReady_.start();
    connect(&progressTimer_, &QTimer::timeout, this, [this] { showProgress(); });
    progressTimer_.start(1s);
    if (options_.lengthMs) {
        QTimer::singleShot(
            std::chrono::milliseconds(readinessLeadMs + *options_.lengthMs), Qt::PreciseTimer, this, [this] {
                if (state_ == State::Recording)
                    requestStop();
            });
    }
}

void RecordingSession::scheduleClicks(qint64 readyAtMs)
{
    clicksToReport_ = options_.clicks.size();
    for (const PlannedClick& planned : options_.clicks) {
        Click click;
        click.global = planned.global;
        click.atMs = readyAtMs + planned.atMs;
        QTimer::singleShot(
            std::chrono::milliseconds(planned.atMs + planned.delayMs), Qt::PreciseTimer, this, [this, click] {
                if (state_ == State::Recording)
                    --clicksToReport_;
                report(click);
            });
    }
}

void RecordingSession::report(const Click& click)
{
    if (state_ != State::Recording)
        return;
    server_.send(click.line());
    ++reportedClicks_;
}

void RecordingSession::showProgress()
{
    const QFileInfo output(log_->outputInUse());
    Progress::Recorded recorded;
    recorded.elapsedMs = std::max<qint64>(sinceReady_.elapsed() - readinessLeadMs, 0);
    recorded.frames = output.isFile() ? frameCount_.update(output.filePath()) : -1;
    recorded.fileSize = output.isFile() ? output.size() : -1;
    recorded.clicks = reportedClicks_;
    progress_.recorded(recorded);
}

void RecordingSession::readLog()
{
    for (const QByteArray& line : log_->newLines()) {
        if (const std::optional<Explanation> explanation = Explanation::of(line))
            takeIn(*explanation);
    }
}

/// Each is told once, at once.
void RecordingSession::takeIn(const Explanation& explanation)
{
    using Meaning = Explanation::Meaning;
    const bool isAudio = explanation.meaning == Meaning::AudioHarmed;
    if ((isAudio && !wantsAudio()) || toldSentences_.contains(explanation.sentence))
        return;
    if (explanation.meaning == Meaning::NoImage && windowHasClosed_)
        return; // that has been told
    toldSentences_.insert(explanation.sentence);
    if (explanation.meaning == Meaning::NoRecording && state_ == State::Starting)
        return giveUp(explanation.sentence);
    if (explanation.meaning == Meaning::WindowGone)
        return onWindowClosed();
    // Of several reasons for the same silence the first one is told.
    if (isAudio && audioIsHarmed_)
        return;
    audioIsHarmed_ = audioIsHarmed_ || isAudio;
    if (explanation.meaning == Meaning::Remark || explanation.meaning == Meaning::NoImage)
        progress_.warn(explanation.sentence);
    else
        warn(explanation.sentence);
}

void RecordingSession::warn(const QString& sentence)
{
    progress_.warn(sentence);
    outcome_.warnings.append(sentence);
}

void RecordingSession::onWindowClosed()
{
    if (state_ == State::Starting)
        return giveUp(windowClosed(target_));
    if (state_ != State::Recording)
        return;
    if (std::exchange(windowHasClosed_, true))
        return;
    if (options_.keepGoing)
        return warn(windowClosed(target_) + QLatin1String("; the recording goes on without frames"));
    progress_.step(windowClosed(target_));
    requestStop();
}

// ==== end ====================================================================================================

void RecordingSession::interrupt()
{
    if (state_ == State::CountingDown) {
        state_ = State::Leaving;
        fail(ExitCode::Killed, QStringLiteral("interrupted before the recording; nothing was recorded"));
    } else if (state_ == State::Starting || state_ == State::Recording)
        requestStop();
    else
        progress_.step(QStringLiteral("already finishing the file; a second Ctrl-C kills the recorder"));
}

void RecordingSession::kill()
{
    facts_.killed = true;
    recorder_.kill(); // its end brings the session to its end
}

void RecordingSession::requestStop()
{
    if (clicksToReport_ > 0)
        progress_.warn(QStringLiteral("the recording ended before %1 click report(s) were due").arg(clicksToReport_));
    clicksToReport_ = 0;
    state_ = State::Stopping;
    progressTimer_.stop();
    if (server_.isConnected()) {
        progress_.step(QStringLiteral("finishing the file"));
        finishTimer_.start(std::chrono::milliseconds(options_.finishLimitMs));
        server_.send("{\"action\":\"stop\"}\n");
    } else {
        progress_.step(QStringLiteral("waiting for the recorder to connect, to end the recording"));
        QTimer::singleShot(connectLimit, this, [this] {
            if (!server_.isConnected())
                endRecorder(QStringLiteral("cannot be reached"));
        });
    }
}

/// Nothing can be recorded: the recorder need not be asked for a file.
void RecordingSession::giveUp(const QString& reason)
{
    facts_.refusal = reason;
    state_ = State::Leaving;
    terminated_ = true;
    recorder_.terminate();
    finishTimer_.start(leaveLimit);
}

void RecordingSession::onDuration(qint64 durationMs)
{
    if (state_ != State::Stopping)
        return onNonsense("a duration that nobody asked for");
    outcome_.durationMs = durationMs;
    leave();
}

void RecordingSession::onNonsense(const QByteArray& line)
{
    constexpr int shownBytes = 80;
    if (facts_.nonsense.isEmpty())
        facts_.nonsense = line.isEmpty() ? QByteArray("an empty line") : line.left(shownBytes);
    if (state_ == State::Stopping)
        leave();
}

void RecordingSession::leave()
{
    state_ = State::Leaving;
    finishTimer_.start(
        std::min<std::chrono::milliseconds>(leaveLimit, std::chrono::milliseconds(options_.finishLimitMs)));
    server_.send("{\"action\":\"exit\"}\n");
}

void RecordingSession::onDisconnected()
{
    if (state_ != State::Leaving)
        QTimer::singleShot(
            lostLineLimit, this, [this] { endRecorder(QStringLiteral("cannot be reached any more")); });
}

void RecordingSession::onFinishTimeout()
{
    server_.readLastReplies(); // an answer can have arrived while this process was stopped
    if (finishTimer_.isActive())
        return;
    facts_.gaveUpOnDuration = state_ == State::Stopping;
    endRecorder(state_ == State::Stopping ? QStringLiteral("does not answer") : QStringLiteral("does not end"));
}

/// For a recorder that does not answer: SIGTERM makes it finish its file. If that takes too long, SIGKILL.
void RecordingSession::endRecorder(const QString& whatItDoes)
{
    if (recorder_.state() == QProcess::NotRunning)
        return;
    if (!terminated_) {
        progress_.warn(QStringLiteral("the recorder %1; ending its process").arg(whatItDoes));
        recorder_.terminate();
        finishTimer_.start(std::chrono::milliseconds(options_.finishLimitMs));
    } else if (!finishTimer_.isActive()) {
        progress_.warn(QStringLiteral("the recorder %1; killing it").arg(whatItDoes));
        recorder_.kill();
    }
    terminated_ = true;
}

void RecordingSession::onRecorderEnded()
{
    facts_.wasStarting = state_ == State::Starting;
    progressTimer_.stop();
    logTimer_.stop();
    clickWatcher_.reset();
    if (target_.shared)
        target_.shared->close();
    server_.readLastReplies();
    finishTimer_.stop();
    readLog();
    facts_.crashed = recorder_.exitStatus() == QProcess::CrashExit;
    facts_.exitCode = recorder_.exitCode();
    outcome_.recorderExitCode = facts_.crashed ? SignalNotifier::exitCode(facts_.exitCode) : facts_.exitCode;
    outcome_.logFile = log_->path();
    outcome_.file = log_->finalizedOutput();
    if (outcome_.file.isEmpty())
        outcome_.file = log_->outputInUse();
    if (!QFileInfo(outcome_.file).isFile())
        outcome_.file.clear();
    judgeRun(facts_, outcome_);
    review();
    dropLog();
    Q_EMIT over();
}

/// A recording that is as it was asked for needs no log. Until here it lies beside the video, so that it is there
/// whatever ends this process.
void RecordingSession::dropLog()
{
    if (options_.keepLog || outcome_.code != ExitCode::Recorded || outcome_.logFile.isEmpty())
        return;
    QFile::remove(outcome_.logFile);
    outcome_.logFile.clear();
}

/// Looks at the file, which holds nothing but a black frame when there never was an image.
void RecordingSession::review()
{
    if (!facts_.wasReady) {
        claim_.discard(outcome_.file);
        outcome_.file.clear();
    }
    if (outcome_.file.isEmpty() || facts_.killed)
        return;
    Expectation expectation;
    expectation.durationMs = outcome_.durationMs;
    expectation.lengthMs = options_.lengthMs;
    expectation.withAudio = wantsAudio() && !audioIsHarmed_; // else the log has said why
    if (windowHasClosed_ && !options_.keepGoing)
        expectation.earlyEnd = windowClosed(target_);
    outcome_.inspection = inspectRecording(outcome_.file, decodingLimitMs);
    for (const QString& complaint : judge(*outcome_.inspection, expectation))
        warn(complaint);
    if (outcome_.code == ExitCode::Recorded && !outcome_.warnings.isEmpty())
        outcome_.code = ExitCode::NotAsAsked;
}

void RecordingSession::fail(ExitCode code, const QString& error)
{
    outcome_.code = code;
    outcome_.error = error;
    QMetaObject::invokeMethod(this, &RecordingSession::over, Qt::QueuedConnection);
}

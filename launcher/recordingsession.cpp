// The course of a recording, seen from the launcher's side, and the outcome at its end.
#include "recordingsession.h"

#include "endwithparent.h"
#include "privatefile.h"
#include "signalnotifier.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QTemporaryFile>

#include <algorithm>
#include <chrono>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

constexpr qint64 readinessLeadMs = 500; // from the readiness byte to the first frame
constexpr auto slowStartHint = 5s;
constexpr auto connectLimit = 6s; // a recorder tries to connect for 5 s
constexpr auto lostLineLimit = 2s; // between the end of the connection and that of the process
constexpr auto leaveLimit = 10s; // between "exit", which takes effect after one second, and the end of the process

/// Whether a file can be made in a directory, which is created, for the user alone, when it is missing. The
/// permission bits alone do not tell.
bool canWriteInto(const QString& directory)
{
    return privatefile::makeDirectories(QFile::encodeName(directory))
        && QTemporaryFile(directory + QLatin1String("/record-window-XXXXXX")).open();
}

QString number(int value)
{
    return QString::number(value);
}

}

RecordingSession::RecordingSession(const Options& options, QObject* parent)
    : QObject(parent), options_(options), progress_(options.quiet)
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
                QStringLiteral("cannot start the recorder %1: %2").arg(options_.recorder, recorder_.errorString()));
    });
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

// ==== start ==================================================================================================

void RecordingSession::start()
{
    QString error = prepareDirectories();
    if (!error.isEmpty())
        return fail(ExitCode::BadUsage, error);
    error = listen();
    if (!error.isEmpty())
        return fail(ExitCode::NotStarted, error);
    watchClicks();
    startRecorder();
}

/// Empty, or what is wrong with them.
QString RecordingSession::prepareDirectories() const
{
    for (const QString& directory : {QFileInfo(options_.output).absolutePath(), options_.logDirectory}) {
        if (!canWriteInto(directory))
            return QStringLiteral("cannot write into the directory %1").arg(directory);
    }
    return QString();
}

/// Empty, or why no recorder can connect. The directory is private (mode 0700) and new.
QString RecordingSession::listen()
{
    // A socket's path has room for about 100 bytes.
    constexpr qsizetype longestParent = 60;
    const QString usual = QDir::tempPath();
    const QString parent = usual.toLocal8Bit().size() <= longestParent ? usual : QStringLiteral("/tmp");
    socketDirectory_ = std::make_unique<QTemporaryDir>(parent + QLatin1String("/record-window-XXXXXX"));
    if (!socketDirectory_->isValid())
        return QStringLiteral("no private directory: %1").arg(socketDirectory_->errorString());
    if (!server_.listen(socketDirectory_->filePath(QStringLiteral("orvantis-recorder"))))
        return QStringLiteral("no control socket: %1").arg(server_.errorString());
    return QString();
}

void RecordingSession::watchClicks()
{
    if (!options_.watchClicks)
        return;
    clickWatcher_ = std::make_unique<ClickWatcher>(options_.window);
    const auto sayWhy = [this] {
        progress_.step(QStringLiteral("mouse clicks are not watched: %1").arg(clickWatcher_->errorString()));
    };
    if (!clickWatcher_->isWatching())
        sayWhy();
    connect(clickWatcher_.get(), &ClickWatcher::clicked, this, &RecordingSession::report);
    connect(clickWatcher_.get(), &ClickWatcher::failed, this, sayWhy);
    if (options_.verbose)
        connect(clickWatcher_.get(), &ClickWatcher::clickedElsewhere, this,
            [this] { progress_.step(QStringLiteral("a click elsewhere, not reported")); });
}

void RecordingSession::startRecorder()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("TMPDIR"), socketDirectory_->path());
    environment.insert(QStringLiteral("ORVANTIS_END_WITH_LAUNCHER"), QStringLiteral("1"));
    recorder_.setProcessEnvironment(environment);
    recorder_.setStandardInputFile(QProcess::nullDevice());
    // Never a pipe: it would fill up while this process is busy or stopped.
    if (options_.verbose) {
        recorder_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    } else {
        recorder_.setStandardErrorFile(QProcess::nullDevice());
    }
    recorder_.setStandardOutputFile(QProcess::nullDevice());
    // In its own process group: the terminal's Ctrl-C is meant for the launcher only.
    recorder_.setChildProcessModifier([parent = ::getpid()] {
        ::setpgid(0, 0);
        endWithParent(parent);
    });

    // File systems with coarse time stamps may date the log a little before this moment.
    const QDateTime startedAt = QDateTime::currentDateTimeUtc().addSecs(-2);
    recorder_.start(options_.recorder,
        {options_.logDirectory, QStringLiteral("qt-window-capture"), options_.output,
            QString::number(options_.window), QStringLiteral("0"), QStringLiteral("0"),
            number(options_.canvas.width()), number(options_.canvas.height()), QStringLiteral("1.0"),
            options_.audioSource});
    log_.emplace(options_.logDirectory, recorder_.processId(), startedAt);

    QTimer::singleShot(slowStartHint, this, [this] {
        if (state_ == State::Starting)
            progress_.step(
                QStringLiteral("still waiting for the window's first image; the log: %1").arg(log_->path()));
    });
    if (options_.readyLimitMs) {
        QTimer::singleShot(*options_.readyLimitMs, this, [this] {
            if (state_ != State::Starting)
                return;
            gaveUpWaiting_ = true;
            requestStop();
        });
    }
}

// ==== recording ==============================================================================================

void RecordingSession::onReady()
{
    if (state_ != State::Starting)
        return; // after a stop the byte only says that the file holds a black frame
    state_ = State::Recording;
    wasReady_ = true;
    const qint64 readyAtMs = QDateTime::currentMSecsSinceEpoch();
    progress_.step(options_.lengthMs ? QStringLiteral("recording") : QStringLiteral("recording; Ctrl-C ends it"));
    scheduleClicks(readyAtMs);
    connect(&progressTimer_, &QTimer::timeout, this, [this, readyAtMs] { showProgress(readyAtMs); });
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
    if (state_ == State::Recording)
        server_.send(click.line());
}

void RecordingSession::showProgress(qint64 readyAtMs)
{
    const qint64 elapsedMs = QDateTime::currentMSecsSinceEpoch() - readyAtMs - readinessLeadMs;
    const QFileInfo output(log_->outputInUse());
    progress_.recorded(std::max<qint64>(elapsedMs, 0), output.isFile() ? output.size() : -1);
}

// ==== end ====================================================================================================

void RecordingSession::interrupt()
{
    if (state_ == State::Starting || state_ == State::Recording)
        requestStop();
    else
        progress_.step(QStringLiteral("already finishing the file; a second Ctrl-C kills the recorder"));
}

void RecordingSession::kill()
{
    killed_ = true;
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
    if (nonsense_.isEmpty())
        nonsense_ = line.isEmpty() ? QByteArray("an empty line") : line.left(shownBytes);
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
    gaveUpOnDuration_ = state_ == State::Stopping;
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
    progressTimer_.stop();
    clickWatcher_.reset();
    server_.readLastReplies();
    finishTimer_.stop();
    outcome_.recorderExitCode = recorder_.exitStatus() == QProcess::NormalExit
        ? recorder_.exitCode()
        : SignalNotifier::exitCode(recorder_.exitCode());
    outcome_.logFile = log_->path();
    outcome_.file = log_->finalizedOutput();
    if (outcome_.file.isEmpty())
        outcome_.file = log_->outputInUse();
    if (!QFileInfo(outcome_.file).isFile())
        outcome_.file.clear();
    checkOutcome();
    Q_EMIT over();
}

/// Fills in the exit code and the error; everything else is known.
void RecordingSession::checkOutcome()
{
    const auto set = [this](ExitCode code, const QString& error) {
        outcome_.code = code;
        outcome_.error = error;
    };
    if (killed_)
        set(ExitCode::Killed, QStringLiteral("the recorder was killed"));
    else if (!wasReady_ && state_ == State::Starting)
        set(ExitCode::EndedBeforeReady,
            QStringLiteral("the recorder ended before it was ready (%1)").arg(endOfRecorder()));
    else if (!wasReady_ && outcome_.durationMs)
        set(ExitCode::NoImage,
            gaveUpWaiting_ ? QStringLiteral("window 0x%1 gave no image in time").arg(options_.window, 0, 16)
                           : QStringLiteral("window 0x%1 never gave an image").arg(options_.window, 0, 16));
    else if (!outcome_.durationMs && !nonsense_.isEmpty())
        set(ExitCode::NoDuration,
            QStringLiteral("the recorder did not answer with a duration but with: %1")
                .arg(QString::fromUtf8(nonsense_)));
    else if (!outcome_.durationMs && gaveUpOnDuration_)
        set(ExitCode::NoDuration,
            QStringLiteral("the recorder did not confirm the recording in time (%1)").arg(endOfRecorder()));
    else if (!outcome_.durationMs)
        set(ExitCode::NoDuration,
            QStringLiteral("the recorder ended without confirming the recording (%1)").arg(endOfRecorder()));
    else if (outcome_.file.isEmpty())
        set(ExitCode::BadEnd, QStringLiteral("the recorder left no file"));
    else if (*outcome_.recorderExitCode != 0)
        set(ExitCode::BadEnd, QStringLiteral("the recorder did not end well (%1)").arg(endOfRecorder()));
    if (!outcome_.error.isEmpty() && !outcome_.logFile.isEmpty())
        outcome_.error += QStringLiteral("; its log: %1").arg(outcome_.logFile);
}

/// In words; the recorder has ended.
QString RecordingSession::endOfRecorder() const
{
    if (recorder_.exitStatus() == QProcess::CrashExit)
        return QStringLiteral("ended by signal %1").arg(recorder_.exitCode());
    constexpr int captureSetupFailed = 2;
    return recorder_.exitCode() == captureSetupFailed
        ? QStringLiteral("exit code 2: the window capture could not be set up")
        : QStringLiteral("exit code %1").arg(recorder_.exitCode());
}

void RecordingSession::fail(ExitCode code, const QString& error)
{
    outcome_.code = code;
    outcome_.error = error;
    QMetaObject::invokeMethod(this, &RecordingSession::over, Qt::QueuedConnection);
}

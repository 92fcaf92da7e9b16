// RecordingSession up to the start of the recorder: directories, the claim to the file, the countdown, the control
// socket, and what limits the wait for the first image.
#include "recordingsession.h"

#include "directorytrial.h"
#include "plaintext.h"
#include "recorderstart.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <chrono>
#include <utility>

using namespace std::chrono_literals;

namespace {

constexpr auto slowStartHint = 5s;
constexpr auto logInterval = 100ms;

}

void RecordingSession::start()
{
    if (!QFileInfo(options_.recorder).isExecutable())
        return fail(ExitCode::NotStarted,
            QStringLiteral("cannot start the recorder %1: there is no such program")
                .arg(plainText(options_.recorder)));
    QString error = prepareFiles();
    if (!error.isEmpty())
        return fail(ExitCode::BadUsage, error);
    error = listen();
    if (!error.isEmpty())
        return fail(ExitCode::NotStarted, error);
    for (const QString& remark : QStringList{options_.outputRemark} + target_.remarks) {
        if (!remark.isEmpty())
            progress_.step(remark);
    }
    countDown(options_.countdownSeconds);
}

/// Empty, or what is wrong with the directories or the file.
QString RecordingSession::prepareFiles()
{
    QStringList directories{QFileInfo(options_.output).absolutePath(), options_.logDirectory};
    // Made after the recording, when it would be too late to find out.
    for (const QString& file : {options_.extras.share, options_.extras.contactSheet}) {
        if (!file.isEmpty())
            directories.append(QFileInfo(file).absolutePath());
    }
    directories.removeDuplicates();
    for (const QString& directory : std::as_const(directories)) {
        QString error = whyNothingFitsInto(directory);
        if (!error.isEmpty())
            return error;
    }
    return claim_.take(options_.output, options_.overwrite);
}

void RecordingSession::countDown(int secondsLeft)
{
    if (state_ != State::CountingDown)
        return; // it was interrupted
    if (secondsLeft == 0)
        return startRecording();
    progress_.step(QStringLiteral("recording in %1 s").arg(secondsLeft));
    QTimer::singleShot(1s, this, [this, secondsLeft] { countDown(secondsLeft - 1); });
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

void RecordingSession::watchWindow()
{
    if (target_.shared) {
        connect(target_.shared.get(), &SharedWindow::ended, this, &RecordingSession::onWindowClosed);
        return;
    }
    if (!options_.watchClicks && options_.keepGoing)
        return;
    clickWatcher_ = std::make_unique<ClickWatcher>(target_.window,
        options_.watchClicks ? ClickWatcher::Watched::ClicksAndClosing : ClickWatcher::Watched::ClosingOnly);
    connect(clickWatcher_.get(), &ClickWatcher::windowClosed, this, &RecordingSession::onWindowClosed);
    if (!options_.watchClicks)
        return;
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

void RecordingSession::startRecording()
{
    state_ = State::Starting;
    watchWindow();
    // File systems with coarse time stamps may date the log a little before this moment.
    const QDateTime startedAt = QDateTime::currentDateTimeUtc().addSecs(-2);
    startRecorder(recorder_, options_, target_, socketDirectory_->path());
    log_.emplace(options_.logDirectory, recorder_.processId(), startedAt);
    logTimer_.start(logInterval);
    limitStart();
}

void RecordingSession::limitStart()
{
    QTimer::singleShot(slowStartHint, this, [this] {
        if (state_ == State::Starting)
            progress_.step(QStringLiteral("still waiting for the window's first image; the log: %1")
                               .arg(plainText(log_->path())));
    });
    QTimer::singleShot(std::chrono::milliseconds(options_.readyLimitMs), this, [this] {
        if (state_ != State::Starting)
            return;
        facts_.gaveUpWaiting = true;
        requestStop();
    });
}

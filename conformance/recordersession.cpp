// One run of a recorder with a launcher at the other end.
#include "recordersession.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

RecorderSession::RecorderSession(const RecorderSettings& settings, bool listens) : recorder(settings.display)
{
    QDir(directory_.path()).mkdir(QStringLiteral("logs"));
    command.logDirectory = directory_.filePath(QStringLiteral("logs"));
    command.output = directory_.filePath(QStringLiteral("recording.mp4"));
    command.window = settings.window;
    command.audioSource = settings.audioSource;
    recorder.setBinary(settings.binary);
    if (listens)
        server_ = std::make_unique<LauncherServer>();
}

bool RecorderSession::start(const QStringList& arguments)
{
    clock_.start();
    return recorder.start(arguments);
}

bool RecorderSession::waitForConnection(int limitMs)
{
    const QElapsedTimer started = clock_;
    while (!server_->waitForConnection(50)) {
        if (!recorder.isRunning() || started.elapsed() > limitMs)
            return server_->waitForConnection(0);
    }
    return true;
}

bool RecorderSession::waitForReceived(const std::function<bool(const QByteArray&)>& enough, int limitMs)
{
    QElapsedTimer started;
    started.start();
    while (!server_->waitForReceived(enough, 50)) {
        if (!recorder.isRunning() || started.elapsed() > limitMs)
            return server_->waitForReceived(enough, 50);
    }
    return true;
}

bool RecorderSession::staysFor(int durationMs)
{
    return !recorder.waitForEnd(durationMs);
}

QString RecorderSession::finishedFile() const
{
    static const QRegularExpression form(QStringLiteral("^\"([^\"]+)\" duration \\d+$"));
    const QString rest = restOfLine(log(), QStringLiteral("FFmpeg recorder finalized output "));
    const QString file = form.match(rest).captured(1);
    return QFileInfo(file).size() > 0 ? file : QString();
}

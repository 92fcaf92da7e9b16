// The launcher's line: connection, framing, messages and replies. Main thread.
#include "gstrecorder.h"

#include "linesplitter.h"
#include "platform/application.h"

#include <QCoreApplication>
#include <QDebug>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <sys/socket.h>

using namespace std::chrono_literals;

namespace {

const auto serverName = QStringLiteral("orvantis-recorder");
constexpr int connectAttempts = 50;
constexpr int attemptMs = 100; // an attempt that fails at once still lasts this long, so that a late launcher is met
constexpr auto exitDelay = 1000ms;
constexpr int launcherGoneExitCode = 3;
constexpr quint32 rootUserId = 0; // root can control every process anyway
#ifdef MSG_NOSIGNAL
constexpr int sendFlags = MSG_DONTWAIT | MSG_NOSIGNAL;
#else
constexpr int sendFlags = MSG_DONTWAIT; // Qt has the socket send no signal
#endif

/// The launcher has asked for it in the environment.
bool endsWithLauncher()
{
    return qgetenv("ORVANTIS_END_WITH_LAUNCHER") == "1";
}

}

void GstRecorder::connectControlSocket()
{
    controlSocket = new QLocalSocket(this);
    controlSocket->setReadBufferSize(linesplitter::longestLine);
    const bool connected = findLauncher();
    if (!connected) {
        qWarning() << "Unable to connect to browser recorder control socket:" << controlSocket->errorString();
        // The last attempt can still be under way. Nobody would ask whose server completes it.
        controlSocket->abort();
        controlSocket->close();
    }
    // Only now, so that no byte of a server is read before it is known whose it is.
    connect(controlSocket, SIGNAL(readyRead()), this, SLOT(proceessData()), Qt::DirectConnection);
    if (!endsWithLauncher())
        return;
    // From the event loop: the connection can close while lines that came over it are still being obeyed.
    const auto endSoon = [this] {
        QTimer::singleShot(0, this, [this] {
            if (exitRequested)
                return;
            qWarning() << "Browser recorder control socket is closed; finishing the file and ending.";
            QCoreApplication::exit(launcherGoneExitCode);
        });
    };
    if (connected)
        connect(controlSocket, &QLocalSocket::disconnected, this, endSoon);
    else
        endSoon();
}

/// True when the control socket is connected to a server that may be obeyed.
bool GstRecorder::findLauncher()
{
    bool foreignServerLogged = false;
    for (int attempt = 0; attempt < connectAttempts; ++attempt) {
        QElapsedTimer attemptTime;
        attemptTime.start();
        controlSocket->abort();
        controlSocket->connectToServer(serverName, QIODevice::ReadWrite);
        if (controlSocket->waitForConnected(attemptMs)) {
            if (serverIsOurs())
                return true;
            controlSocket->abort();
            if (!foreignServerLogged)
                qWarning() << "Browser recorder control socket belongs to another user; not obeying it.";
            foreignServerLogged = true;
        }
        QThread::msleep(ulong(std::max<qint64>(attemptMs - attemptTime.elapsed(), 0)));
    }
    return false;
}

bool GstRecorder::serverIsOurs()
{
    const auto server = platform::peerUserId(controlSocket->socketDescriptor());
    return server && (*server == platform::ownUserId() || *server == rootUserId);
}

void GstRecorder::proceessData()
{
    auto* socket = qobject_cast<QLocalSocket*>(sender());
    if (!socket)
        return;
    controlBuffer += socket->readAll();
    linesplitter::takeLines(
        controlBuffer, discardingLongLine, [this](const QByteArray& line) { handleControlLine(line); });

    // A legacy click list needs no line feed.
    if (controlBuffer.startsWith('|') && controlBuffer.count('|') > 1) {
        const QList<QByteArray> fields = controlBuffer.split('|');
        controlBuffer.clear();
        handleLegacyClicks(fields);
    }
}

void GstRecorder::handleControlLine(const QByteArray& line)
{
    if (line.startsWith("click|"))
        handleClickLine(line);
    else if (line.startsWith('|'))
        handleLegacyClicks(line.split('|'));
    else
        handleAction(line);
}

void GstRecorder::handleClickLine(const QByteArray& line)
{
    const QList<QByteArray> fields = line.split('|');
    if (fields.size() < 5)
        return;
    const qint64 timestampMs = fields.size() > 5 ? fields[5].toLongLong() : 0;
    addClick(fields[1].toDouble(), fields[2].toDouble(), fields[3].toDouble(), fields[4].toDouble(), timestampMs);
}

void GstRecorder::handleLegacyClicks(const QList<QByteArray>& fields)
{
    for (qsizetype i = 1; i + 1 < fields.size(); i += 2)
        addClick(fields[i].toDouble(), fields[i + 1].toDouble(), -1.0, -1.0, 0);
}

void GstRecorder::handleAction(const QByteArray& line)
{
    const QString action = QJsonDocument::fromJson(line).object().value(QLatin1String("action")).toString();
    if (action == QLatin1String("stop")) {
        stop();
    } else if (action == QLatin1String("exit")) {
        exitRequested = true;
        QTimer::singleShot(exitDelay, [] { QCoreApplication::exit(0); });
    } else if (action == QLatin1String("pause")) {
        paused.store(true, std::memory_order_release);
    } else if (action == QLatin1String("unpause")) {
        paused.store(false, std::memory_order_release);
    }
}

void GstRecorder::onFrameCome()
{
    qDebug() << "sending frame come";
    sendReply(QByteArrayLiteral("1"));
}

void GstRecorder::sendDuration()
{
    // The worker has finished, but its frameCome() can still be queued. The notice is always sent first.
    QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
    const QJsonObject reply{{QStringLiteral("duration"), qint64(durationMs)}};
    sendReply(QJsonDocument(reply).toJson(QJsonDocument::Compact) + '\n');
}

/// Past the socket object: where the launcher has hung up, that would throw away the lines that are still to be read.
void GstRecorder::sendReply(const QByteArray& bytes)
{
    if (!controlSocket || controlSocket->state() != QLocalSocket::ConnectedState)
        return;
    // Both replies together are smaller than any socket's buffer. When nobody is there any more, the event loop finds
    // the end of the connection behind its last line.
    [[maybe_unused]] const ssize_t sent
        = ::send(int(controlSocket->socketDescriptor()), bytes.constData(), std::size_t(bytes.size()), sendFlags);
}

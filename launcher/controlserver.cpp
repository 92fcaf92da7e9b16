// The control socket: connection, framing of the replies. A reply is the single byte "1" (readiness, without a line
// feed) or a line with a JSON object.
#include "controlserver.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QLocalSocket>

namespace {

constexpr char readinessByte = '1';
constexpr qsizetype longestLine = 4096; // a reply has about 20 bytes

}

ControlServer::ControlServer(QObject* parent) : QObject(parent)
{
    server_.setSocketOptions(QLocalServer::UserAccessOption);
    server_.setMaxPendingConnections(1);
    connect(&server_, &QLocalServer::newConnection, this, &ControlServer::takeConnection);
}

bool ControlServer::listen(const QString& path)
{
    return server_.listen(path);
}

bool ControlServer::isConnected() const
{
    return recorder_ && recorder_->state() == QLocalSocket::ConnectedState;
}

void ControlServer::send(const QByteArray& lines)
{
    if (!isConnected())
        return;
    recorder_->write(lines);
    recorder_->flush();
}

void ControlServer::readLastReplies()
{
    if (!recorder_)
        server_.waitForNewConnection(0);
    constexpr int mostReads = 100; // an answer is one line; who sends without end has no say here
    for (int reads = 0; reads < mostReads && isConnected() && recorder_->waitForReadyRead(0); ++reads) { }
}

void ControlServer::takeConnection()
{
    QLocalSocket* socket = server_.nextPendingConnection();
    if (recorder_) {
        socket->deleteLater(); // a second one: not ours
        return;
    }
    recorder_ = socket;
    connect(socket, &QLocalSocket::readyRead, this, &ControlServer::readReplies);
    connect(socket, &QLocalSocket::disconnected, this, [this, socket] {
        readReplies();
        socket->deleteLater();
        recorder_ = nullptr;
        Q_EMIT disconnected();
    });
    Q_EMIT connected();
    readReplies();
}

void ControlServer::readReplies()
{
    // A receiver of connected() may send, and sending may find the connection closed.
    if (!recorder_)
        return;
    buffer_ += recorder_->readAll();
    while (!buffer_.isEmpty()) {
        if (buffer_.startsWith(readinessByte)) {
            buffer_.remove(0, 1);
            Q_EMIT ready();
            continue;
        }
        const qsizetype end = buffer_.indexOf('\n');
        if (end < 0 && buffer_.size() <= longestLine)
            return;
        const QByteArray line = buffer_.left(end); // all of it when there is no end
        buffer_.remove(0, end < 0 ? buffer_.size() : end + 1);
        handleLine(line);
    }
}

void ControlServer::handleLine(const QByteArray& line)
{
    const QJsonValue duration = QJsonDocument::fromJson(line).object().value(QLatin1String("duration"));
    if (duration.isDouble() && duration.toDouble() >= 0)
        Q_EMIT durationReceived(duration.toInteger());
    else
        Q_EMIT nonsenseReceived(line);
}

// LauncherServer: the launcher's end of the control socket.
#include "launcherserver.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QLocalSocket>
#include <QThread>

namespace {

bool runEventsUntil(const std::function<bool()>& condition, int limitMs)
{
    const QDeadlineTimer limit(limitMs);
    while (!condition()) {
        if (limit.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(1);
    }
    return true;
}

}

LauncherServer::LauncherServer(QObject* parent) : QObject(parent)
{
    connect(&server_, &QLocalServer::newConnection, this, &LauncherServer::takeConnection);
    server_.listen(QStringLiteral("orvantis-recorder"));
}

bool LauncherServer::isConnected() const
{
    return client_ && client_->state() == QLocalSocket::ConnectedState;
}

bool LauncherServer::waitForConnection(int limitMs)
{
    return runEventsUntil([this] { return isConnected(); }, limitMs);
}

bool LauncherServer::waitForDisconnected(int limitMs)
{
    return runEventsUntil([this] { return !isConnected(); }, limitMs);
}

bool LauncherServer::waitForReceived(qsizetype size, int limitMs)
{
    return runEventsUntil([this, size] { return received_.size() >= size; }, limitMs);
}

bool LauncherServer::waitForReceived(const std::function<bool(const QByteArray&)>& enough, int limitMs)
{
    return runEventsUntil([this, &enough] { return enough(received_); }, limitMs);
}

bool LauncherServer::send(const QByteArray& bytes)
{
    if (!isConnected())
        return false;
    const bool queued = client_->write(bytes) == bytes.size();
    client_->flush();
    return queued;
}

void LauncherServer::disconnectClient()
{
    if (client_)
        client_->disconnectFromServer();
}

void LauncherServer::takeConnection()
{
    while (QLocalSocket* socket = server_.nextPendingConnection()) {
        if (client_)
            client_->abort();
        client_ = socket;
        const auto readAll = [this, socket] {
            if (socket->bytesAvailable() > 0)
                received_ += socket->readAll();
        };
        connect(socket, &QLocalSocket::readyRead, this, readAll);
        connect(socket, &QLocalSocket::disconnected, this, [this, socket, readAll] {
            readAll();
            if (client_ == socket)
                client_ = nullptr;
            socket->deleteLater();
        });
        readAll();
    }
}

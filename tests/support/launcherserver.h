// LauncherServer: the launcher's end of the control socket, for a recorder in this process or in another one.
#pragma once

#include <QByteArray>
#include <QLocalServer>
#include <QObject>
#include <QString>

#include <functional>

class QLocalSocket;

/// Listens under the control socket's name, which lies in TMPDIR: make a PrivateTempDir first. It listens
/// from the constructor on, so that a recorder on this same thread can connect while it blocks (the kernel
/// completes the connection); the other end is picked up when the event loop runs or one of the waits below
/// runs it. One client at a time: a later one takes the place of the earlier. One thread only.
class LauncherServer : public QObject {
    Q_OBJECT

public:
    explicit LauncherServer(QObject* parent = nullptr);

    bool isListening() const { return server_.isListening(); }
    QString errorString() const { return server_.errorString(); }
    bool isConnected() const;

    /// The waits run the event loop until the condition holds (true) or the limit is over (false).
    bool waitForConnection(int limitMs);
    bool waitForDisconnected(int limitMs);
    bool waitForReceived(qsizetype size, int limitMs);
    bool waitForReceived(const std::function<bool(const QByteArray&)>& enough, int limitMs);

    /// Everything that clients sent since the start or the last clearReceived().
    QByteArray received() const { return received_; }
    void clearReceived() { received_.clear(); }

    /// Queues the bytes as they are: a line needs its line feed. False when no client is connected.
    bool send(const QByteArray& bytes);

    /// Hangs up, after what was sent is written. The server goes on listening.
    void disconnectClient();

private:
    void takeConnection();

    QLocalSocket* client_ = nullptr; // child of server_; null without a connection
    QByteArray received_;
    QLocalServer server_; // last: its sockets report their end to the members above
};

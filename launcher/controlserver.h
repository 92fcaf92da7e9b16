// ControlServer: the launcher's end of the control socket.
#pragma once

#include <QByteArray>
#include <QLocalServer>
#include <QObject>
#include <QString>

class QLocalSocket;

/// Serves one recorder. Main thread.
class ControlServer : public QObject {
    Q_OBJECT

public:
    explicit ControlServer(QObject* parent = nullptr);

    /// path: absolute; its directory is the caller's own. False: errorString() says why.
    bool listen(const QString& path);
    QString errorString() const { return server_.errorString(); }

    bool isConnected() const;
    /// One line with its line feed, or several. Dropped when no recorder is connected. May signal disconnected().
    void send(const QByteArray& lines);

    /// Takes in, and signals, what a recorder that has ended left behind in the socket.
    void readLastReplies();

Q_SIGNALS:
    void connected();
    void ready(); ///< the readiness byte; also when it came only at the stop
    void durationReceived(qint64 durationMs);
    void nonsenseReceived(const QByteArray& line); ///< neither of the two
    void disconnected();

private:
    void takeConnection();
    void readReplies();
    void handleLine(const QByteArray& line);

    QLocalSocket* recorder_ = nullptr; // child of server_; null before the connection and after its end
    QByteArray buffer_; // received and not yet complete; bounded
    QLocalServer server_; // last: its sockets report their end to the members above
};

// LatencySink: a sink that tells a latency, started from a test.
#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>

class PrivateAudioServer;

/// The server's default sink from the end of the constructor on, unless errorString() says why not. What is played to
/// it goes nowhere but to its monitor. One thread.
class LatencySink {
public:
    /// The server's environment has been applied to this process.
    LatencySink(PrivateAudioServer& server, int latencyMs, const QByteArray& name = "latency-sink");
    ~LatencySink();
    LatencySink(const LatencySink&) = delete;
    LatencySink& operator=(const LatencySink&) = delete;

    QString errorString() const { return error_; }

    /// True when it is on its way to the server.
    bool setLatency(int latencyMs);

private:
    bool waitForLine(const QByteArray& line);

    QProcess process_;
    QString error_;
};

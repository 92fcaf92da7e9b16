// RecorderSession: one run of a recorder with a launcher at the other end, for recorder-check.
#pragma once

#include "launcherserver.h"
#include "privatetempdir.h"
#include "recorderprocess.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QString>

#include <functional>
#include <memory>

struct RecorderSettings {
    QString binary;
    QString window; ///< decimal
    QByteArray display;
    QString audioSource;
};

/// One at a time: TMPDIR is the whole process's. Main thread.
class RecorderSession {
    PrivateTempDir directory_; // before the members that look at TMPDIR

public:
    RecorderCommand command; ///< what start() gives to the recorder; to be changed before
    RecorderProcess recorder;

    explicit RecorderSession(const RecorderSettings& settings, bool listens = true);

    bool start(const QStringList& arguments);
    bool start() { return start(command.arguments()); }
    /// The waits end early, in vain, when the recorder has ended.
    bool waitForConnection(int limitMs);
    bool waitForReceived(const std::function<bool(const QByteArray&)>& enough, int limitMs);
    /// Lets time pass; false when the recorder has ended meanwhile.
    bool staysFor(int durationMs);

    void send(const QByteArray& bytes) { server_->send(bytes); }
    void hangUp() { server_->disconnectClient(); }
    QByteArray received() const { return server_->received(); }
    qint64 sinceStartMs() const { return clock_.elapsed(); }

    /// The file that the log says to be closed; empty when there is none, or it is not there.
    QString finishedFile() const;
    QList<LogLine> log() const { return RecorderProcess::log(directory_.filePath(QStringLiteral("logs"))); }

private:
    std::unique_ptr<LauncherServer> server_; // null: nobody listens
    QElapsedTimer clock_;
};

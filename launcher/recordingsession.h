// RecordingSession: one recording from the start of the recorder's process to its end.
//
//   Starting --readiness--> Recording --interrupt, length--> Stopping --duration--> Leaving --process ends--> over
//      \-------------------interrupt, no image in time---------^
//
// The end of the recorder's process ends the session from every state.
#pragma once

#include "clickwatcher.h"
#include "controlserver.h"
#include "options.h"
#include "outcome.h"
#include "progress.h"
#include "recorderlog.h"

#include <QObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <memory>
#include <optional>

/// Main thread. Each recorder gets its own temporary directory, and with it its own control socket.
class RecordingSession : public QObject {
    Q_OBJECT

public:
    explicit RecordingSession(const Options& options, QObject* parent = nullptr);
    /// A recorder that is still running is killed.
    ~RecordingSession() override;

    /// Makes the directories, listens, starts the recorder. over() follows in any case, never before this returns.
    void start();

    /// Ends the recording in order.
    void interrupt();
    /// Kills the recorder.
    void kill();

    const Outcome& outcome() const { return outcome_; }

Q_SIGNALS:
    void over();

private:
    enum class State { Starting, Recording, Stopping, Leaving };

    QString prepareDirectories() const;
    QString listen();
    void startRecorder();
    void watchClicks();

    void onReady();
    void onDuration(qint64 durationMs);
    void onNonsense(const QByteArray& line);
    void onDisconnected();
    void onRecorderEnded();

    void scheduleClicks(qint64 readyAtMs);
    void report(const Click& click);
    void showProgress(qint64 readyAtMs);
    void requestStop();
    void leave();
    void onFinishTimeout();
    void endRecorder(const QString& whatItDoes);

    void fail(ExitCode code, const QString& error);
    void checkOutcome();
    QString endOfRecorder() const;

    const Options options_;
    State state_ = State::Starting;
    bool wasReady_ = false; // before the stop was requested
    bool gaveUpWaiting_ = false; // for the first image
    bool gaveUpOnDuration_ = false;
    bool terminated_ = false; // the recorder was sent SIGTERM
    bool killed_ = false;
    qsizetype clicksToReport_ = 0;
    QByteArray nonsense_; // the first reply that was none
    Outcome outcome_;

    Progress progress_;
    std::unique_ptr<QTemporaryDir> socketDirectory_; // removed after server and recorder have ended
    ControlServer server_;
    QProcess recorder_;
    std::optional<RecorderLog> log_; // from the start of the recorder on
    std::unique_ptr<ClickWatcher> clickWatcher_; // null when clicks are not watched
    QTimer progressTimer_;
    QTimer finishTimer_; // limits the wait for the effect of "stop", "exit" or SIGTERM
};

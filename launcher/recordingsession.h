// RecordingSession: one recording from the start of the recorder's process to its end.
//
//   Starting --readiness--> Recording --interrupt, length--> Stopping --duration--> Leaving --process ends--> over
//      |-------------------interrupt, no image in time---------^                       ^
//      \-------------------what the log says makes it impossible-----------------------/
//
// The end of the recorder's process ends the session from every state. Starting has the countdown before it.
#pragma once

#include "clickwatcher.h"
#include "controlserver.h"
#include "explanation.h"
#include "framecount.h"
#include "options.h"
#include "outcome.h"
#include "outputclaim.h"
#include "progress.h"
#include "recorderlog.h"
#include "runverdict.h"
#include "target.h"

#include <QElapsedTimer>
#include <QObject>
#include <QProcess>
#include <QSet>
#include <QTemporaryDir>
#include <QTimer>

#include <memory>
#include <optional>

/// Main thread. Each recorder gets its own temporary directory, and with it its own control socket.
class RecordingSession : public QObject {
    Q_OBJECT

public:
    RecordingSession(const Options& options, const Target& target, QObject* parent = nullptr);
    /// A recorder that is still running is killed.
    ~RecordingSession() override;

    /// Makes the directories, claims the file, counts down, listens, starts the recorder. over() follows in any
    /// case, never before this returns.
    void start();

    /// Ends the recording in order.
    void interrupt();
    /// Kills the recorder.
    void kill();

    const Outcome& outcome() const { return outcome_; }

Q_SIGNALS:
    void over();

private:
    enum class State { CountingDown, Starting, Recording, Stopping, Leaving };

    QString prepareFiles();
    QString listen();
    void countDown(int secondsLeft);
    void startRecording();
    void watchWindow();
    void limitStart();

    void onReady();
    void onDuration(qint64 durationMs);
    void onNonsense(const QByteArray& line);
    void onDisconnected();
    void onWindowClosed();
    void onRecorderEnded();

    void readLog();
    void takeIn(const Explanation& explanation);
    void warn(const QString& sentence);
    void scheduleClicks(qint64 readyAtMs);
    void report(const Click& click);
    void showProgress();
    void requestStop();
    void giveUp(const QString& reason);
    void leave();
    void onFinishTimeout();
    void endRecorder(const QString& whatItDoes);

    void fail(ExitCode code, const QString& error);
    void review();
    void dropLog();
    bool wantsAudio() const { return options_.audio.source != AudioWish::Source::Nothing; }

    const Options options_;
    const Target target_;
    State state_ = State::CountingDown;
    bool terminated_ = false; // the recorder was sent SIGTERM
    bool audioIsHarmed_ = false; // as the log says
    bool windowHasClosed_ = false; // while it recorded
    qsizetype clicksToReport_ = 0;
    qint64 reportedClicks_ = 0;
    FrameCount frameCount_;
    QSet<QString> toldSentences_; // of the log
    RunFacts facts_;
    Outcome outcome_;

    Progress progress_;
    OutputClaim claim_;
    std::unique_ptr<QTemporaryDir> socketDirectory_; // removed after server and recorder have ended
    ControlServer server_;
    QProcess recorder_;
    std::optional<RecorderLog> log_; // from the start of the recorder on
    std::unique_ptr<ClickWatcher> clickWatcher_; // null when neither clicks nor the closing matter
    QTimer logTimer_;
    QTimer progressTimer_;
    QElapsedTimer sinceReady_;
    QTimer finishTimer_; // limits the wait for the effect of "stop", "exit" or SIGTERM
};

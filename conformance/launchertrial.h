// LauncherTrial: the run of a launcher in one case, in a directory of its own.
#pragma once

#include "launchercase.h"
#include "launchernotes.h"

#include <QDateTime>
#include <QObject>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTimer>

/// Main thread. What the launcher has left behind ends with this object.
class LauncherTrial : public QObject {
    Q_OBJECT

public:
    /// directory: exists, empty, with a short path. fake: the program that plays the recorder.
    LauncherTrial(
        const LauncherCase& launcherCase, const QString& directory, const QString& fake, QObject* parent = nullptr);
    ~LauncherTrial() override;

    /// Runs the command, in which {recorder}, {output} and {logs} are replaced. over() follows, never before this
    /// returns.
    void start(QStringList command, int limitMs);

    const LauncherCase& launcherCase() const { return case_; }
    /// After over().
    LauncherNotes notes();

Q_SIGNALS:
    void over();

private:
    bool prepare();
    void onLauncherEnded();
    void waitForRecorder();
    void killWhenReady();

    const LauncherCase case_;
    const QString directory_;
    const QString fake_;
    QString error_; // why the launcher could not be started
    bool timedOut_ = false;
    bool recorderLeft_ = false; // it outlived the launcher
    QDateTime endedAt_; // the launcher
    int graceLeftMs_ = 0;
    QProcess launcher_;
    QTimer limit_;
};

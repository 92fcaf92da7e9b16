// The run of a launcher in one case.
#include "launchertrial.h"

#include <QDir>
#include <QFile>
#include <QProcessEnvironment>

#include <csignal>

namespace {

constexpr int pollMs = 20;
constexpr int recorderGraceMs = 3000; // for a recorder to end with its launcher

/// For a shell.
QString quoted(QString text)
{
    return QLatin1Char('\'') + text.replace(QLatin1Char('\''), QLatin1String("'\\''")) + QLatin1Char('\'');
}

}

LauncherTrial::LauncherTrial(
    const LauncherCase& launcherCase, const QString& directory, const QString& fake, QObject* parent)
    : QObject(parent), case_(launcherCase), directory_(directory), fake_(fake)
{
    connect(&launcher_, &QProcess::finished, this, &LauncherTrial::onLauncherEnded);
    connect(&launcher_, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error != QProcess::FailedToStart)
            return;
        error_ = launcher_.errorString();
        QMetaObject::invokeMethod(this, &LauncherTrial::over, Qt::QueuedConnection);
    });
    limit_.setSingleShot(true);
    connect(&limit_, &QTimer::timeout, this, [this] {
        timedOut_ = true;
        launcher_.kill();
    });
}

LauncherTrial::~LauncherTrial()
{
    launcher_.disconnect(this);
    if (launcher_.state() != QProcess::NotRunning) {
        launcher_.kill();
        launcher_.waitForFinished(-1);
    }
    const QString notes = directory_ + QLatin1String("/notes");
    if (isRecorderAlive(notes) && recorderPid(notes) > 0)
        ::kill(pid_t(recorderPid(notes)), SIGKILL);
}

/// A script stands for the recorder, so that nothing depends on the environment that the launcher hands on.
bool LauncherTrial::prepare()
{
    for (const char* name : {"notes", "logs", "tmp"}) {
        if (!QDir(directory_).mkdir(QLatin1String(name)))
            return false;
    }
    const QString clip = directory_ + QLatin1String("/notes/clip.mp4");
    if (!QFile::copy(QStringLiteral(":/clip.mp4"), clip))
        return false;
    QFile script(directory_ + QLatin1String("/orvantis-recorder"));
    const QString text
        = QStringLiteral("#!/bin/sh\nFAKE_RECORDER_MODE=%1 FAKE_RECORDER_NOTES=%2 FAKE_RECORDER_CHECKS=1 "
                         "FAKE_RECORDER_FILE=%3 exec %4 \"$@\"\n")
              .arg(QLatin1String(case_.mode), quoted(directory_ + QLatin1String("/notes")), quoted(clip),
                  quoted(fake_));
    return script.open(QIODevice::WriteOnly) && script.write(text.toUtf8()) == text.toUtf8().size()
        && script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

void LauncherTrial::start(QStringList command, int limitMs)
{
    if (!prepare()) {
        error_ = QStringLiteral("cannot write into %1").arg(directory_);
        QMetaObject::invokeMethod(this, &LauncherTrial::over, Qt::QueuedConnection);
        return;
    }
    command.replaceInStrings(QStringLiteral("{recorder}"), directory_ + QLatin1String("/orvantis-recorder"));
    command.replaceInStrings(QStringLiteral("{output}"), directory_ + QLatin1String("/recording.mp4"));
    command.replaceInStrings(QStringLiteral("{logs}"), directory_ + QLatin1String("/logs"));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("TMPDIR"), directory_ + QLatin1String("/tmp"));
    launcher_.setProcessEnvironment(environment);
    launcher_.setProcessChannelMode(QProcess::MergedChannels);
    launcher_.setStandardInputFile(QProcess::nullDevice());
    limit_.start(limitMs);
    if (case_.launcherIsKilled)
        killWhenReady();
    launcher_.start(command.takeFirst(), command);
}

void LauncherTrial::killWhenReady()
{
    LauncherNotes notes;
    readRecorderNotes(directory_ + QLatin1String("/notes"), notes);
    if (notes.first("ready"))
        launcher_.kill();
    else if (error_.isEmpty())
        QTimer::singleShot(pollMs, this, &LauncherTrial::killWhenReady);
}

void LauncherTrial::onLauncherEnded()
{
    limit_.stop();
    endedAt_ = QDateTime::currentDateTime();
    graceLeftMs_ = recorderGraceMs;
    waitForRecorder();
}

void LauncherTrial::waitForRecorder()
{
    recorderLeft_ = isRecorderAlive(directory_ + QLatin1String("/notes"));
    if (!recorderLeft_ || graceLeftMs_ <= 0) {
        Q_EMIT over();
        return;
    }
    graceLeftMs_ -= pollMs;
    QTimer::singleShot(pollMs, this, &LauncherTrial::waitForRecorder);
}

LauncherNotes LauncherTrial::notes()
{
    LauncherNotes notes;
    notes.error = error_;
    notes.timedOut = timedOut_;
    if (launcher_.exitStatus() == QProcess::NormalExit)
        notes.exitCode = launcher_.exitCode();
    notes.endedAtMs = endedAt_.toMSecsSinceEpoch();
    notes.printed = launcher_.readAllStandardOutput();
    notes.recorderLeft = recorderLeft_;
    notes.leftovers = QDir(directory_ + QLatin1String("/tmp"))
                          .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    readRecorderNotes(directory_ + QLatin1String("/notes"), notes);
    return notes;
}

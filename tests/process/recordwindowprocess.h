// RecordWindowProcess: record-window in a process, with the fake recorder, for its tests.
#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QList>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

/// One run of record-window in a directory of its own, which is its current and its temporary directory. One thread.
class RecordWindowProcess {
public:
    /// A line that the recorder got, and when it got it (wall clock, milliseconds).
    struct Line {
        qint64 atMs = 0;
        QByteArray text;
    };

    /// The fake records a clip with audio that lasts as long as it says, 1234 ms.
    explicit RecordWindowProcess(const char* fakeMode = "");
    ~RecordWindowProcess();
    RecordWindowProcess(const RecordWindowProcess&) = delete;
    RecordWindowProcess& operator=(const RecordWindowProcess&) = delete;

    void setEnvironment(const char* name, const QByteArray& value);
    void unsetEnvironment(const char* name);
    QProcess& process() { return process_; }

    /// Starts it with these arguments and --recorder with the fake.
    void start(const QStringList& arguments);
    /// Starts it with these arguments and nothing more.
    void startWithout(const QStringList& arguments);
    /// True when it has ended within a generous limit.
    bool waitForEnd();
    /// Both, and the exit code; -1 when it did not end or was ended by a signal.
    int run(const QStringList& arguments);

    /// What it has written up to now.
    QByteArray standardOutput();
    QByteArray standardError();

    void interrupt(int signalNumber) const;
    /// Waits for the recorder's readiness to have reached it.
    bool waitForRecording();

    QString path(const QString& name) const { return directory_.filePath(name); }
    QStringList leftFiles() const; ///< names of what lies in its directory, sorted; not what the tests put there
    QByteArray note(const char* name) const; ///< of the fake; empty when there is none
    QByteArrayList recorderArguments() const;
    QList<Line> lines() const;
    QByteArrayList clickLines() const;
    qint64 recorderPid() const { return note("process").split(' ').value(0).toLongLong(); }
    qint64 recorderGroup() const { return note("process").split(' ').value(1).toLongLong(); }

private:
    QTemporaryDir directory_;
    QProcessEnvironment environment_;
    QProcess process_;
    QByteArray output_;
    QByteArray error_;
};

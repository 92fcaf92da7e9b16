// RecorderProcess: the shipped binary as a child of the test, started and watched the way a launcher does it.
#pragma once

#include <QByteArray>
#include <QList>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

/// Bound of every wait for something that takes milliseconds to a few seconds. Its end is a hang.
inline constexpr int hangLimitMs = 60'000;

/// The ten positions of a recording's command line. Texts, because wrong ones are tested too.
struct RecorderCommand {
    QString logDirectory;
    QString captureCommand = QStringLiteral("qt-window-capture");
    QString output;
    QString window;
    QString originX = QStringLiteral("0");
    QString originY = QStringLiteral("0");
    QString canvasWidth = QStringLiteral("640");
    QString canvasHeight = QStringLiteral("360");
    QString scale = QStringLiteral("1");
    QString audioSource;

    QStringList arguments() const;
};

/// One line of the log in its parts. A line of another form has an empty level and the whole line as text.
struct LogLine {
    QByteArray level; ///< "Debug", "Warning", ...
    QString text;
    QByteArray place; ///< what the round brackets hold: file, line and function
};

/**
 * Its environment is this process's (so TMPDIR is the PrivateTempDir of the moment), without anything of Qt and
 * without a display unless one is given, so that the process has to choose its Qt platform itself. Ends with this
 * object, and with this process. One thread, which runs an event loop while it waits: that also keeps the pipes of
 * stderr empty.
 */
class RecorderProcess {
public:
    /// display as in DISPLAY; empty for none.
    explicit RecorderProcess(const QByteArray& display);
    ~RecorderProcess();
    RecorderProcess(const RecorderProcess&) = delete;
    RecorderProcess& operator=(const RecorderProcess&) = delete;

    // Before the start.
    void setVariable(const QString& name, const QString& value) { environment_.insert(name, value); }
    /// Starts another copy of the binary.
    void setBinary(const QString& path) { binary_ = path; }
    /// A command that replaces itself by the recorder, which is appended to its arguments ("nohup", "sh -c ...").
    void setWrapper(const QStringList& wrapper) { wrapper_ = wrapper; }
    /// Hands the recorder a descriptor (not owned) as its stderr; standardError() then stays empty.
    void setStandardError(int descriptor) { standardErrorDescriptor_ = descriptor; }

    bool start(const QStringList& arguments);
    bool isRunning() const { return process_.state() != QProcess::NotRunning; }
    qint64 pid() const { return process_.processId(); }
    void send(int signalNumber) const;

    /// True when the process has ended by itself or by a signal.
    bool waitForEnd(int limitMs = hangLimitMs);
    /// After the end: the exit code, or the negative number of the signal that killed it.
    int exitCode() const;
    QByteArray standardError();
    QByteArray standardOutput();

    /// The path of the one log file in a directory; empty when there is none, or more than one.
    static QString logFile(const QString& directory);
    /// The lines of that file up to now, whole lines only.
    static QList<LogLine> log(const QString& directory);
    static QList<LogLine> parsed(const QByteArray& lines);

    static QString defaultBinary();

private:
    void prepareChild();

    QProcess process_;
    QProcessEnvironment environment_;
    QString binary_ = defaultBinary();
    QStringList wrapper_;
    int standardErrorDescriptor_ = -1;
    QByteArray standardError_;
    QByteArray standardOutput_;
};

/// How many lines of the log start with a text.
int countLines(const QList<LogLine>& log, const QString& start);

/// The first line that starts with a text, without that start; a null string when there is none.
QString restOfLine(const QList<LogLine>& log, const QString& start);

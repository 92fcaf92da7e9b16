// RecorderProcess: the shipped binary as a child of the test.
#include "recorderprocess.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QtCore/qtestsupport_core.h>

#include <algorithm>
#include <csignal>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

QProcessEnvironment launcherEnvironment(const QByteArray& display)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    const QStringList names = environment.keys();
    for (const QString& name : names) {
        if (name.startsWith(QLatin1String("QT_")) || name.startsWith(QLatin1String("LC_")))
            environment.remove(name);
    }
    environment.insert(QStringLiteral("LANG"), QStringLiteral("C.UTF-8"));
    environment.remove(QStringLiteral("WAYLAND_DISPLAY"));
    environment.remove(QStringLiteral("DISPLAY"));
    if (!display.isEmpty())
        environment.insert(QStringLiteral("DISPLAY"), QString::fromLatin1(display));
    return environment;
}

}

QStringList RecorderCommand::arguments() const
{
    return {logDirectory, captureCommand, output, window, originX, originY, canvasWidth, canvasHeight, scale,
        audioSource};
}

RecorderProcess::RecorderProcess(const QByteArray& display) : environment_(launcherEnvironment(display)) { }

RecorderProcess::~RecorderProcess()
{
    process_.kill();
    process_.waitForFinished(hangLimitMs);
}

QString RecorderProcess::defaultBinary()
{
    return QStringLiteral(RECORDER_BINARY);
}

void RecorderProcess::prepareChild()
{
    process_.setChildProcessModifier([descriptor = standardErrorDescriptor_, parent = ::getpid()] {
        if (descriptor >= 0)
            ::dup2(descriptor, STDERR_FILENO);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(1); // the parent was gone before the line above
    });
}

bool RecorderProcess::start(const QStringList& arguments)
{
    prepareChild();
    QStringList whole = wrapper_ + QStringList(binary_) + arguments;
    const QString program = whole.takeFirst();
    process_.setProcessEnvironment(environment_);
    process_.start(program, whole);
    return process_.waitForStarted(hangLimitMs);
}

void RecorderProcess::send(int signalNumber) const
{
    if (pid() > 0)
        ::kill(pid_t(pid()), signalNumber);
}

bool RecorderProcess::waitForEnd(int limitMs)
{
    return QTest::qWaitFor([this] { return !isRunning(); }, limitMs);
}

int RecorderProcess::exitCode() const
{
    return process_.exitStatus() == QProcess::NormalExit ? process_.exitCode() : -process_.exitCode();
}

QByteArray RecorderProcess::standardError()
{
    standardError_ += process_.readAllStandardError();
    return standardError_;
}

QByteArray RecorderProcess::standardOutput()
{
    standardOutput_ += process_.readAllStandardOutput();
    return standardOutput_;
}

QString RecorderProcess::logFile(const QString& directory)
{
    const QDir logs(directory);
    const QStringList names = logs.entryList({QStringLiteral("*-orvantis-recorder-log.txt")}, QDir::Files);
    return names.size() == 1 ? logs.filePath(names.first()) : QString();
}

QList<LogLine> RecorderProcess::log(const QString& directory)
{
    const QString path = logFile(directory);
    QFile file(path);
    return !path.isEmpty() && file.open(QIODevice::ReadOnly) ? parsed(file.readAll()) : QList<LogLine>();
}

QList<LogLine> RecorderProcess::parsed(const QByteArray& lines)
{
    static const QRegularExpression form(
        QStringLiteral("^(Debug|Warning|Critical|Fatal|Info): (.*) \\((.*:\\d+, .*)\\)$"));
    QList<LogLine> result;
    qsizetype start = 0;
    for (qsizetype end = lines.indexOf('\n'); end >= 0; end = lines.indexOf('\n', start)) {
        const QString line = QString::fromUtf8(lines.mid(start, end - start));
        const QRegularExpressionMatch match = form.match(line);
        if (match.hasMatch())
            result.append({match.captured(1).toLatin1(), match.captured(2), match.captured(3).toUtf8()});
        else
            result.append({QByteArray(), line, QByteArray()});
        start = end + 1;
    }
    return result;
}

int countLines(const QList<LogLine>& log, const QString& start)
{
    return int(
        std::count_if(log.begin(), log.end(), [&](const LogLine& line) { return line.text.startsWith(start); }));
}

QString restOfLine(const QList<LogLine>& log, const QString& start)
{
    const auto found
        = std::find_if(log.begin(), log.end(), [&](const LogLine& line) { return line.text.startsWith(start); });
    return found != log.end() ? found->text.mid(start.size()) : QString();
}

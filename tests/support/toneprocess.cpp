// ToneProcess: a toneplayer, started from a test.
#include "toneprocess.h"

#include <QElapsedTimer>

#include <csignal>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

constexpr int startLimitMs = 30'000;
constexpr int endLimitMs = 10'000;

}

ToneProcess::ToneProcess(const QStringList& arguments, const QString& executable)
{
    process_.setChildProcessModifier([parent = ::getpid()] {
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent)
            ::_exit(1); // the parent was gone before the line above
    });
    process_.start(executable, arguments);
    QElapsedTimer waited;
    waited.start();
    bool lives = process_.waitForStarted(startLimitMs);
    while (lives && !plays_ && waited.elapsed() < startLimitMs) {
        lives = process_.waitForReadyRead(startLimitMs);
        readReports();
    }
    if (!plays_)
        error_ = QStringLiteral("toneplayer does not play: %1 %2")
                     .arg(process_.errorString(), QString::fromLocal8Bit(process_.readAllStandardError()).trimmed());
}

ToneProcess::~ToneProcess()
{
    stop();
}

QStringList ToneProcess::tone(const QString& name, double frequency, const QStringList& more)
{
    return QStringList{QStringLiteral("--name"), name, QStringLiteral("--frequency"), QString::number(frequency)}
    + more;
}

QString ToneProcess::program()
{
    return QStringLiteral(TONEPLAYER_BINARY);
}

void ToneProcess::readReports()
{
    while (process_.canReadLine()) {
        const QByteArray line = process_.readLine().trimmed();
        if (line.startsWith("quantum "))
            quantum_ = line.mid(8).toInt();
        if (line.startsWith("latency "))
            latencies_.push_back(line.mid(8).toInt());
        plays_ = plays_ || line == "playing";
        if (const auto gap = playergaps::parse(line))
            gaps_.push_back(*gap);
    }
}

const std::vector<playergaps::Gap>& ToneProcess::gaps()
{
    process_.waitForReadyRead(0); // fetches what no event loop has fetched yet
    readReports();
    return gaps_;
}

void ToneProcess::pause() const
{
    ::kill(pid_t(pid()), SIGUSR1);
}

void ToneProcess::resume() const
{
    ::kill(pid_t(pid()), SIGUSR2);
}

int ToneProcess::quantum()
{
    process_.waitForReadyRead(0); // fetches what no event loop has fetched yet
    readReports();
    return quantum_;
}

std::vector<int> ToneProcess::latencies()
{
    process_.waitForReadyRead(0);
    readReports();
    return latencies_;
}

bool ToneProcess::isPlaying()
{
    process_.waitForFinished(0); // notices an end that no event loop has reported yet
    return error_.isEmpty() && process_.state() == QProcess::Running;
}

bool ToneProcess::stop()
{
    process_.terminate();
    if (process_.waitForFinished(endLimitMs) || process_.state() == QProcess::NotRunning)
        return process_.exitStatus() == QProcess::NormalExit && process_.exitCode() == 0;
    process_.kill();
    process_.waitForFinished(endLimitMs);
    return false;
}

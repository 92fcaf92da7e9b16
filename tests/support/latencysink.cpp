// LatencySink: a sink that tells a latency, started from a test.
#include "latencysink.h"

#include "privateaudioserver.h"

#include <csignal>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

constexpr int limitMs = 30'000;

}

LatencySink::LatencySink(PrivateAudioServer& server, int latencyMs, const QByteArray& name)
{
    process_.setChildProcessModifier([parent = ::getpid()] {
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent)
            ::_exit(1); // the parent was gone before the line above
    });
    process_.start(QStringLiteral(LATENCYSINK_BINARY), {QString::fromLatin1(name), QString::number(latencyMs)});
    if (!waitForLine("ready"))
        error_ = QStringLiteral("latencysink: ") + process_.errorString()
            + QString::fromLocal8Bit(process_.readAllStandardError());
    else if (!server.setDefaultSink(name))
        error_ = QStringLiteral("the sink did not become the default");
}

LatencySink::~LatencySink()
{
    process_.terminate();
    if (!process_.waitForFinished(limitMs))
        process_.kill();
    process_.waitForFinished(limitMs);
}

bool LatencySink::setLatency(int latencyMs)
{
    process_.write(QByteArray::number(latencyMs) + '\n');
    return waitForLine("told");
}

bool LatencySink::waitForLine(const QByteArray& line)
{
    while (!process_.canReadLine()) {
        if (!process_.waitForReadyRead(limitMs))
            return false;
    }
    return process_.readLine().trimmed() == line;
}

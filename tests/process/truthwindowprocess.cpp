// TruthWindowProcess: starting the truth window and learning its id.
#include "truthwindowprocess.h"

#include "recorderprocess.h"

#include <QProcessEnvironment>

#include <csignal>
#include <sys/prctl.h>
#include <unistd.h>

TruthWindowProcess::TruthWindowProcess(
    const QByteArray& display, const QRect& geometry, int fps, const QStringList& more)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("DISPLAY"), QString::fromLatin1(display));
    process_.setProcessEnvironment(environment);
    process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process_.setChildProcessModifier([parent = ::getpid()] {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(1); // the parent was gone before the line above
    });
    const QString place = QStringLiteral("%1x%2+%3+%4")
                              .arg(geometry.width())
                              .arg(geometry.height())
                              .arg(geometry.x())
                              .arg(geometry.y());
    process_.start(QStringLiteral(TRUTHWINDOW_BINARY),
        QStringList{QStringLiteral("--geometry"), place, QStringLiteral("--fps"), QString::number(fps)} + more);

    QByteArray said;
    while (!said.endsWith("ready\n") && process_.waitForReadyRead(hangLimitMs))
        said += process_.readAllStandardOutput();
    const QByteArray idText = said.left(said.indexOf('\n'));
    id_ = said.endsWith("ready\n") ? idText.toUInt(nullptr, 0) : 0;
    if (id_ == 0)
        error_ = QStringLiteral("truthwindow: %1, it said: %2").arg(process_.errorString(), QString::fromUtf8(said));
}

TruthWindowProcess::~TruthWindowProcess()
{
    process_.terminate();
    if (!process_.waitForFinished(hangLimitMs)) {
        process_.kill();
        process_.waitForFinished(hangLimitMs);
    }
}

const std::vector<playergaps::Gap>& TruthWindowProcess::gaps()
{
    process_.waitForReadyRead(0); // fetches what no event loop has fetched yet
    while (process_.canReadLine()) {
        if (const auto gap = playergaps::parse(process_.readLine()))
            gaps_.push_back(*gap);
    }
    return gaps_;
}

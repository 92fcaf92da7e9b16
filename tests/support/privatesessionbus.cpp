// PrivateSessionBus: its configuration and its process.
#include "privatesessionbus.h"

#include "childprocess.h"

#include <QFile>

namespace {

constexpr const char* configuration
    = R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:dir=%DIRECTORY%</listen>
  <auth>EXTERNAL</auth>
  <policy context="default"><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/></policy>
</busconfig>
)";

}

PrivateSessionBus::PrivateSessionBus() : directory_(QStringLiteral("/tmp/ov-bus-XXXXXX"))
{
    QFile file(directory_.filePath(QStringLiteral("bus.conf")));
    const QByteArray text = QByteArray(configuration).replace("%DIRECTORY%", QFile::encodeName(directory_.path()));
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size()) {
        error_ = QStringLiteral("No file for the session bus: %1").arg(file.errorString());
        return;
    }
    file.close();
    childprocess::endWithParent(process_);
    process_.setStandardErrorFile(QProcess::nullDevice());
    process_.start(QStringLiteral("dbus-daemon"),
        {QStringLiteral("--nofork"), QStringLiteral("--print-address"),
            QStringLiteral("--config-file=") + file.fileName()});
    if (process_.waitForReadyRead(childprocess::startLimitMs))
        address_ = process_.readLine().trimmed();
    else
        error_ = QStringLiteral("dbus-daemon did not start: %1").arg(process_.errorString());
}

PrivateSessionBus::~PrivateSessionBus()
{
    childprocess::end(process_);
}

void PrivateSessionBus::kill()
{
    process_.kill();
    process_.waitForFinished(childprocess::endLimitMs);
}

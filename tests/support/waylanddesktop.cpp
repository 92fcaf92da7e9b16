// WaylandDesktop: how each compositor is started, and told to be ready.
#include "waylanddesktop.h"

#include "childprocess.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QThread>

#include <csignal>

namespace {

constexpr int pollMs = 5;
const auto socketName = QStringLiteral("wayland-test");

/// The display of an Xwayland that this process has started; empty when there is none. KWin tells it nobody else.
QString displayOfChild(qint64 parent)
{
    const QStringList processes = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString& process : processes) {
        const auto contents = [&](const char* name) {
            QFile file(QStringLiteral("/proc/%1/%2").arg(process, QLatin1String(name)));
            return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        };
        const QByteArrayList command = contents("cmdline").split('\0');
        const QByteArray status = contents("stat");
        const QByteArray itsParent = status.mid(status.lastIndexOf(')') + 2).split(' ').value(1);
        if (command.value(0).endsWith("Xwayland") && itsParent.toLongLong() == parent)
            return QString::fromLatin1(command.value(1));
    }
    return QString();
}

/// The display that Mutter and Weston name in their logs.
QString displayIn(const QByteArray& log)
{
    static const QRegularExpression form(
        QStringLiteral("(?:Using public X11 display|xserver listening on display) (:[0-9]+)"));
    return form.match(QString::fromLocal8Bit(log)).captured(1);
}

}

WaylandDesktop::WaylandDesktop(const Options& options) : options_(options), environment_(server_.environment())
{
    if (!server_.isRunning() || bus_.address().isEmpty()) {
        error_ = server_.errorString() + bus_.errorString();
        return;
    }
    for (const char* name : {"DISPLAY", "XAUTHORITY", "WAYLAND_DISPLAY", "XDG_CURRENT_DESKTOP"})
        environment_.remove(QString::fromLatin1(name));
    const std::pair<const char*, const char*> settings[]
        = {{"GSETTINGS_BACKEND", "memory"}, {"LIBGL_ALWAYS_SOFTWARE", "1"}, {"XDG_SESSION_TYPE", "wayland"},
            {"KWIN_COMPOSE", "O2"}, {"KWIN_WAYLAND_NO_PERMISSION_CHECKS", "1"}};
    for (const auto& [name, value] : settings)
        environment_.insert(QString::fromLatin1(name), QString::fromLatin1(value));
    environment_.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), QString::fromLatin1(bus_.address()));
    environment_.remove(QStringLiteral("QT_QPA_PLATFORM")); // of the tests
    childprocess::endWithParent(compositor_);
    compositor_.setProcessEnvironment(environment_);
    compositor_.setProcessChannelMode(QProcess::MergedChannels);
    compositor_.setStandardOutputFile(server_.path() + QStringLiteral("/compositor.log"));
    compositor_.start(program(), arguments());
    if (!compositor_.waitForStarted(childprocess::startLimitMs) || !waitForSocket()
        || (options_.xwayland && !waitForXwayland())) {
        error_ = QStringLiteral("%1 does not run: %2 %3")
                     .arg(compositor_.program(), compositor_.errorString(), QString::fromLocal8Bit(log()));
        childprocess::end(compositor_);
        return;
    }
    environment_.insert(QStringLiteral("WAYLAND_DISPLAY"), socketName);
    if (!xDisplay_.isEmpty())
        environment_.insert(QStringLiteral("DISPLAY"), QString::fromLatin1(xDisplay_));
}

WaylandDesktop::~WaylandDesktop()
{
    childprocess::end(compositor_);
}

/// KWin's file may carry a capability, which makes its start fail where the system withholds that. A copy has none.
QString WaylandDesktop::program()
{
    if (options_.kind == Kind::Mutter)
        return QStringLiteral("mutter");
    if (options_.kind == Kind::Weston)
        return QStringLiteral("weston");
    const QString copy = server_.path() + QStringLiteral("/kwin_wayland");
    QFile::copy(QStringLiteral("/usr/bin/kwin_wayland"), copy);
    return copy;
}

QStringList WaylandDesktop::arguments() const
{
    const QString width = QString::number(options_.screen.width());
    const QString height = QString::number(options_.screen.height());
    const QString scale = QString::number(options_.scale);
    QStringList list;
    switch (options_.kind) {
    case Kind::Mutter:
        list << QStringLiteral("--headless") << QStringLiteral("--wayland")
             << QStringLiteral("--wayland-display=") + socketName << QStringLiteral("--virtual-monitor")
             << width + QLatin1Char('x') + height;
        if (!options_.xwayland)
            list << QStringLiteral("--no-x11");
        break;
    case Kind::KWin:
        list << QStringLiteral("--virtual") << QStringLiteral("--width") << width << QStringLiteral("--height")
             << height << QStringLiteral("--scale") << scale << QStringLiteral("--socket") << socketName
             << QStringLiteral("--no-lockscreen") << QStringLiteral("--no-global-shortcuts");
        if (options_.xwayland)
            list << QStringLiteral("--xwayland");
        break;
    case Kind::Weston:
        list << QStringLiteral("--backend=headless-backend.so") << QStringLiteral("--use-pixman")
             << QStringLiteral("--width=") + width << QStringLiteral("--height=") + height
             << QStringLiteral("--scale=") + scale << QStringLiteral("--socket=") + socketName
             << QStringLiteral("--idle-time=0") << QStringLiteral("--no-config");
        if (options_.xwayland)
            list << QStringLiteral("--xwayland");
        break;
    }
    return list;
}

bool WaylandDesktop::waitForSocket()
{
    const QString path = environment_.value(QStringLiteral("XDG_RUNTIME_DIR")) + QLatin1Char('/') + socketName;
    QElapsedTimer waited;
    waited.start();
    while (!QFileInfo::exists(path)) {
        if (!childprocess::isAlive(compositor_) || waited.elapsed() > childprocess::startLimitMs)
            return false;
        QThread::msleep(pollMs);
    }
    return true;
}

bool WaylandDesktop::waitForXwayland()
{
    QElapsedTimer waited;
    waited.start();
    while (waited.elapsed() < childprocess::startLimitMs && childprocess::isAlive(compositor_)) {
        const QString display
            = options_.kind == Kind::KWin ? displayOfChild(compositor_.processId()) : displayIn(log());
        if (!display.isEmpty()) {
            xDisplay_ = display.toLatin1();
            const QDir runtime(environment_.value(QStringLiteral("XDG_RUNTIME_DIR")));
            const QStringList cookies // of Mutter
                = runtime.entryList({QStringLiteral(".mutter-Xwaylandauth.*")}, QDir::Files | QDir::Hidden);
            if (!cookies.isEmpty())
                environment_.insert(QStringLiteral("XAUTHORITY"), runtime.filePath(cookies.first()));
            return true;
        }
        QThread::msleep(pollMs);
    }
    return false;
}

bool WaylandDesktop::isRunning()
{
    return error_.isEmpty() && childprocess::isAlive(compositor_);
}

QByteArray WaylandDesktop::log() const
{
    QFile file(server_.path() + QStringLiteral("/compositor.log"));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void WaylandDesktop::apply() const
{
    server_.apply();
    for (const char* name : {"DISPLAY", "XAUTHORITY", "WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS",
             "LIBGL_ALWAYS_SOFTWARE", "GSETTINGS_BACKEND"}) {
        const QString value = environment_.value(QString::fromLatin1(name));
        if (value.isEmpty())
            qunsetenv(name);
        else
            qputenv(name, QFile::encodeName(value));
    }
}

void WaylandDesktop::kill()
{
    compositor_.kill();
    compositor_.waitForFinished(childprocess::endLimitMs);
}

void WaylandDesktop::stop()
{
    ::kill(pid_t(compositor_.processId()), SIGSTOP);
}

void WaylandDesktop::resume()
{
    ::kill(pid_t(compositor_.processId()), SIGCONT);
}

// DesktopPortal: the backend's side of the portal (org.freedesktop.impl.portal), and its processes.
#include "desktopportal.h"

#include "childprocess.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>

#include <csignal>

namespace {

constexpr int pollMs = 5;
const auto backendName = QStringLiteral("org.freedesktop.impl.portal.desktop.orvantis");
const auto desktopPath = QStringLiteral("/org/freedesktop/portal/desktop");
const auto sessionInterface = QStringLiteral("org.freedesktop.impl.portal.Session");

/// What is remembered of a choice.
struct RestoreData {
    QString vendor;
    uint version = 1;
    QDBusVariant content;
};

struct Stream {
    uint node = 0;
    QVariantMap properties;
};

QDBusArgument& operator<<(QDBusArgument& to, const RestoreData& data)
{
    to.beginStructure();
    to << data.vendor << data.version << data.content;
    to.endStructure();
    return to;
}

const QDBusArgument& operator>>(const QDBusArgument& from, RestoreData& data)
{
    from.beginStructure();
    from >> data.vendor >> data.version >> data.content;
    from.endStructure();
    return from;
}

QDBusArgument& operator<<(QDBusArgument& to, const Stream& stream)
{
    to.beginStructure();
    to << stream.node << stream.properties;
    to.endStructure();
    return to;
}

const QDBusArgument& operator>>(const QDBusArgument& from, Stream& stream)
{
    from.beginStructure();
    from >> stream.node >> stream.properties;
    from.endStructure();
    return from;
}

bool write(const QString& path, const QByteArray& text)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
}

}

Q_DECLARE_METATYPE(RestoreData)
Q_DECLARE_METATYPE(Stream)

/// Everything below the desktop's path.
class DesktopPortal::Backend : public QDBusVirtualObject {
public:
    explicit Backend(DesktopPortal& portal) : portal_(portal) { }

    QString introspect(const QString& /*path*/) const override { return QString(); }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& /*connection*/) override
    {
        return portal_.answer(message);
    }

private:
    DesktopPortal& portal_;
};

DesktopPortal::DesktopPortal(
    const QByteArray& busAddress, const QProcessEnvironment& environment, const Desktop& desktop)
    : desktop_(desktop), bus_(QDBusConnection::connectToBus(
                             QString::fromLatin1(busAddress), QStringLiteral("desktop-%1").arg(quintptr(this)))),
      backend_(std::make_unique<Backend>(*this))
{
    qDBusRegisterMetaType<RestoreData>();
    qDBusRegisterMetaType<Stream>();
    qDBusRegisterMetaType<QList<Stream>>();
    const bool isThere = bus_.registerVirtualObject(desktopPath, backend_.get(), QDBusConnection::SubPath)
        && bus_.registerService(backendName)
        && write(directory_.filePath(QStringLiteral("orvantis.portal")),
            "[portal]\nDBusName=" + backendName.toLatin1()
                + "\nInterfaces=org.freedesktop.impl.portal.ScreenCast;\nUseIn=orvantis\n");
    if (!isThere) {
        error_ = QStringLiteral("No backend of the portal: %1").arg(bus_.lastError().message());
        return;
    }
    QProcessEnvironment variables = environment;
    variables.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), QString::fromLatin1(busAddress));
    variables.insert(QStringLiteral("XDG_DESKTOP_PORTAL_DIR"), directory_.path());
    variables.insert(QStringLiteral("XDG_CURRENT_DESKTOP"), QStringLiteral("orvantis"));
    variables.insert(QStringLiteral("GSETTINGS_BACKEND"), QStringLiteral("memory"));
    // The portal wants the store, and asks the backend what it has before it takes its name.
    const bool isReady = start(store_, "/usr/libexec/xdg-permission-store", variables,
                             QStringLiteral("org.freedesktop.impl.portal.PermissionStore"))
        && start(
            portal_, "/usr/libexec/xdg-desktop-portal", variables, QStringLiteral("org.freedesktop.portal.Desktop"));
    if (!isReady)
        error_ = QStringLiteral("The portal does not run: %1").arg(portal_.errorString());
}

/// Waits until it has its name on the bus.
bool DesktopPortal::start(
    QProcess& process, const char* program, const QProcessEnvironment& environment, const QString& name)
{
    childprocess::endWithParent(process);
    process.setProcessEnvironment(environment);
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start(QString::fromLatin1(program), QStringList());
    if (!process.waitForStarted(childprocess::startLimitMs))
        return false;
    QElapsedTimer waited;
    waited.start();
    while (!bus_.interface()->isServiceRegistered(name)) {
        if (!childprocess::isAlive(process) || waited.elapsed() > childprocess::startLimitMs)
            return false;
        QCoreApplication::processEvents();
        QThread::msleep(pollMs);
    }
    return true;
}

DesktopPortal::~DesktopPortal()
{
    childprocess::end(portal_);
    childprocess::end(store_);
    QDBusConnection::disconnectFromBus(bus_.name());
}

bool DesktopPortal::isRunning()
{
    return error_.isEmpty() && childprocess::isAlive(store_) && childprocess::isAlive(portal_);
}

QVariantMap DesktopPortal::properties() const
{
    return {{QStringLiteral("AvailableSourceTypes"), desktop_.sourceTypes},
        {QStringLiteral("AvailableCursorModes"), desktop_.pointerModes}, {QStringLiteral("version"), 4U}};
}

bool DesktopPortal::answer(const QDBusMessage& message)
{
    const QString method = message.member();
    const QVariantList arguments = message.arguments();
    const auto done = [&](const QVariantList& results) { return bus_.send(message.createReply(results)); };
    if (method == QLatin1String("GetAll"))
        return done({properties()});
    if (method == QLatin1String("Get"))
        return done({QVariant::fromValue(QDBusVariant(properties().value(arguments.value(1).toString())))});
    if (method == QLatin1String("Close")) { // a session, or a request of one who has gone
        sessions_.removeAll(message.path());
        requests_.removeAll(message.path());
        return done({});
    }
    if (method == QLatin1String("CreateSession")) {
        sessions_.append(arguments.value(1).value<QDBusObjectPath>().path());
        return done({0U, QVariantMap()});
    }
    if (method == QLatin1String("SelectSources")) {
        wishes_ = qdbus_cast<QVariantMap>(arguments.value(3));
        return done({0U, QVariantMap()});
    }
    if (method != QLatin1String("Start"))
        return false;
    answerStart(message);
    return true;
}

void DesktopPortal::answerStart(const QDBusMessage& message)
{
    constexpr uint cancelled = 1;
    ++questions_;
    if (desktop_.user == User::Hesitates) {
        requests_.append(message.arguments().value(0).value<QDBusObjectPath>().path());
        return;
    }
    if (desktop_.user == User::Cancels) {
        bus_.send(message.createReply({cancelled, QVariantMap()}));
        return;
    }
    if (wishes_.contains(QStringLiteral("restore_data")))
        ++restored_;
    Stream stream;
    stream.node = desktop_.node;
    stream.properties = {{QStringLiteral("source_type"), 2U}, {QStringLiteral("size"), desktop_.told}};
    QVariantMap results{{QStringLiteral("streams"), QVariant::fromValue(QList<Stream>{stream})}};
    if (desktop_.remembers) {
        const RestoreData data{QStringLiteral("orvantis"), 1, QDBusVariant(QStringLiteral("the window"))};
        results.insert(QStringLiteral("restore_data"), QVariant::fromValue(data));
        results.insert(QStringLiteral("persist_mode"), wishes_.value(QStringLiteral("persist_mode")));
    }
    bus_.send(message.createReply({0U, results}));
}

void DesktopPortal::endSharing()
{
    for (const QString& session : sessions_)
        bus_.send(QDBusMessage::createSignal(session, sessionInterface, QStringLiteral("Closed")));
    sessions_.clear();
}

void DesktopPortal::kill()
{
    portal_.kill();
    portal_.waitForFinished(childprocess::endLimitMs);
}

void DesktopPortal::stop()
{
    ::kill(pid_t(portal_.processId()), SIGSTOP);
}

void DesktopPortal::resume()
{
    ::kill(pid_t(portal_.processId()), SIGCONT);
}

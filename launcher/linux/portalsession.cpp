// The portal's ways: a call gives the path of a request at once, and the request answers by a signal, after the user
// has decided where there is something to decide.
#include "portalsession.h"

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusUnixFileDescriptor>
#include <QDBusVariant>
#include <QEventLoop>
#include <QRandomGenerator>
#include <QTimer>

#include <fcntl.h>

namespace {

constexpr int answerLimitMs = 10'000; // the bus may have to start the portal
constexpr uint windows = 2; // of the types of sources
constexpr uint untilRevoked = 2; // of the modes of persistence

const auto service = QStringLiteral("org.freedesktop.portal.Desktop");
const auto desktopPath = QStringLiteral("/org/freedesktop/portal/desktop");
const auto screenCast = QStringLiteral("org.freedesktop.portal.ScreenCast");
const auto requestInterface = QStringLiteral("org.freedesktop.portal.Request");
const auto sessionInterface = QStringLiteral("org.freedesktop.portal.Session");

/// Of a path that another program cannot know before.
QString newToken()
{
    return QStringLiteral("orvantis%1").arg(QRandomGenerator::system()->generate64());
}

QString describe(const QDBusMessage& failure)
{
    const QString name = failure.errorName();
    const auto is
        = [&](const char* one) { return name == QLatin1String("org.freedesktop.DBus.Error.") + QLatin1String(one); };
    if (is("NoReply") || is("Timeout") || is("TimedOut"))
        return QStringLiteral("the desktop portal does not answer");
    if (is("ServiceUnknown") || is("NameHasNoOwner") || name.contains(QLatin1String(".Spawn.")))
        return QStringLiteral("there is no desktop portal (org.freedesktop.portal.Desktop) on the session bus");
    if (is("UnknownInterface") || is("UnknownMethod") || is("UnknownProperty") || is("InvalidArgs"))
        return QStringLiteral("the desktop portal hands out nothing to record; a backend of this desktop for "
                              "ScreenCast is missing");
    return QStringLiteral("the desktop portal refused: %1").arg(failure.errorMessage());
}

/// a(ua{sv}): nodes and what is known of them. The first one is the window.
std::optional<PortalSession::Stream> firstStream(const QVariant& value)
{
    if (!value.canConvert<QDBusArgument>())
        return std::nullopt;
    const auto argument = value.value<QDBusArgument>();
    if (argument.currentSignature() != QLatin1String("a(ua{sv})"))
        return std::nullopt;
    std::optional<PortalSession::Stream> first;
    QVariantMap properties;
    argument.beginArray(); // an array that is not read to its end leaks
    while (!argument.atEnd()) {
        uint node = 0;
        QVariantMap ofNode;
        argument.beginStructure();
        argument >> node >> ofNode;
        argument.endStructure();
        if (first)
            continue;
        first.emplace().node = node;
        properties = ofNode;
    }
    argument.endArray();
    const QVariant size = properties.value(QStringLiteral("size"));
    if (first && size.canConvert<QDBusArgument>())
        size.value<QDBusArgument>() >> first->size;
    return first;
}

}

PortalSession::PortalSession(QObject* parent)
    : QObject(parent), bus_(QDBusConnection::sessionBus()),
      watcher_(service, bus_, QDBusServiceWatcher::WatchForUnregistration)
{
    connect(&watcher_, &QDBusServiceWatcher::serviceUnregistered, this, &PortalSession::onLost);
    bus_.connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"),
        QStringLiteral("org.freedesktop.DBus.Local"), QStringLiteral("Disconnected"), this, SLOT(onLost()));
}

PortalSession::~PortalSession()
{
    close();
}

std::optional<PortalSession::Stream> PortalSession::open(const QString& token)
{
    if (!bus_.isConnected()) {
        fail(QStringLiteral("there is no session bus, over which the desktop is asked for a window"));
        return std::nullopt;
    }
    if (!handsOutWindows())
        return std::nullopt;
    const QString created = request(QStringLiteral("CreateSession"), {},
        {{QStringLiteral("session_handle_token"), newToken()}}, Patience::Answer);
    if (!created.isEmpty())
        return std::nullopt;
    handle_ = response_->results.value(QStringLiteral("session_handle")).toString();
    bus_.connect(service, handle_, sessionInterface, QStringLiteral("Closed"), this, SLOT(onClosed()));
    const QVariant session = QVariant::fromValue(QDBusObjectPath(handle_));
    QVariantMap wishes{{QStringLiteral("types"), windows}, {QStringLiteral("multiple"), false},
        {QStringLiteral("cursor_mode"), uint(pointer_)}, {QStringLiteral("persist_mode"), untilRevoked}};
    if (!token.isEmpty())
        wishes.insert(QStringLiteral("restore_token"), token);
    if (!request(QStringLiteral("SelectSources"), {session}, wishes, Patience::Answer).isEmpty()
        || !request(QStringLiteral("Start"), {session, QString()}, {}, Patience::Person).isEmpty())
        return std::nullopt;
    std::optional<Stream> stream = firstStream(response_->results.value(QStringLiteral("streams")));
    if (!stream)
        fail(QStringLiteral("the desktop portal named no window"));
    else
        stream->token = response_->results.value(QStringLiteral("restore_token")).toString();
    return stream;
}

/// Where the pointer is not told apart from the pixels it would stand still over a still window.
bool PortalSession::handsOutWindows()
{
    const std::optional<uint> types = property(QStringLiteral("AvailableSourceTypes"));
    if (!types)
        return false;
    if (!(*types & windows)) {
        fail(QStringLiteral("this desktop's portal hands out monitors only, and no windows"));
        return false;
    }
    const std::optional<uint> pointers = property(QStringLiteral("AvailableCursorModes"));
    if (!pointers)
        return false;
    if (!(*pointers & uint(Pointer::Metadata)))
        pointer_ = Pointer::Hidden;
    return true;
}

std::optional<uint> PortalSession::property(const QString& name)
{
    const QDBusMessage reply = call(
        desktopPath, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"), {screenCast, name});
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return std::nullopt;
    return reply.arguments().constFirst().value<QDBusVariant>().variant().toUInt();
}

/// Empty when response_ has what was asked for; else the error.
QString PortalSession::request(const QString& method, QVariantList arguments, QVariantMap options, Patience patience)
{
    // The signal may come before the reply of the call.
    const QString token = newToken();
    QString sender = bus_.baseService().mid(1);
    sender.replace(QLatin1Char('.'), QLatin1Char('_'));
    const QString path = desktopPath + QLatin1String("/request/") + sender + QLatin1Char('/') + token;
    const auto response = QStringLiteral("Response");
    bus_.connect(service, path, requestInterface, response, this, SLOT(onResponse(uint, QVariantMap)));
    options.insert(QStringLiteral("handle_token"), token);
    arguments.append(options);
    response_.reset();
    error_.clear();
    if (call(desktopPath, screenCast, method, arguments).type() == QDBusMessage::ReplyMessage)
        await(patience);
    bus_.disconnect(service, path, requestInterface, response, this, SLOT(onResponse(uint, QVariantMap)));
    constexpr uint cancelled = 1;
    if (!response_)
        fail(QStringLiteral("the desktop portal does not answer")); // unless it is known better
    else if (response_->code == cancelled)
        fail(QStringLiteral("no window was chosen"));
    else if (response_->code != 0)
        fail(QStringLiteral("the desktop portal ended the question for a window"));
    return error_;
}

void PortalSession::await(Patience patience)
{
    if (response_ || !error_.isEmpty())
        return;
    QEventLoop loop;
    QTimer limit;
    limit.setSingleShot(true);
    connect(this, &PortalSession::answered, &loop, &QEventLoop::quit);
    connect(&limit, &QTimer::timeout, &loop, &QEventLoop::quit);
    if (patience == Patience::Answer)
        limit.start(answerLimitMs);
    loop.exec();
}

void PortalSession::onResponse(uint code, const QVariantMap& results)
{
    response_ = Response{code, results};
    Q_EMIT answered();
}

void PortalSession::onClosed()
{
    if (handle_.isEmpty())
        return;
    handle_.clear();
    if (!response_) // a refusal closes the session, too
        fail(QStringLiteral("the desktop portal ended the question for a window"));
    Q_EMIT answered();
    Q_EMIT closed();
}

/// A stream that was given lives as long as the compositor wants.
void PortalSession::onLost()
{
    fail(QStringLiteral("the desktop portal ended before it answered"));
    Q_EMIT answered();
}

QDBusMessage PortalSession::call(
    const QString& path, const QString& interface, const QString& method, const QVariantList& arguments)
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, interface, method);
    message.setArguments(arguments);
    const QDBusMessage reply = bus_.call(message, QDBus::Block, answerLimitMs);
    if (reply.type() != QDBusMessage::ReplyMessage)
        fail(describe(reply));
    return reply;
}

Descriptor PortalSession::openRemote()
{
    const QDBusMessage reply = call(desktopPath, screenCast, QStringLiteral("OpenPipeWireRemote"),
        {QVariant::fromValue(QDBusObjectPath(handle_)), QVariantMap()});
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return Descriptor();
    const auto remote = reply.arguments().constFirst().value<QDBusUnixFileDescriptor>();
    return Descriptor(::fcntl(remote.fileDescriptor(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

/// The desktop shows that something is shared until then.
void PortalSession::close()
{
    if (handle_.isEmpty())
        return;
    bus_.send(QDBusMessage::createMethodCall(
        service, std::exchange(handle_, QString()), sessionInterface, QStringLiteral("Close")));
}

/// The first reason is the one that counts.
void PortalSession::fail(const QString& error)
{
    if (error_.isEmpty())
        error_ = error;
}

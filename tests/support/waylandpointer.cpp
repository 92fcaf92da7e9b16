// Mutter has an interface for remote desktops, KWin a protocol for test tools.
#include "waylandpointer.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>

namespace {

const auto service = QStringLiteral("org.gnome.Mutter.RemoteDesktop");

}

struct WaylandPointer::Impl {
    Impl(const WaylandDesktop& desktop, WaylandWindow& windowOfKWin)
        : window(windowOfKWin), name(QStringLiteral("pointer-%1").arg(quintptr(this))),
          bus(QDBusConnection::connectToBus(QString::fromLatin1(desktop.busAddress()), name)),
          isMutter(desktop.kind() == WaylandDesktop::Kind::Mutter)
    {
    }
    ~Impl() { QDBusConnection::disconnectFromBus(name); }

    QVariantList call(
        const QString& path, const QString& interface, const QString& method, const QVariantList& arguments)
    {
        QDBusMessage message = QDBusMessage::createMethodCall(service, path, interface, method);
        message.setArguments(arguments);
        const QDBusMessage reply = bus.call(message);
        if (reply.type() != QDBusMessage::ReplyMessage)
            error = reply.errorMessage();
        return reply.arguments();
    }
    QVariantList ask(const char* method, const QVariantList& arguments = {})
    {
        return call(session, service + QStringLiteral(".Session"), QLatin1String(method), arguments);
    }

    WaylandWindow& window;
    const QString name;
    QDBusConnection bus;
    const bool isMutter;
    QString session;
    QString error;
};

WaylandPointer::WaylandPointer(const WaylandDesktop& desktop, WaylandWindow& window)
    : impl_(std::make_unique<Impl>(desktop, window))
{
    if (!impl_->isMutter)
        return;
    const QVariantList reply = impl_->call(
        QStringLiteral("/org/gnome/Mutter/RemoteDesktop"), service, QStringLiteral("CreateSession"), {});
    impl_->session = reply.value(0).value<QDBusObjectPath>().path();
    if (impl_->error.isEmpty())
        impl_->ask("Start");
}

WaylandPointer::~WaylandPointer() = default;

QString WaylandPointer::errorString() const
{
    return impl_->error;
}

void WaylandPointer::move(QPoint onScreen)
{
    if (!impl_->isMutter) {
        impl_->window.send("pointer " + QByteArray::number(onScreen.x()) + ' ' + QByteArray::number(onScreen.y()));
        return;
    }
    constexpr double toTheCorner = -10000.0;
    impl_->ask("NotifyPointerMotionRelative", {toTheCorner, toTheCorner});
    impl_->ask("NotifyPointerMotionRelative", {double(onScreen.x()), double(onScreen.y())});
}

// The process of a WaylandWindow, and what each compositor is asked for its stream.
#include "waylandwindow.h"

#include "childprocess.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QThread>
#include <QTimer>

#include <functional>

namespace {

const auto mutterService = QStringLiteral("org.gnome.Mutter.ScreenCast");

/// Empty when it does not come.
QByteArray nextLine(QProcess& process)
{
    QElapsedTimer waited;
    waited.start();
    while (!process.canReadLine()) {
        if (waited.elapsed() > childprocess::startLimitMs || process.state() == QProcess::NotRunning)
            return QByteArray();
        process.waitForReadyRead(100);
    }
    return process.readLine().trimmed();
}

void start(QProcess& process, const WaylandDesktop& desktop, const QStringList& arguments)
{
    childprocess::endWithParent(process);
    process.setProcessEnvironment(desktop.environment());
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(QStringLiteral(WAYLANDWINDOW_BINARY), arguments);
}

}

WaylandWindow::WaylandWindow(
    const WaylandDesktop& desktop, const QString& title, const QSize& size, const QStringList& more)
    : title_(title)
{
    start(
        process_, desktop, QStringList{title, QString::number(size.width()), QString::number(size.height())} + more);
    isShown_ = nextLine(process_) == "ready";
}

WaylandWindow::~WaylandWindow()
{
    childprocess::end(process_);
}

void WaylandWindow::send(const QByteArray& command)
{
    process_.write(command + '\n');
    process_.waitForBytesWritten(childprocess::startLimitMs);
}

/// Mutter announces the node by a signal.
struct WindowCast::Impl : QObject {
    Q_OBJECT

public:
    explicit Impl(const QByteArray& address)
        : name(QStringLiteral("cast-%1").arg(quintptr(this))),
          bus(QDBusConnection::connectToBus(QString::fromLatin1(address), name))
    {
    }
    ~Impl() override
    {
        QDBusConnection::disconnectFromBus(name);
        childprocess::end(caster);
    }

    QDBusMessage call(
        const QString& path, const QString& interface, const QString& method, const QVariantList& arguments)
    {
        QDBusMessage message = QDBusMessage::createMethodCall(mutterService, path, interface, method);
        message.setArguments(arguments);
        const QDBusMessage reply = bus.call(message);
        if (reply.type() != QDBusMessage::ReplyMessage)
            error = reply.errorMessage();
        return reply;
    }
    /// Until it succeeds, or the time is over; then error has the last reason.
    bool tried(const std::function<bool()>& step)
    {
        QElapsedTimer waited;
        waited.start();
        do {
            error.clear();
            if (step())
                return true;
            QThread::msleep(10);
        } while (waited.elapsed() < childprocess::startLimitMs);
        return false;
    }
    void askMutter();
    void askKWin(const WaylandDesktop& desktop, const QString& title);

    const QString name;
    QDBusConnection bus;
    QProcess caster;
    quint32 node = 0;
    QString error;

Q_SIGNALS:
    void added();

public Q_SLOTS:
    void onAdded(uint number)
    {
        node = number;
        Q_EMIT added();
    }
};

void WindowCast::Impl::askMutter()
{
    const QString sessionInterface = mutterService + QStringLiteral(".Session");
    QString session;
    const auto made = [&] { // Mutter is there before its service is
        const QVariantList reply = call(QStringLiteral("/org/gnome/Mutter/ScreenCast"), mutterService,
            QStringLiteral("CreateSession"), {QVariantMap()})
                                       .arguments();
        session = reply.value(0).value<QDBusObjectPath>().path();
        return error.isEmpty();
    };
    QString stream;
    const auto recorded = [&] { // until a window has the keyboard
        const QVariantList reply = call(session, sessionInterface, QStringLiteral("RecordWindow"),
            {QVariantMap{{QStringLiteral("cursor-mode"),
                2U}}}).arguments();
        stream = reply.value(0).value<QDBusObjectPath>().path();
        return error.isEmpty();
    };
    if (!tried(made) || !tried(recorded))
        return;
    bus.connect(mutterService, stream, mutterService + QStringLiteral(".Stream"),
        QStringLiteral("PipeWireStreamAdded"), this, SLOT(onAdded(uint)));
    QEventLoop loop;
    connect(this, &Impl::added, &loop, &QEventLoop::quit);
    QTimer::singleShot(childprocess::startLimitMs, &loop, &QEventLoop::quit);
    call(session, sessionInterface, QStringLiteral("Start"), {});
    if (node == 0)
        loop.exec();
}

void WindowCast::Impl::askKWin(const WaylandDesktop& desktop, const QString& title)
{
    start(caster, desktop, {QStringLiteral("cast"), title});
    const QByteArray line = nextLine(caster);
    node = line.startsWith("node ") ? line.mid(5).toUInt() : 0;
    if (node == 0)
        error = QString::fromUtf8(line);
}

WindowCast::WindowCast(const WaylandDesktop& desktop, const QString& title)
    : impl_(std::make_unique<Impl>(desktop.busAddress()))
{
    if (desktop.kind() == WaylandDesktop::Kind::Mutter)
        impl_->askMutter();
    else
        impl_->askKWin(desktop, title);
}

WindowCast::~WindowCast() = default;

quint32 WindowCast::node() const
{
    return impl_->node;
}

QString WindowCast::errorString() const
{
    return impl_->error;
}

#include "waylandwindow.moc"

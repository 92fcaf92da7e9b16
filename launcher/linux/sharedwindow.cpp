// Windows of Wayland, from the desktop portal.
#include "sharedwindow.h"

#include "platform/screen.h"
#include "portalsession.h"
#include "rememberedchoice.h"

#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QThread>

#include <optional>

namespace {

constexpr qint64 measureLimitMs = 2000; // the first sample takes up to another second
constexpr ulong askAgainMs = 20;

}

struct SharedWindow::Impl {
    PortalSession session;
    PortalSession::Stream stream;
    std::optional<Descriptor> connection;
    QString remark;
};

SharedWindow::SharedWindow(QObject* parent) : QObject(parent), impl_(std::make_unique<Impl>())
{
    connect(&impl_->session, &PortalSession::closed, this, &SharedWindow::ended);
}

SharedWindow::~SharedWindow() = default;

bool SharedWindow::isUsual()
{
    return !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

QString SharedWindow::choose(Choice choice)
{
    QString token;
    if (choice == Choice::Again)
        token = rememberedchoice::load();
    if (choice == Choice::Again && token.isEmpty())
        return QStringLiteral("no window is remembered; --select asks for one");
    const std::optional<PortalSession::Stream> stream = impl_->session.open(token);
    if (!stream)
        return impl_->session.errorString();
    impl_->stream = *stream;
    // A token serves once.
    if (!rememberedchoice::store(stream->token))
        impl_->remark = QStringLiteral("the choice of the window is not remembered: cannot write %1")
                            .arg(rememberedchoice::path());
    else if (impl_->session.hidesPointer())
        impl_->remark = QStringLiteral("the desktop does not tell where the pointer is; it is not recorded");
    impl_->connection.emplace(impl_->session.openRemote());
    return impl_->connection->isValid() ? QString() : impl_->session.errorString();
}

quint32 SharedWindow::node() const
{
    return impl_->stream.node;
}

/// What the portal tells as the size may be that of the monitor. So the window is looked at as a recorder does it.
QSize SharedWindow::measure()
{
    Descriptor connection = impl_->session.openRemote();
    if (!connection.isValid())
        return QSize();
    QLoggingCategory::setFilterRules(QStringLiteral("*.warning=false")); // the recorder tells what is wrong
    qputenv("ORVANTIS_WINDOW_SOURCE", "pipewire");
    qputenv("ORVANTIS_PIPEWIRE_FD", QByteArray::number(connection.release()));
    QSize size;
    {
        platform::WindowSource window(node());
        QElapsedTimer waited;
        waited.start();
        for (;;) {
            size = window.sample(false).image.size(); // only the first sample waits
            if (!size.isEmpty() || waited.elapsed() >= measureLimitMs)
                break;
            QThread::msleep(askAgainMs);
        }
    }
    qunsetenv("ORVANTIS_WINDOW_SOURCE");
    qunsetenv("ORVANTIS_PIPEWIRE_FD");
    QLoggingCategory::setFilterRules(QString());
    return size;
}

QString SharedWindow::remark() const
{
    return impl_->remark;
}

int SharedWindow::connection() const
{
    return impl_->connection ? impl_->connection->number() : -1;
}

void SharedWindow::releaseConnection()
{
    impl_->connection.reset();
}

void SharedWindow::close()
{
    impl_->session.close();
}

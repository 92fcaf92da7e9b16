// PortalSession: what the desktop portal is asked for to get a window (org.freedesktop.portal.ScreenCast).
#pragma once

#include "descriptor.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusServiceWatcher>
#include <QObject>
#include <QSize>
#include <QString>
#include <QVariantMap>

#include <optional>

/// One session of the portal, which ends with close(), with this object, and with the process's connection to the
/// session bus. Main thread; open() runs an event loop.
class PortalSession : public QObject {
    Q_OBJECT

public:
    /// The window that was chosen.
    struct Stream {
        quint32 node = 0;
        QSize size; ///< as the portal tells it, which may be that of the monitor; empty: it does not
        QString token; ///< with which the same window can be asked for once; empty: it is not remembered
    };

    explicit PortalSession(QObject* parent = nullptr);
    ~PortalSession() override;

    /// Lets the user choose; a token of an earlier session spares the question where the desktop remembers the
    /// answer. Nothing when there is no window; errorString() says why.
    std::optional<Stream> open(const QString& token);
    QString errorString() const { return error_; }
    bool hidesPointer() const { return pointer_ != Pointer::Metadata; } ///< it is not told where that is

    /// A connection to PipeWire that leads to the window and nothing else; -1 when there is none.
    Descriptor openRemote();
    void close();

Q_SIGNALS:
    void closed(); ///< by the desktop or the user; not by close()
    void answered(); ///< for open()

private Q_SLOTS:
    void onResponse(uint code, const QVariantMap& results);
    void onClosed();
    void onLost();

private:
    enum class Pointer : uint { Hidden = 1, Embedded = 2, Metadata = 4 };
    enum class Patience { Answer, Person };
    struct Response {
        uint code = 0;
        QVariantMap results;
    };

    bool handsOutWindows();
    std::optional<uint> property(const QString& name);
    QString request(const QString& method, QVariantList arguments, QVariantMap options, Patience patience);
    void await(Patience patience);
    QDBusMessage call(
        const QString& path, const QString& interface, const QString& method, const QVariantList& arguments);
    void fail(const QString& error);

    QDBusConnection bus_;
    QDBusServiceWatcher watcher_;
    Pointer pointer_ = Pointer::Metadata;
    QString handle_; ///< of the session; empty: there is none
    std::optional<Response> response_;
    QString error_;
};

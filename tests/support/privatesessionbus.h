// PrivateSessionBus: a session bus of a test's own.
#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

/// A dbus-daemon that starts no services by itself. Ready when the constructor returns, gone when the object is; it
/// ends with its parent too. When it cannot be had, address() is empty and errorString() says why.
class PrivateSessionBus {
public:
    PrivateSessionBus();
    ~PrivateSessionBus();
    PrivateSessionBus(const PrivateSessionBus&) = delete;
    PrivateSessionBus& operator=(const PrivateSessionBus&) = delete;

    QByteArray address() const { return address_; } ///< as in DBUS_SESSION_BUS_ADDRESS
    QString errorString() const { return error_; }

    /// As a crash would end it; waits for its end.
    void kill();

private:
    QTemporaryDir directory_;
    QProcess process_;
    QByteArray address_;
    QString error_;
};

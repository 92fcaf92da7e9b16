// PrivateXServer: an X server of a test's own.
#pragma once

#include <QByteArray>
#include <QProcess>
#include <QSize>
#include <QString>
#include <QStringList>

/// An Xvfb on a free display, ready when the constructor returns and gone when the object is. It ends with
/// its parent too, even when that is killed: make it on a thread that outlives it (the kernel watches the
/// thread). It takes only clients with the cookie of xauthority.h. When the server cannot be had, isRunning() is
/// false and errorString() says why.
class PrivateXServer {
public:
    /// Screen size in pixels, depth in bits; extraArguments follow the standard ones.
    explicit PrivateXServer(
        QSize screen = QSize(1920, 1200), int depth = 24, const QStringList& extraArguments = QStringList());
    ~PrivateXServer();
    PrivateXServer(const PrivateXServer&) = delete;
    PrivateXServer& operator=(const PrivateXServer&) = delete;

    bool isRunning();
    QString errorString() const { return error_; } ///< empty when the server started

    QByteArray display() const { return display_; } ///< as in DISPLAY, ":7"
    qint64 pid() const { return pid_; }

    /// Kills the server, as a crash would end it, and waits for its end. Clients find the connection broken
    /// afterwards.
    void kill();

private:
    void removeLeftovers() const;

    QProcess process_;
    QByteArray display_;
    QString error_;
    qint64 pid_ = 0;
};

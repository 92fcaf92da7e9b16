// WaylandWindow: a waylandwindow, steered from a test; and WindowCast, its stream from the compositor.
#pragma once

#include "waylanddesktop.h"

#include <QByteArray>
#include <QProcess>
#include <QSize>
#include <QStringList>

#include <memory>

/// Rows at the top of a waylandwindow whose colour is the number of the frame.
inline constexpr int waylandWindowNumberRows = 8;

/// On the desktop that is given; shown when the constructor returns, else isShown() is false. Ends with the object.
class WaylandWindow {
public:
    WaylandWindow(const WaylandDesktop& desktop, const QString& title, const QSize& size,
        const QStringList& more = QStringList());
    ~WaylandWindow();
    WaylandWindow(const WaylandWindow&) = delete;
    WaylandWindow& operator=(const WaylandWindow&) = delete;

    bool isShown() const { return isShown_; }
    QString title() const { return title_; }
    /// One command of waylandwindow_main.cpp.
    void send(const QByteArray& command);

private:
    const QString title_;
    QProcess process_;
    bool isShown_ = false;
};

/// Asks Mutter for the window that has the keyboard, KWin for the one with the title. As a portal does it: the
/// pointer is told, not painted. The stream lasts as long as this.
class WindowCast {
public:
    WindowCast(const WaylandDesktop& desktop, const QString& title);
    ~WindowCast();
    WindowCast(const WindowCast&) = delete;
    WindowCast& operator=(const WindowCast&) = delete;

    quint32 node() const; ///< 0: there is none, and errorString() says why
    QString errorString() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

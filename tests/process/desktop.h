// Desktop: what happens on a test's X server besides the recording: windows are moved, covered and destroyed, the
// pointer is put somewhere.
#pragma once

#include <QByteArray>
#include <QList>
#include <QPoint>
#include <QRect>
#include <QString>

#include <memory>

/// A connection of its own to a display. Windows are named by their ids, whoever made them; coordinates are pixels of
/// the screen, sizes without border. Every method waits until the server (not a window manager) has done it. One
/// thread.
class Desktop {
public:
    explicit Desktop(const QByteArray& display);
    ~Desktop();
    Desktop(const Desktop&) = delete;
    Desktop& operator=(const Desktop&) = delete;

    bool isConnected() const;

    /// A window of one colour that no window manager touches, on top of the others.
    quint32 create(const QRect& geometry, quint32 rgb, bool mapped = true);

    void place(quint32 window, const QRect& geometry);
    void map(quint32 window);
    void unmap(quint32 window);
    void destroy(quint32 window);
    /// Asks the window manager.
    void iconify(quint32 window);
    void movePointer(QPoint position);
    /// A window manager is there and obeys: asks it to show a window, for a moment. One that is just starting may
    /// lose such a request although it has announced itself, so a test waits until this holds.
    bool windowManagerObeys();
    /// Applications that start from now on believe that a compositor is there, and may make windows with
    /// transparency.
    void claimCompositor();

    bool isViewable(quint32 window) const;
    /// Null when there is no such window.
    QRect geometry(quint32 window) const;
    /// The numbers in a property of that name; empty when it is not set.
    QList<quint32> property(quint32 window, const QByteArray& name) const;
    QString stringProperty(quint32 window, const QByteArray& name) const;
    void setProperty(quint32 window, const QByteArray& name, const QList<quint32>& numbers);
    /// A visible top-level window whose _NET_WM_NAME contains a text; 0 when there is none.
    quint32 titled(const QString& text) const;
    quint32 root() const;
    QList<quint32> children(quint32 window) const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

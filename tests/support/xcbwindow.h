// XcbWindow: a plain X11 window with images in memory that it shares with the X server.
#pragma once

#include <QImage>
#include <QRect>
#include <QString>

#include <memory>

/// A mapped top-level window on the default display, or a text in errorString(). An image reaches the
/// screen in one request, so that another client never grabs half of one. One thread.
class XcbWindow {
public:
    enum class State {
        Unchanged,
        NeedsPainting, ///< uncovered, or of another size: paint and show the whole image
        Gone, ///< destroyed, or closed by its user
        ConnectionLost,
    };

    /// Geometry in screen pixels. Returns when the window is mapped. So many buffers hold an image each.
    XcbWindow(const QRect& geometry, const char* title, int buffers = 1);
    ~XcbWindow();
    XcbWindow(const XcbWindow&) = delete;
    XcbWindow& operator=(const XcbWindow&) = delete;

    QString errorString() const;
    quint32 id() const;
    int descriptor() const; ///< readable when events wait

    int buffers() const;
    /// QImage::Format_RGB32, of the window's size; its memory changes when handleEvents() says NeedsPainting.
    QImage& image(int buffer = 0);
    /// Brings an area of an image to the screen; returns when the X server has read it.
    void show(const QRect& area, int buffer = 0);
    State handleEvents();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

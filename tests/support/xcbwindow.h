// XcbWindow: a plain X11 window with a frame in memory that it shares with the X server.
#pragma once

#include <QImage>
#include <QRect>
#include <QString>

#include <memory>

/// A mapped top-level window on the default display, or a text in errorString(). Its frame reaches the
/// screen in one request, so that another client never grabs half of one. One thread.
class XcbWindow {
public:
    enum class State {
        Unchanged,
        NeedsPainting, ///< uncovered, or of another size: paint and show the whole image
        Gone, ///< destroyed, or closed by its user
        ConnectionLost,
    };

    /// Geometry in screen pixels. Returns when the window is mapped.
    XcbWindow(const QRect& geometry, const char* title);
    ~XcbWindow();
    XcbWindow(const XcbWindow&) = delete;
    XcbWindow& operator=(const XcbWindow&) = delete;

    QString errorString() const;
    quint32 id() const;
    int descriptor() const; ///< readable when events wait

    /// QImage::Format_RGB32, of the window's size; its buffer changes when handleEvents() says NeedsPainting.
    QImage& image();
    /// Brings an area of the frame to the screen; returns when the X server has read it.
    void show(const QRect& area);
    State handleEvents();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

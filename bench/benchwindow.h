// BenchWindow: an X11 window, opaque or with an alpha channel, to be captured.
#pragma once

#include <QSize>
#include <QString>

#include <memory>

struct xcb_connection_t;

/// A mapped window in the top left corner of the default display's screen, or a text in errorString(). One thread.
class BenchWindow {
public:
    /// size in pixels; depth 24, or 32 for a window with an alpha channel.
    BenchWindow(QSize size, int depth);
    ~BenchWindow();
    BenchWindow(const BenchWindow&) = delete;
    BenchWindow& operator=(const BenchWindow&) = delete;

    QString errorString() const { return error_; }
    quint32 id() const { return window_; }

    /// Paints the whole window; returns when the X server has. So much of it, from the top, gets other pixels, if the
    /// last painting changed as much.
    void paint(int changedPercent = 100);

private:
    bool open(QSize size, int depth);
    void synchronise();

    xcb_connection_t* connection_; ///< owned; everything on the server goes with it
    QSize size_;
    quint32 window_ = 0;
    quint32 context_ = 0; ///< paints colour_
    quint32 paintings_ = 0;
    QString error_;
};

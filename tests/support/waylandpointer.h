// WaylandPointer: the pointer of a compositor, moved by a test.
#pragma once

#include "waylandwindow.h"

#include <QPoint>

/// Of Mutter, or of KWin on which this window is. It lasts as long as this.
class WaylandPointer {
public:
    WaylandPointer(const WaylandDesktop& desktop, WaylandWindow& window);
    ~WaylandPointer();
    WaylandPointer(const WaylandPointer&) = delete;
    WaylandPointer& operator=(const WaylandPointer&) = delete;

    QString errorString() const; ///< empty when it can be moved
    void move(QPoint onScreen); ///< points

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

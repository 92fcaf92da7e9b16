// The windows that can be recorded, as the window system tells. One definition set for each system, chosen by CMake.
#pragma once

#include <QList>
#include <QSize>
#include <QString>

struct WindowInfo {
    quint32 id = 0;
    qint64 process = 0; ///< its process id; 0: not known, or not on this machine
    QString processName; ///< empty: not known
    QString title; ///< as the application gives it: not fit for a terminal as it is
    QSize size; ///< pixels
    bool isShown = false;
};

/// An answer of the window system.
struct WindowAnswer {
    QList<WindowInfo> windows;
    QString error; ///< not empty: the window system cannot be asked, in words
};

/// Each call asks anew, on a connection of its own, and waits for the window system without a limit. Any thread.
namespace windowlist {

WindowAnswer all(); ///< the applications' windows
WindowAnswer withId(quint32 id); ///< this one, or none
WindowAnswer active(); ///< the one that has the keyboard, or none
WindowAnswer picked(); ///< waits for a click on one; none when it was another button than the first

}

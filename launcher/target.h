// What is recorded: the window, and with it what depends on it.
#pragma once

#include "options.h"
#include "sharedwindow.h"
#include "windowlist.h"

#include <memory>

struct Target {
    quint32 window = 0; ///< the window system's id; or that of its node, when it is
    std::shared_ptr<SharedWindow> shared; ///< handed out by the desktop; null: not so
    QSize canvas; ///< pixels
    QString audioSource; ///< as the recorder wants it
    QStringList remarks; ///< what to tell the person
    QString error; ///< not empty: nothing can be recorded, in one sentence or with a list of windows
};

/// Asks the window system, which may take two seconds; with --select until the person clicks, or ends
/// the desktop's dialogue.
Target chooseTarget(const Options& options);

/// Whether the window is chosen in the desktop's own dialogue.
bool asksTheDesktop(const WindowWish& wish);

/// All windows, within two seconds.
WindowAnswer listWindows();

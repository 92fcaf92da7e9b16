// What is recorded: the window, and with it what depends on it.
#pragma once

#include "options.h"
#include "windowlist.h"

struct Target {
    quint32 window = 0;
    QSize canvas; ///< pixels
    QString audioSource; ///< as the recorder wants it
    QStringList remarks; ///< what to tell the person
    QString error; ///< not empty: nothing can be recorded, in one sentence or with a list of windows
};

/// Asks the window system, which may take two seconds; with --select until the person clicks.
Target chooseTarget(const Options& options);

/// All windows, within two seconds.
WindowAnswer listWindows();

// The application object, which ends the event loop when an event meets an exception.
#pragma once

#include "lastline.h"

#include <QGuiApplication>

#include <exception>

class RecorderApplication : public QGuiApplication {
public:
    /// Of a process that could not go on; the file is finished first.
    static constexpr int interruptedExitCode = 1;

    using QGuiApplication::QGuiApplication;

    /// Main thread, and others that have an event loop. What is thrown, for want of memory mostly, does not get back
    /// into Qt, which does not allow that. The event is lost, and it may have been a "stop": so the recording ends.
    bool notify(QObject* receiver, QEvent* event) override
    {
        try {
            return QGuiApplication::notify(receiver, event);
        } catch (const std::exception& error) {
            lastline::tellException(error.what());
        }
        exit(interruptedExitCode);
        return false;
    }
};

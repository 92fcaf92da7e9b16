// WaylandDesktop: a compositor without a screen, with the session bus and the PipeWire server that it wants.
#pragma once

#include "privateaudioserver.h"
#include "privatesessionbus.h"

#include <QByteArray>
#include <QProcess>
#include <QSize>
#include <QString>

/// Ready when the constructor returns, gone when the object is; its processes end with their parent too. Renders in
/// software. When it cannot be had, isRunning() is false and errorString() says why.
class WaylandDesktop {
public:
    enum class Kind { Mutter, KWin, Weston };

    struct Options {
        Kind kind = Kind::Mutter;
        QSize screen{1280, 720}; ///< pixels
        double scale = 1.0; ///< pixels to a point; KWin and Weston
        bool xwayland = false; ///< then xDisplay() has it
    };

    explicit WaylandDesktop(const Options& options);
    ~WaylandDesktop();
    WaylandDesktop(const WaylandDesktop&) = delete;
    WaylandDesktop& operator=(const WaylandDesktop&) = delete;

    Kind kind() const { return options_.kind; }
    bool isRunning();
    QString errorString() const { return error_; } ///< empty when it started
    QByteArray log() const; ///< what the compositor said

    /// The calling process's environment, changed so that programs belong to this desktop.
    QProcessEnvironment environment() const { return environment_; }
    /// Changes the calling process's own environment, for good.
    void apply() const;

    QByteArray busAddress() const { return bus_.address(); }
    PrivateSessionBus& bus() { return bus_; }
    PrivateAudioServer& server() { return server_; }
    QByteArray xDisplay() const { return xDisplay_; } ///< as in DISPLAY

    /// Of the compositor, as a crash would end it; waits for its end.
    void kill();
    /// Stops the compositor (SIGSTOP), and continues it.
    void stop();
    void resume();

private:
    QStringList arguments() const;
    QString program();
    bool waitForSocket();
    bool waitForXwayland();

    const Options options_;
    PrivateAudioServer server_;
    PrivateSessionBus bus_;
    QProcessEnvironment environment_;
    QByteArray xDisplay_;
    QString error_;
    QProcess compositor_;
};

// WindowProcess: a testwindow, steered from a test.
#pragma once

#include <QByteArray>
#include <QProcess>
#include <QRect>
#include <QString>

/// What the window starts with. Pixel values are those of its depth.
struct WindowStart {
    QRect geometry{100, 80, 320, 240}; ///< screen pixels; the size is without the border
    int depth = 24;
    int border = 0;
    quint32 pixel = 0x00204060; ///< background
    bool overrideRedirect = false; ///< no window manager touches it
    bool mapped = true;
};

/// A window in another process on the default display (DISPLAY). When it cannot be had, id() is 0 and errorString()
/// says why. It ends with the object. One thread.
class WindowProcess {
public:
    explicit WindowProcess(const WindowStart& start = WindowStart());
    ~WindowProcess();
    WindowProcess(const WindowProcess&) = delete;
    WindowProcess& operator=(const WindowProcess&) = delete;

    quint32 id() const { return id_; }
    QString errorString() const { return error_; }
    qint64 pid() const { return process_.processId(); }

    /// One command of testwindow.cpp. True when the X server has carried it out; otherwise errorString() says why.
    bool send(const QByteArray& command);

    /// Sends commands without waiting, and counts the answers that are there by now.
    void post(const QByteArray& commands);
    int answersRead();

    /// Kills the process, as a crash would end it, and waits for its end.
    void kill();

private:
    QByteArray readLine();

    QProcess process_;
    quint32 id_ = 0;
    QString error_;
    int answers_ = 0;
};

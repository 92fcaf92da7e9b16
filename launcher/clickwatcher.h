// ClickWatcher: the real mouse clicks over one window, and its end. One definition set for each system, chosen by
// CMake.
#pragma once

#include "click.h"

#include <QObject>
#include <QString>

#include <memory>

/// Signals every press of buttons 1 to 3 over a part of the window that nothing covers. Main thread, which never
/// waits for the window system longer than a second, and that only in the constructor.
class ClickWatcher : public QObject {
    Q_OBJECT

public:
    enum class Watched { ClicksAndClosing, ClosingOnly };

    /// window: the system's id. When clicks cannot be watched, or not yet, isWatching() is false and errorString()
    /// says why; the closing may be told all the same.
    ClickWatcher(quint32 window, Watched watched, QObject* parent = nullptr);
    ~ClickWatcher() override;

    bool isWatching() const { return errorString_.isEmpty(); }
    QString errorString() const { return errorString_; }

Q_SIGNALS:
    void clicked(const Click& click);
    void clickedElsewhere(); ///< a press that is not the window's: beside it, or on what covers it
    void windowClosed(); ///< there is no such window any more
    void failed(); ///< no further clicks will be seen; errorString() says why

private:
    struct Impl;

    QString errorString_;
    std::shared_ptr<Impl> impl_; // shared with a thread where a system needs one
};

// SharedWindow: a window that the desktop hands out once the user has chosen it. One definition set for each system,
// chosen by CMake.
#pragma once

#include <QObject>
#include <QSize>
#include <QString>

#include <memory>

/// On Wayland no program sees another one's windows. The desktop asks the user for one in a dialogue of its own, and
/// makes a node of PipeWire of it for as long as this lives. Main thread.
class SharedWindow : public QObject {
    Q_OBJECT

public:
    enum class Choice {
        Ask, ///< the user chooses
        Again, ///< as last time, without a question where the desktop remembers it
    };

    explicit SharedWindow(QObject* parent = nullptr);
    /// The window is not shared any more.
    ~SharedWindow() override;

    /// Whether windows are chosen so here.
    static bool isUsual();

    /// Waits for the user without a limit, and runs an event loop meanwhile. Empty, or in a sentence why there is no
    /// window.
    QString choose(Choice choice);

    quint32 node() const; ///< its id in PipeWire
    /// In pixels, as a recording of it has it; empty when that is not known. Waits for the window's first frame,
    /// three seconds at most.
    QSize measure();
    QString remark() const; ///< to be told to the user; mostly empty
    /// Of the connection over which PipeWire knows the node, to be inherited by whoever records it. Closed by exec,
    /// and by releaseConnection(); this owns it.
    int connection() const;
    void releaseConnection();
    /// Ends the sharing.
    void close();

Q_SIGNALS:
    void ended(); ///< the desktop or the user has ended the sharing

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// DesktopPortal: the real desktop portal, with a backend that stands for the desktop and its user.
#pragma once

#include <QDBusConnection>
#include <QDBusVirtualObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QSize>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QVariantMap>

/// Ready when the constructor returns, gone when the object is. Belongs to the main thread, whose event loop has to
/// run while somebody asks. When it cannot be had, isRunning() is false and errorString() says why.
class DesktopPortal {
public:
    /// What the desktop does with the question for a window.
    enum class User { Chooses, Cancels, Hesitates };

    struct Desktop {
        uint sourceTypes = 3; ///< 1: monitors, 2: windows
        uint pointerModes = 7;
        User user = User::Chooses;
        quint32 node = 0; ///< what is handed out
        QSize told; ///< the size that is told with it
        bool remembers = true; ///< the choice
    };

    /// environment: of programs on the bus with the address.
    DesktopPortal(const QByteArray& busAddress, const QProcessEnvironment& environment, const Desktop& desktop);
    ~DesktopPortal();
    DesktopPortal(const DesktopPortal&) = delete;
    DesktopPortal& operator=(const DesktopPortal&) = delete;

    bool isRunning();
    QString errorString() const { return error_; }

    Desktop& desktop() { return desktop_; }
    QVariantMap wishes() const { return wishes_; } ///< of the last question
    int questions() const { return questions_; } ///< that the user was asked, or would have been
    int restored() const { return restored_; } ///< of these, with the answer known from before
    int openSessions() const { return int(sessions_.size()); }
    int openRequests() const { return int(requests_.size()); }

    /// As the user does it in the desktop's panel.
    void endSharing();
    /// Of the portal: as a crash ends it; stopped (SIGSTOP), and continued.
    void kill();
    void stop();
    void resume();

private:
    class Backend;

    bool start(QProcess& process, const char* program, const QProcessEnvironment& environment, const QString& name);
    bool answer(const QDBusMessage& message);
    void answerStart(const QDBusMessage& message);
    QVariantMap properties() const;

    Desktop desktop_;
    QTemporaryDir directory_;
    QDBusConnection bus_;
    std::unique_ptr<Backend> backend_;
    QProcess store_;
    QProcess portal_;
    QString error_;
    QVariantMap wishes_;
    QStringList sessions_; ///< paths
    QStringList requests_; ///< paths of those that are not answered
    int questions_ = 0;
    int restored_ = 0;
};

// LogCapture: what the program logs while a test watches.
#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <QtGlobal>

/// Takes over the process's Qt message handler for its lifetime and keeps every message; the handler that was
/// there before comes back at the end, and gets no message meanwhile except a fatal one. Captures may nest
/// when they end in reverse order. Every method may be called from any thread.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// The texts in the order of arrival, without level or place.
    QStringList messages() const;
    QStringList messages(QtMsgType type) const;

    int count(const QString& exact) const;
    int countStartingWith(const QString& prefix) const;
    bool contains(const QString& exact) const { return count(exact) > 0; }
    void clear();

private:
    struct Message {
        QtMsgType type;
        QString text;
    };

    static void handle(QtMsgType type, const QMessageLogContext& context, const QString& text);

    QtMessageHandler previousHandler_ = nullptr;
    LogCapture* outer_ = nullptr; ///< the capture that this one hides
    QList<Message> messages_; ///< guarded by the lock in logcapture.cpp
};

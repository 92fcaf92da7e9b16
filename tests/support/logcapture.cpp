// LogCapture: what the program logs while a test watches.
#include "logcapture.h"

#include <QMutex>
#include <QMutexLocker>

#include <algorithm>

namespace {

/// Guards the innermost capture and every capture's messages. A handler that another thread has already
/// entered can therefore never reach a capture that is gone.
QMutex captureLock;
LogCapture* innermost = nullptr;

}

LogCapture::LogCapture()
{
    const QMutexLocker lock(&captureLock);
    outer_ = innermost;
    innermost = this;
    previousHandler_ = qInstallMessageHandler(&LogCapture::handle);
}

LogCapture::~LogCapture()
{
    const QMutexLocker lock(&captureLock);
    qInstallMessageHandler(previousHandler_);
    innermost = outer_;
}

void LogCapture::handle(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    QtMessageHandler fatalHandler = nullptr;
    {
        const QMutexLocker lock(&captureLock);
        if (!innermost)
            return;
        innermost->messages_.append({type, text});
        fatalHandler = innermost->previousHandler_;
    }
    // The process ends after a fatal message, so this is the last chance to show it.
    if (type == QtFatalMsg && fatalHandler)
        fatalHandler(type, context, text);
}

QStringList LogCapture::messages() const
{
    const QMutexLocker lock(&captureLock);
    QStringList texts;
    for (const Message& message : messages_)
        texts.append(message.text);
    return texts;
}

QStringList LogCapture::messages(QtMsgType type) const
{
    const QMutexLocker lock(&captureLock);
    QStringList texts;
    for (const Message& message : messages_) {
        if (message.type == type)
            texts.append(message.text);
    }
    return texts;
}

int LogCapture::count(const QString& exact) const
{
    const QMutexLocker lock(&captureLock);
    return int(std::count_if(
        messages_.cbegin(), messages_.cend(), [&](const Message& message) { return message.text == exact; }));
}

int LogCapture::countStartingWith(const QString& prefix) const
{
    const QMutexLocker lock(&captureLock);
    return int(std::count_if(messages_.cbegin(), messages_.cend(),
        [&](const Message& message) { return message.text.startsWith(prefix); }));
}

void LogCapture::clear()
{
    const QMutexLocker lock(&captureLock);
    messages_.clear();
}

// What happens before the recorder exists.
#include "startup.h"

#include "messagehandler.h"
#include "platform/application.h"
#include "platform/screen.h"
#include "stderrlines.h"
#include "timestamp.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QLoggingCategory>

#include <cerrno>
#include <cstring>

namespace {

QString macMainBundleString(const char* selectorName)
{
    return platform::mainBundleString(selectorName);
}

}

void startup::keepEveryLogLine()
{
    qunsetenv("QT_FATAL_WARNINGS");
    qunsetenv("QT_FATAL_CRITICALS");
    // The filter that applies the rules; there is no other way to get it than to install it twice.
    static const QLoggingCategory::CategoryFilter rules = [] {
        QLoggingCategory::installFilter(nullptr);
        return QLoggingCategory::installFilter(nullptr);
    }();
    QLoggingCategory::installFilter([](QLoggingCategory* category) {
        rules(category);
        if (std::strcmp(category->categoryName(), "default") != 0)
            return;
        for (const QtMsgType type : {QtDebugMsg, QtInfoMsg, QtWarningMsg, QtCriticalMsg})
            category->setEnabled(type, true);
    });
}

void startup::extendPluginPath(const char* executable)
{
    const QDir executableDir(QFileInfo(QString::fromLocal8Bit(executable)).absolutePath());
    QString plugIns = executableDir.absoluteFilePath(QStringLiteral("../PlugIns"));
    if (!QFileInfo::exists(plugIns))
        plugIns = executableDir.absoluteFilePath(QStringLiteral("../../../../PlugIns"));
    if (!QFileInfo::exists(plugIns))
        return;
    const QByteArray before = qgetenv("QT_PLUGIN_PATH");
    qputenv("QT_PLUGIN_PATH", before.isEmpty() ? plugIns.toUtf8() : plugIns.toUtf8() + ':' + before);
}

QString startup::logFilePath(const char* directory)
{
    // Two arguments fill the two lowest markers there are: %1 and %3.
    return QStringLiteral("%1/%3-orvantis-recorder-log.txt").arg(QString::fromUtf8(directory), TimeStamp::RawUTC());
}

void startup::startLogging(const char* directory)
{
    const QByteArray path = logFilePath(directory).toUtf8();
    logFilePtr = std::fopen(path.constData(), "w");
    if (!logFilePtr)
        stderrlines::write(
            "orvantis-recorder: cannot open the log file " + path + ": " + std::strerror(errno) + '\n');
    startLoggingWithoutFile();
}

void startup::startLoggingWithoutFile()
{
    qInstallMessageHandler(MessageHandlerImpl);
}

void startup::logIdentity(int argc, char** argv)
{
    for (int i = 0; i < argc; ++i)
        qDebug() << i << QByteArray(argv[i]).replace('\n', "\\n").constData();
    qDebug() << "recorder process identity"
             << "pid" << QCoreApplication::applicationPid() << "applicationFilePath"
             << QCoreApplication::applicationFilePath() << "applicationDirPath"
             << QCoreApplication::applicationDirPath() << "bundleIdentifier"
             << macMainBundleString("bundleIdentifier") << "bundlePath" << macMainBundleString("bundlePath")
             << "bundleExecutablePath" << macMainBundleString("executablePath");
    qDebug() << "recorder environment"
             << "QT_PLUGIN_PATH" << qgetenv("QT_PLUGIN_PATH") << "QT_QPA_PLATFORM_PLUGIN_PATH"
             << qgetenv("QT_QPA_PLATFORM_PLUGIN_PATH") << "QT_MEDIA_BACKEND" << qgetenv("QT_MEDIA_BACKEND");
    qDebug() << "recorder Qt library paths" << QCoreApplication::libraryPaths();
}

int startup::requestPermissions()
{
    bool allowed = platform::preflightScreenCaptureAccess();
    qDebug() << "macOS screen recording preflight before request" << allowed;
    if (!allowed) {
        const bool granted = platform::requestScreenCaptureAccess();
        const bool heldNow = platform::preflightScreenCaptureAccess();
        qDebug() << "macOS screen recording request result" << granted << "preflight after request" << heldNow;
        allowed = granted || heldNow;
    }
    qDebug() << "recorder permission preflight completed"
             << "screenCaptureAllowed" << allowed;
    constexpr int refusedExitCode = 2;
    return allowed ? 0 : refusedExitCode;
}

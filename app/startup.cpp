// What happens before the recorder exists.
#include "startup.h"

#include "descriptor.h"
#include "messagehandler.h"
#include "platform/application.h"
#include "platform/screen.h"
#include "privatefile.h"
#include "stderrlines.h"
#include "timestamp.h"
#include "trustedplace.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QLoggingCategory>
#include <QPainter>
#include <QPen>

#include <cerrno>
#include <cstring>

namespace {

QString macMainBundleString(const char* selectorName)
{
    return platform::mainBundleString(selectorName);
}

/// Of this process, whatever it was called by; where it cannot be told, empty.
QString executablePath()
{
    const QString linked = QFile::symLinkTarget(QStringLiteral("/proc/self/exe"));
    return linked.isEmpty() ? platform::mainBundleString("executablePath") : linked;
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

void startup::useQtEventLoops()
{
    qputenv("QT_NO_GLIB", "1");
}

QStringList startup::extendPluginPath(const char* executable)
{
    QStringList refused;
    const QDir executableDir(QFileInfo(QString::fromLocal8Bit(executable)).absolutePath());
    for (const auto* const place : {"../PlugIns", "../../../../PlugIns"}) {
        const QString plugIns = executableDir.absoluteFilePath(QLatin1String(place));
        if (!QFileInfo::exists(plugIns))
            continue;
        if (trustedplace::isPlugInDirectory(QFile::encodeName(plugIns), platform::administratorsGroup())) {
            const QByteArray before = qgetenv("QT_PLUGIN_PATH");
            qputenv("QT_PLUGIN_PATH", before.isEmpty() ? plugIns.toUtf8() : plugIns.toUtf8() + ':' + before);
            break;
        }
        refused.append(plugIns);
    }
    return refused;
}

// The application object adds the directory. It repeats what was done to its paths before: what is removed while it
// is there for another reason stays removed.
QStringList startup::leaveOutSharedDirectory()
{
    const QString directory = QFileInfo(executablePath()).absolutePath();
    if (!trustedplace::isShared(QFile::encodeName(directory)))
        return QStringList();
    const QByteArray before = qgetenv("QT_PLUGIN_PATH");
    qputenv("QT_PLUGIN_PATH", QFile::encodeName(directory));
    QCoreApplication::removeLibraryPath(directory);
    if (before.isEmpty())
        qunsetenv("QT_PLUGIN_PATH");
    else
        qputenv("QT_PLUGIN_PATH", before);
    return {directory};
}

void startup::logRefusedPlugIns(const QStringList& directories)
{
    for (const QString& directory : directories)
        qWarning() << "Plug-ins are not loaded from a place that other users can change:" << directory;
}

void startup::preparePainting()
{
    constexpr int size = 8; // pixels
    QImage image(size, size, QImage::Format_ARGB32);
    image.fill(Qt::black);
    const QImage other = image;
    QPainter painter(&image);
    painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);
    painter.drawImage(QRectF(0, 0, size, size), other, QRectF(1, 1, size - 2, size - 2));
    painter.setPen(QPen(Qt::black, 3.0, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    painter.setBrush(Qt::white);
    painter.drawEllipse(QRectF(1, 1, size - 2, size - 2));
}

void startup::setOrganization()
{
    QCoreApplication::setOrganizationName(QStringLiteral("PEMLO"));
}

QString startup::logFilePath(const char* directory)
{
    // Two arguments fill the two lowest markers there are: %1 and %3.
    return QStringLiteral("%1/%3-orvantis-recorder-log.txt").arg(QString::fromUtf8(directory), TimeStamp::RawUTC());
}

void startup::startLogging(const QString& path)
{
    const QByteArray name = path.toUtf8();
    const privatefile::Opened file = privatefile::openEmpty(name);
    Descriptor descriptor(file.descriptor);
    logFilePtr = descriptor.isValid() ? ::fdopen(descriptor.number(), "w") : nullptr;
    const int error = descriptor.isValid() ? errno : file.error;
    if (logFilePtr)
        descriptor.release(); // the stream has it
    else
        stderrlines::write("orvantis-recorder: cannot open the log file " + name + ": "
            + (file.refusal ? file.refusal : std::strerror(error)) + '\n');
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
    if (allowed)
        return 0;
    platform::enrolForScreenCapture();
    constexpr int refusedExitCode = 2;
    return refusedExitCode;
}

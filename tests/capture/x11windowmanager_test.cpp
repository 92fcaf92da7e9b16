// A window under a real window manager: framed, iconified, moved.
#include "testregistry.h"
#include "x11fixture.h"

#include "privatetempdir.h"

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>

#include <memory>

using WindowSource = SampledWindow;

namespace {

constexpr quint32 blue = 0xff2040c0;
constexpr quint32 green = 0xff00ff00;
constexpr int limitMs = 30'000;

QString outputOf(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.start(program, arguments);
    return process.waitForFinished(limitMs) ? QString::fromUtf8(process.readAllStandardOutput()) : QString();
}

/// The top left corner that xwininfo prints, "Absolute" (on the screen) or "Relative" (in the window around it).
QPoint windowInfo(quint32 id, const QString& kind)
{
    const QString text = outputOf(QStringLiteral("xwininfo"), {QStringLiteral("-id"), QString::number(id)});
    const QRegularExpression lines(kind + QStringLiteral(" upper-left X:\\s+(-?\\d+)\\s+") + kind
        + QStringLiteral(" upper-left Y:\\s+(-?\\d+)"));
    const auto match = lines.match(text);
    return match.hasMatch() ? QPoint(match.captured(1).toInt(), match.captured(2).toInt()) : QPoint(-9999, -9999);
}

}

class X11WindowManagerTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void boundsAreRootCoordinates();
    void iconifiedWindowGivesNoImage();
    void framedWindowIsCapturedWhileCovered();

private:
    std::unique_ptr<PrivateTempDir> home_; // no configuration of the user's
    std::unique_ptr<DisplayForTest> display_;
    QProcess manager_;
};

void X11WindowManagerTest::initTestCase()
{
    home_ = std::make_unique<PrivateTempDir>();
    display_ = std::make_unique<DisplayForTest>();
    QVERIFY2(display_->server.isRunning(), qPrintable(display_->server.errorString()));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_DATA_HOME"})
        environment.insert(QString::fromLatin1(name), home_->path());
    manager_.setProcessEnvironment(environment);
    // The manager announces when it is ready: a window that is mapped while it still starts can be left unmapped.
    const QString ready = home_->filePath(QStringLiteral("ready"));
    manager_.start(QStringLiteral("openbox"),
        {QStringLiteral("--sm-disable"), QStringLiteral("--startup"), QStringLiteral("touch ") + ready});
    QVERIFY2(manager_.waitForStarted(limitMs), qPrintable(manager_.errorString()));
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(ready), limitMs);
}

void X11WindowManagerTest::cleanupTestCase()
{
    manager_.terminate();
    QVERIFY(manager_.waitForFinished(limitMs));
}

void X11WindowManagerTest::boundsAreRootCoordinates()
{
    WindowProcess window({.pixel = blue});
    QVERIFY2(window.id(), qPrintable(window.errorString()));
    WindowSource source(window.id());
    const auto placeSeen = [&] { return source.image().isNull() ? std::nullopt : source.bounds(); };
    const auto placeTold
        = [&] { return QRectF(windowInfo(window.id(), QStringLiteral("Absolute")), QSizeF(320, 240)); };
    QTRY_VERIFY(placeSeen() == placeTold());
    const QPoint inFrame = windowInfo(window.id(), QStringLiteral("Relative"));
    QVERIFY(inFrame.y() > 0 && inFrame.y() < placeSeen()->y()); // it has a frame, whose place is not the window's
    const auto before = placeSeen();
    QVERIFY(window.send("move 333 222"));
    QTRY_VERIFY(placeSeen() != before);
    QTRY_VERIFY(placeSeen() == placeTold());
    QVERIFY(isFilled(source.image(), blue)); // the frame is not part of the image
}

void X11WindowManagerTest::iconifiedWindowGivesNoImage()
{
    WindowProcess window({.pixel = blue});
    QVERIFY2(window.id(), qPrintable(window.errorString()));
    WindowSource source(window.id());
    QTRY_VERIFY(isFilled(source.image(), blue));
    QVERIFY(window.send("iconify"));
    QTRY_VERIFY(source.image().isNull());
    QCOMPARE(source.bounds(), std::nullopt);
    QVERIFY(window.send("map")); // how a client asks for its window back
    QTRY_VERIFY(isFilled(source.image(), blue));
    QVERIFY(window.send("fill ff00ff00 0 0 320 240"));
    QVERIFY(isFilled(source.image(), green));
}

void X11WindowManagerTest::framedWindowIsCapturedWhileCovered()
{
    WindowProcess window({.pixel = blue});
    QVERIFY2(window.id(), qPrintable(window.errorString()));
    WindowSource source(window.id());
    QVERIFY(window.send("cover ff0000"));
    QVERIFY(window.send("fill ff00ff00 0 0 320 240"));
    QVERIFY(isFilled(source.image(), green));
    QVERIFY(window.send("resize 500 400"));
    QTRY_COMPARE(source.image().size(), QSize(500, 400));
    QVERIFY(isFilled(source.image(), blue));
}

ORVANTIS_TEST(X11WindowManagerTest)
#include "x11windowmanager_test.moc"

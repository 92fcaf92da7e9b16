// A window that appears, disappears, changes its size and its parents, and is destroyed; and what a capture leaves.
#include "testregistry.h"
#include "x11fixture.h"

#include "logcapture.h"
#include "macwindowcapture.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <memory>

using WindowSource = SampledWindow;

namespace {

constexpr quint32 blue = 0xff2040c0;
constexpr quint32 green = 0xff00ff00;

/// Pages of a process in memory, the server's own and no shared segments.
qint64 ownMemoryBytes(qint64 pid)
{
    QFile file(QStringLiteral("/proc/%1/statm").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    const QList<QByteArray> fields = file.readAll().split(' ');
    return (fields.value(1).toLongLong() - fields.value(2).toLongLong()) * 4096;
}

int openDescriptors()
{
    return int(QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::NoDotAndDotDot | QDir::AllEntries).size());
}

int sharedMappings()
{
    QFile file(QStringLiteral("/proc/self/maps"));
    return file.open(QIODevice::ReadOnly) ? int(file.readAll().count("memfd:window pixels")) : -1;
}

}

class X11LifetimeTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void windowThatDoesNotExistGivesNoImage();
    void impossibleIdsGiveNoImage();
    void unmappedWindowGivesImagesAgainWhenMapped();
    void windowMappedLater();
    void unmappedAndMappedBetweenTwoImages();
    void resizedWhileCaptured();
    void resizedSmallerAndLarger();
    void reparentedWindowKeepsItsPlaceOnScreen();
    void unmappedParentGivesNoImage();
    void parentMappedAgainBetweenTwoImages();
    void destroyedWindowGivesNoImageForEver();
    void windowOfAKilledProcessGivesNoImage();
    void captureOfADestroyedWindowWarnsOnce();
    void twoSourcesOfOneWindow();
    void everythingIsGivenBack();
    void serverKeepsNoPixmaps();

private:
    std::unique_ptr<DisplayForTest> display_;
};

void X11LifetimeTest::initTestCase()
{
    display_ = std::make_unique<DisplayForTest>();
    QVERIFY2(display_->server.isRunning(), qPrintable(display_->server.errorString()));
}

void X11LifetimeTest::windowThatDoesNotExistGivesNoImage()
{
    WindowSource source(0x1ffffff0);
    QVERIFY(source.image().isNull());
    QCOMPARE(source.bounds(), std::nullopt);
    QVERIFY(source.image().isNull());
}

void X11LifetimeTest::impossibleIdsGiveNoImage()
{
    for (const quint32 id : {0u, 1u, 0xffffffffu}) {
        WindowSource source(id);
        QVERIFY(source.image().isNull());
    }
    QVERIFY(display_->server.isRunning());
}

void X11LifetimeTest::unmappedWindowGivesImagesAgainWhenMapped()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
    for (int i = 0; i < 3; ++i) {
        QVERIFY(window.send("unmap"));
        QVERIFY(source.image().isNull());
        QCOMPARE(source.bounds(), std::nullopt);
        QVERIFY(window.send("map"));
        QVERIFY(isFilled(source.image(), blue));
        QCOMPARE(source.bounds(), QRectF(100, 80, 320, 240));
    }
}

void X11LifetimeTest::windowMappedLater()
{
    WindowProcess window({.pixel = blue, .mapped = false});
    WindowSource source(window.id());
    QVERIFY(source.image().isNull());
    QVERIFY(window.send("map"));
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(window.send("fill ff00ff00 0 0 320 240"));
    QVERIFY(isFilled(source.image(), green));
}

void X11LifetimeTest::unmappedAndMappedBetweenTwoImages()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(window.send("fill ff00ff00 0 0 320 240"));
    QVERIFY(isFilled(source.image(), green));
    QVERIFY(window.send("unmap"));
    QVERIFY(window.send("map"));
    QVERIFY(isFilled(source.image(), blue)); // mapping brings the background back
}

void X11LifetimeTest::resizedWhileCaptured()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QByteArray commands;
    for (int i = 1; i <= 100; ++i)
        commands += "resize " + QByteArray::number(200 + 3 * i) + ' ' + QByteArray::number(500 - 2 * i) + '\n';
    int images = 0;
    while (images == 0) { // a busy machine may resize a hundred times before it comes to the first image
        window.post(commands);
        while (window.answersRead() < 100) {
            const QImage image = source.image();
            if (image.isNull())
                continue; // it changed three times in a row while it was read
            ++images;
            QVERIFY2(isFilled(image, blue), "pixels that are not the window's");
            QCOMPARE(source.bounds(), QRectF(QPointF(100, 80), QSizeF(image.size())));
        }
    }
    QCOMPARE(source.image().size(), QSize(500, 300));
    QVERIFY(isFilled(source.image(), blue));
}

void X11LifetimeTest::resizedSmallerAndLarger()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    for (const QSize size : {QSize(1500, 1000), QSize(10, 10), QSize(1501, 1001), QSize(1, 700), QSize(700, 1)}) {
        QVERIFY(window.send("resize " + QByteArray::number(size.width()) + ' ' + QByteArray::number(size.height())));
        const QImage image = source.image();
        QCOMPARE(image.size(), size);
        QVERIFY(isFilled(image, blue));
        QVERIFY(sharedMappings() <= 1);
    }
}

void X11LifetimeTest::reparentedWindowKeepsItsPlaceOnScreen()
{
    WindowProcess window({.pixel = blue, .overrideRedirect = true});
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(window.send("frame 200 300"));
    QVERIFY(isFilled(source.image(), blue));
    QCOMPARE(source.bounds(), QRectF(205, 320, 320, 240));
    QVERIFY(window.send("fill ff00ff00 0 0 320 240"));
    QVERIFY(isFilled(source.image(), green));
}

void X11LifetimeTest::unmappedParentGivesNoImage()
{
    WindowProcess window({.pixel = blue, .overrideRedirect = true});
    WindowSource source(window.id());
    QVERIFY(window.send("frame 200 300"));
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(window.send("unmapframe"));
    QVERIFY(source.image().isNull());
    QVERIFY(window.send("mapframe"));
    QVERIFY(isFilled(source.image(), blue));
}

void X11LifetimeTest::parentMappedAgainBetweenTwoImages()
{
    WindowProcess window({.pixel = blue, .overrideRedirect = true});
    WindowSource source(window.id());
    QVERIFY(window.send("frame 200 300"));
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(window.send("unmapframe"));
    QVERIFY(window.send("mapframe"));
    QVERIFY(window.send("fill ff00ff00 0 0 320 240"));
    QVERIFY(isFilled(source.image(), green)); // not the pixmap of the time before
}

void X11LifetimeTest::destroyedWindowGivesNoImageForEver()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(window.send("destroy"));
    for (int i = 0; i < 3; ++i) {
        QVERIFY(source.image().isNull());
        QCOMPARE(source.bounds(), std::nullopt);
        QCOMPARE(source.pointerLocation(), std::nullopt);
    }
}

void X11LifetimeTest::windowOfAKilledProcessGivesNoImage()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
    window.kill();
    QTRY_VERIFY(source.image().isNull());
    WindowProcess successor({.pixel = green}); // it may well get the same id
    QVERIFY(source.image().isNull());
}

void X11LifetimeTest::captureOfADestroyedWindowWarnsOnce()
{
    WindowProcess window({.pixel = blue});
    MacWindowCapture capture(QString::number(window.id()));
    QVERIFY(capture.isValid());
    LogCapture log;
    QVERIFY(isFilled(capture.capture(nullptr), blue));
    QVERIFY(window.send("destroy"));
    for (int i = 0; i < 20; ++i)
        QVERIFY(capture.capture(nullptr).isNull());
    const QString warning
        = QStringLiteral("macOS CoreGraphics capture returned no image for window %1").arg(window.id());
    QCOMPARE(log.messages(QtWarningMsg), QStringList(warning));
}

void X11LifetimeTest::twoSourcesOfOneWindow()
{
    WindowProcess window({.pixel = blue});
    WindowSource first(window.id());
    auto second = std::make_unique<WindowSource>(window.id());
    QVERIFY(isFilled(first.image(), blue));
    QVERIFY(isFilled(second->image(), blue));
    QVERIFY(window.send("background ff00ff00"));
    QVERIFY(isFilled(second->image(), green));
    second.reset();
    QVERIFY(window.send("cover ff0000")); // the first one's redirection has stayed
    QVERIFY(isFilled(first.image(), green));
}

void X11LifetimeTest::everythingIsGivenBack()
{
    WindowProcess window({.pixel = blue});
    QVERIFY(!WindowSource(window.id()).image().isNull()); // what libraries allocate once is allocated now
    const int descriptorsBefore = openDescriptors();
    for (int i = 0; i < 10; ++i) {
        WindowSource source(window.id());
        QVERIFY(!source.image().isNull());
        QCOMPARE(sharedMappings(), 1);
        QCOMPARE(openDescriptors(), descriptorsBefore + 3); // the connection; that of the memory is closed
        QVERIFY(platform::preflightScreenCaptureAccess());
        QVERIFY(platform::requestScreenCaptureAccess());
    }
    QCOMPARE(sharedMappings(), 0);
    QCOMPARE(openDescriptors(), descriptorsBefore);
}

void X11LifetimeTest::serverKeepsNoPixmaps()
{
    WindowProcess window({.geometry = QRect(0, 0, 1000, 1000), .pixel = blue});
    WindowSource source(window.id());
    QVERIFY(!source.image().isNull());
    const qint64 before = ownMemoryBytes(display_->server.pid());
    QVERIFY(before > 0);
    for (int i = 0; i < 60; ++i) {
        QVERIFY(window.send("resize 1000 " + QByteArray::number(1000 + i % 2)));
        QVERIFY(!source.image().isNull());
    }
    const qint64 grown = ownMemoryBytes(display_->server.pid()) - before;
    QVERIFY2(grown < 10 * 1000 * 1000 * 4, qPrintable(QString::number(grown))); // 60 pixmaps are 240 MB
}

ORVANTIS_TEST(X11LifetimeTest)
#include "x11lifetime_test.moc"

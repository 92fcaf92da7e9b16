// What an image of a window shows: the window whole, whatever lies over it, and nothing but the window.
#include "testregistry.h"
#include "x11fixture.h"

#include "logcapture.h"
#include "memorylimit.h"

#include <QTest>

#include <memory>

using WindowSource = SampledWindow;

namespace {

constexpr quint32 blue = 0x2040c0;
constexpr quint32 green = 0x00ff00;
constexpr quint32 red = 0xff0000;
constexpr quint32 opaque = 0xff000000;

}

class X11ImageTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void opaqueWindowIsRgb32WithFullTopBytes();
    void imageOwnsItsPixels();
    void coveredWindowHasItsOwnPixels();
    void partlyOffScreenWindowIsWhole();
    void borderIsCutOff();
    void childWindowsAreIncluded();
    void frameExtentsAreCutOff();
    void frameExtentsAreFollowed();
    void changedFrameExtentsAreLogged();
    void senselessFrameExtentsAreIgnored_data();
    void senselessFrameExtentsAreIgnored();
    void frameExtentsOfAnotherFormatAreIgnored();
    void alphaIsKeptPremultiplied();
    void windowOf4kIsWhole();
    void windowOfOnePixel();
    void windowTooLargeForAPixmapGivesNoImage();
    void otherDepthsBecomeRgb32_data();
    void otherDepthsBecomeRgb32();
    void conversionWithoutMemoryIsToldOfOnce();
    void paletteWindowGivesNoImage();

private:
    std::unique_ptr<DisplayForTest> display_;
};

void X11ImageTest::initTestCase()
{
    display_ = std::make_unique<DisplayForTest>();
    QVERIFY2(display_->server.isRunning(), qPrintable(display_->server.errorString()));
}

void X11ImageTest::opaqueWindowIsRgb32WithFullTopBytes()
{
    WindowProcess window({.pixel = 0x12204060}); // at depth 24 the top byte means nothing
    QVERIFY2(window.id(), qPrintable(window.errorString()));
    WindowSource source(window.id());
    QVERIFY(window.send("fill 34ff8040 10 20 30 40"));

    const QImage image = source.image();
    QCOMPARE(image.format(), QImage::Format_RGB32);
    QCOMPARE(image.size(), QSize(320, 240));
    QVERIFY(isFilled(image, QRect(10, 20, 30, 40), 0xffff8040));
    QVERIFY(isFilled(image, QRect(0, 60, 320, 180), 0xff204060));
    QCOMPARE(source.bounds(), QRectF(100, 80, 320, 240));
}

void X11ImageTest::imageOwnsItsPixels()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    const QImage before = source.image();
    QVERIFY(window.send("background 00ff00"));
    const QImage after = source.image();
    QVERIFY(isFilled(before, opaque | blue));
    QVERIFY(isFilled(after, opaque | green));
}

void X11ImageTest::coveredWindowHasItsOwnPixels()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(window.send("cover ff0000"));
    QVERIFY(window.send("fill 00ff00 0 0 320 100")); // drawn while covered
    const QImage image = source.image();
    QVERIFY(isFilled(image, QRect(0, 0, 320, 100), opaque | green));
    QVERIFY(isFilled(image, QRect(0, 100, 320, 140), opaque | blue));
}

void X11ImageTest::partlyOffScreenWindowIsWhole()
{
    WindowProcess window({.geometry = QRect(-100, 700, 320, 240), .pixel = blue});
    WindowSource source(window.id());
    QVERIFY(window.send("fill 00ff00 0 200 50 40")); // outside on the left and at the bottom
    const QImage image = source.image();
    QCOMPARE(image.size(), QSize(320, 240));
    QVERIFY(isFilled(image, QRect(0, 200, 50, 40), opaque | green));
    QVERIFY(isFilled(image, QRect(0, 0, 320, 200), opaque | blue));
    QCOMPARE(source.bounds(), QRectF(-100, 700, 320, 240));
}

void X11ImageTest::borderIsCutOff()
{
    WindowProcess window({.border = 7, .pixel = blue});
    WindowSource source(window.id());
    QImage image = source.image();
    QCOMPARE(image.size(), QSize(320, 240));
    QVERIFY(isFilled(image, opaque | blue));
    QCOMPARE(source.bounds(), QRectF(107, 87, 320, 240)); // X places the border's corner

    QVERIFY(window.send("border 20"));
    image = source.image();
    QVERIFY(isFilled(image, opaque | blue));
    QCOMPARE(image.size(), QSize(320, 240));
    QCOMPARE(source.bounds(), QRectF(120, 100, 320, 240));
}

void X11ImageTest::childWindowsAreIncluded()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(window.send("child 00ff00 40 50 60 70"));
    QVERIFY(window.send("fillchild ff0000 5 5 10 10"));
    const QImage image = source.image();
    QVERIFY(isFilled(image, QRect(45, 55, 10, 10), opaque | red));
    QVERIFY(isFilled(image, QRect(40, 65, 60, 55), opaque | green));
    QVERIFY(isFilled(image, QRect(0, 0, 40, 240), opaque | blue));
    QVERIFY(isFilled(image, QRect(100, 0, 220, 240), opaque | blue));
}

void X11ImageTest::frameExtentsAreCutOff()
{
    WindowProcess window({.border = 3, .pixel = red});
    WindowSource source(window.id());
    QVERIFY(window.send("extents 10 20 30 40")); // left, right, top, bottom
    QVERIFY(window.send("fill 00ff00 10 30 290 170"));
    const QImage image = source.image();
    QCOMPARE(image.size(), QSize(290, 170));
    QVERIFY(isFilled(image, opaque | green));
    QCOMPARE(source.bounds(), QRectF(100 + 3 + 10, 80 + 3 + 30, 290, 170));
}

void X11ImageTest::frameExtentsAreFollowed()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(window.send("extents 4 4 0 4"));
    QCOMPARE(source.image().size(), QSize(312, 236));
    QVERIFY(window.send("extents 0 0 10 0")); // as when a window is maximised
    QCOMPARE(source.image().size(), QSize(320, 230));
    QCOMPARE(source.bounds(), QRectF(100, 90, 320, 230));
    QVERIFY(window.send("noextents"));
    QCOMPARE(source.image().size(), QSize(320, 240));
    QCOMPARE(source.bounds(), QRectF(100, 80, 320, 240));
}

void X11ImageTest::changedFrameExtentsAreLogged()
{
    LogCapture log;
    WindowProcess window({.pixel = blue});
    QVERIFY(window.send("extents 4 4 0 4"));
    WindowSource source(window.id());
    QVERIFY(!source.image().isNull());
    QCOMPARE(log.messages(QtWarningMsg), QStringList()); // it was so from the beginning
    QVERIFY(window.send("extents 100 0 0 0"));
    QVERIFY(!source.image().isNull());
    QVERIFY(window.send("extents 0 0 0 0"));
    QVERIFY(!source.image().isNull());
    QCOMPARE(log.messages(QtWarningMsg).size(), 1);
}

void X11ImageTest::senselessFrameExtentsAreIgnored_data()
{
    QTest::addColumn<QByteArray>("command");
    QTest::newRow("nothing left of the width") << QByteArray("extents 160 160 0 0");
    QTest::newRow("all but one pixel") << QByteArray("extents 159 160 119 120");
    QTest::newRow("broader than shadows are") << QByteArray("extents 129 0 0 0");
    QTest::newRow("nothing left of the height") << QByteArray("extents 0 0 0 240");
    QTest::newRow("larger than the window") << QByteArray("extents 1000 0 0 0");
    QTest::newRow("sum overflows 32 bits") << QByteArray("extents 4294967295 2 0 0");
    QTest::newRow("negative as unsigned") << QByteArray("extents 0 0 4294967295 0");
    QTest::newRow("too few") << QByteArray("extents 10 10 10");
    QTest::newRow("too many") << QByteArray("extents 10 10 10 10 10");
}

void X11ImageTest::senselessFrameExtentsAreIgnored()
{
    QFETCH(QByteArray, command);
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY2(window.send(command), qPrintable(window.errorString()));
    QVERIFY(isFilled(source.image(), opaque | blue));
    QCOMPARE(source.bounds(), QRectF(100, 80, 320, 240));
}

void X11ImageTest::frameExtentsOfAnotherFormatAreIgnored()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(window.send("extents8 10 10 10 10"));
    QCOMPARE(source.image().size(), QSize(320, 240));
}

void X11ImageTest::alphaIsKeptPremultiplied()
{
    WindowProcess window({.depth = 32, .pixel = 0x80402010});
    WindowSource source(window.id());
    QVERIFY(window.send("fill 0 0 0 100 240"));
    QVERIFY(window.send("fill ff00ff00 100 0 100 240"));
    const QImage image = source.image();
    QCOMPARE(image.format(), QImage::Format_ARGB32_Premultiplied);
    QVERIFY(isFilled(image, QRect(0, 0, 100, 240), 0));
    QVERIFY(isFilled(image, QRect(100, 0, 100, 240), 0xff00ff00));
    QVERIFY(isFilled(image, QRect(200, 0, 120, 240), 0x80402010));
}

void X11ImageTest::windowOf4kIsWhole()
{
    WindowProcess window({.geometry = QRect(0, 0, 3840, 2160), .pixel = blue});
    WindowSource source(window.id());
    QVERIFY(window.send("fill 00ff00 3800 2100 40 60"));
    const QImage image = source.image();
    QCOMPARE(image.size(), QSize(3840, 2160));
    QVERIFY(isFilled(image, QRect(3800, 2100, 40, 60), opaque | green));
    QVERIFY(isFilled(image, QRect(0, 0, 3840, 2100), opaque | blue));
    QVERIFY(isFilled(image, QRect(0, 2100, 3800, 60), opaque | blue));
}

void X11ImageTest::windowOfOnePixel()
{
    WindowProcess window({.geometry = QRect(5, 6, 1, 1), .pixel = green});
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), QRect(0, 0, 1, 1), opaque | green));
    QCOMPARE(source.image().size(), QSize(1, 1));
}

void X11ImageTest::windowTooLargeForAPixmapGivesNoImage()
{
    WindowProcess window({.geometry = QRect(0, 0, 60000, 2), .pixel = green, .mapped = false});
    WindowSource source(window.id());
    window.send("map"); // the server may refuse to map what it cannot redirect
    QVERIFY(source.image().isNull());
    QCOMPARE(source.bounds(), std::nullopt);
    QVERIFY(display_->server.isRunning());
}

void X11ImageTest::otherDepthsBecomeRgb32_data()
{
    QTest::addColumn<int>("depth");
    QTest::addColumn<quint32>("pixel"); // of that depth
    QTest::addColumn<quint32>("expected");
    QTest::newRow("16 red") << 16 << 0xf800u << 0xffff0000u;
    QTest::newRow("16 green") << 16 << 0x07e0u << 0xff00ff00u;
    QTest::newRow("16 blue") << 16 << 0x001fu << 0xff0000ffu;
    QTest::newRow("30 red") << 30 << 0x3ff00000u << 0xffff0000u;
    QTest::newRow("30 green") << 30 << 0x000ffc00u << 0xff00ff00u;
    QTest::newRow("30 half blue") << 30 << 0x00000200u << 0xff000080u;
}

void X11ImageTest::otherDepthsBecomeRgb32()
{
    QFETCH(int, depth);
    QFETCH(quint32, pixel);
    QFETCH(quint32, expected);
    DisplayForTest display(QSize(640, 480), depth);
    QVERIFY2(display.server.isRunning(), qPrintable(display.server.errorString()));
    // An odd width: rows of 16-bit pixels are then padded.
    WindowProcess window({.geometry = QRect(10, 10, 101, 50), .depth = depth});
    QVERIFY2(window.id(), qPrintable(window.errorString()));
    WindowSource source(window.id());
    QVERIFY(window.send("fill " + QByteArray::number(pixel, 16) + " 0 0 101 50"));
    const QImage image = source.image();
    QCOMPARE(image.format(), QImage::Format_RGB32);
    QCOMPARE(image.size(), QSize(101, 50));
    QVERIFY2(isFilled(image, expected), qPrintable(QString::number(image.pixel(0, 0), 16)));
    qputenv("DISPLAY", display_->server.display());
}

/// Pixels that are not taken as they are.
void X11ImageTest::conversionWithoutMemoryIsToldOfOnce()
{
    constexpr int side = 3000; // 34 MiB in 32 bits a pixel
    DisplayForTest display(QSize(640, 480), 16);
    QVERIFY2(display.server.isRunning(), qPrintable(display.server.errorString()));
    WindowProcess window({.geometry = QRect(0, 0, side, side), .depth = 16, .pixel = 0xf800});
    QVERIFY2(window.id(), qPrintable(window.errorString()));
    const LogCapture log;
    WindowSource source(window.id());
    {
        const MemoryLimit limit(rlim_t(8) << 20);
        for (int i = 0; i < 2; ++i) {
            QVERIFY(source.image().isNull());
            QVERIFY(source.sample().unusable);
        }
    }
    const auto line = QStringLiteral("No memory for the image of a window; the frame is left out. Told once.");
    QCOMPARE(log.messages(QtWarningMsg).count(line), 1); // beside Qt's own
    QVERIFY(isFilled(source.image(), 0xffff0000));
    qputenv("DISPLAY", display_->server.display());
}

void X11ImageTest::paletteWindowGivesNoImage()
{
    DisplayForTest display(QSize(640, 480), 8);
    QVERIFY2(display.server.isRunning(), qPrintable(display.server.errorString()));
    WindowProcess window({.depth = 8});
    QVERIFY2(window.id(), qPrintable(window.errorString()));
    WindowSource source(window.id());
    QVERIFY(source.image().isNull());
    QVERIFY(window.send("move 5 5")); // it does exist
    qputenv("DISPLAY", display_->server.display());
}

ORVANTIS_TEST(X11ImageTest)
#include "x11image_test.moc"

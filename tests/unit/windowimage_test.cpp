// Window images: the one-time warning, bounds, formats, shared pixels, the pointer.
#include "macwindowcapture.h"
#include "testregistry.h"

#include "fakeplatform.h"
#include "logcapture.h"

#include <QSemaphore>
#include <QTest>

#include <memory>
#include <stdexcept>

namespace {

/// What comes in place of an image.
enum class Gap { NoImage, Exception, LateAnswer };

}

class WindowImageTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { fakeplatform::reset(); }

    void vanishedWindowIsWarnedOfOnce();
    void eachCaptureWarnsForItself();
    void noImageLeavesTheBoundsAlone();
    void imageWithoutSizeIsNoImage();
    void unusableImageIsNotWarnedOf();

    void boundsAreRounded_data();
    void boundsAreRounded();
    void unknownBoundsBecomeTheImageRectangle_data();
    void unknownBoundsBecomeTheImageRectangle();
    void boundsAreNotAskedForWithoutAPlaceForThem();

    void opaqueImageSharesItsPixels();
    void opaqueImageOutlivesItsSource();
    void translucentImageGetsStraightAlpha();
    void onePixelDecidesWhetherAnImageIsOpaque_data();
    void onePixelDecidesWhetherAnImageIsOpaque();
    void opaquenessIsThatOfTheLastImage();
    void unchangedImageIsSharedNotConverted_data();
    void unchangedImageIsSharedNotConverted();
    void changedImageIsTakenAnew();
    void imageAfterAGapIsTakenAnew_data();
    void imageAfterAGapIsTakenAnew();
    void versionKeepsItsRows();

    void pointerLocation();
};

void WindowImageTest::vanishedWindowIsWarnedOfOnce()
{
    fakeplatform::state().image
        = [](int index) { return index == 5 ? fakeplatform::solidImage(4, 4, qRgb(1, 2, 3)) : QImage(); };
    const MacWindowCapture capture(QStringLiteral("42"));
    const LogCapture log;
    for (int i = 0; i < 10; ++i)
        QCOMPARE(capture.capture(nullptr).isNull(), i != 5);
    const QString warning = QStringLiteral("macOS CoreGraphics capture returned no image for window 42");
    QCOMPARE(log.messages(), QStringList{warning});
    QCOMPARE(log.messages(QtWarningMsg), QStringList{warning});
}

void WindowImageTest::eachCaptureWarnsForItself()
{
    const MacWindowCapture first(QStringLiteral("1"));
    const MacWindowCapture second(QStringLiteral("2"));
    const LogCapture log;
    for (int i = 0; i < 2; ++i) {
        QVERIFY(first.capture(nullptr).isNull());
        QVERIFY(second.capture(nullptr).isNull());
    }
    QCOMPARE(log.messages(),
        (QStringList{QStringLiteral("macOS CoreGraphics capture returned no image for window 1"),
            QStringLiteral("macOS CoreGraphics capture returned no image for window 2")}));
}

void WindowImageTest::noImageLeavesTheBoundsAlone()
{
    fakeplatform::state().bounds = [] { return QRectF(7, 7, 7, 7); };
    const MacWindowCapture capture(QStringLiteral("42"));
    const LogCapture log;
    QRect bounds(1, 2, 3, 4);
    QVERIFY(capture.capture(&bounds).isNull());
    QCOMPARE(bounds, QRect(1, 2, 3, 4));
}

void WindowImageTest::imageWithoutSizeIsNoImage()
{
    fakeplatform::state().image = [](int index) {
        return index == 0 ? QImage(0, 8, QImage::Format_RGB32) : QImage(8, 0, QImage::Format_RGB32);
    };
    const MacWindowCapture capture(QStringLiteral("42"));
    const LogCapture log;
    QRect bounds(1, 2, 3, 4);
    QVERIFY(capture.capture(&bounds).isNull());
    QVERIFY(capture.capture(&bounds).isNull());
    QCOMPARE(bounds, QRect(1, 2, 3, 4));
}

void WindowImageTest::unusableImageIsNotWarnedOf()
{
    fakeplatform::state().image = [](int index) {
        fakeplatform::state().imageWasUnusable = index != 2;
        return QImage();
    };
    const MacWindowCapture capture(QStringLiteral("42"));
    const LogCapture log;
    QRect bounds(1, 2, 3, 4);
    for (int i = 0; i < 2; ++i)
        QVERIFY(capture.capture(&bounds).isNull());
    QCOMPARE(log.messages(), QStringList());
    // It is not the one warning that there is: a window that closes later still gets that.
    for (int i = 0; i < 4; ++i)
        QVERIFY(capture.capture(&bounds).isNull());
    QCOMPARE(
        log.messages(), QStringList{QStringLiteral("macOS CoreGraphics capture returned no image for window 42")});
    QCOMPARE(bounds, QRect(1, 2, 3, 4));
}

void WindowImageTest::boundsAreRounded_data()
{
    QTest::addColumn<QRectF>("rect");
    QTest::addColumn<QRect>("expected");
    QTest::newRow("whole") << QRectF(100, 50, 640, 480) << QRect(100, 50, 640, 480);
    QTest::newRow("x -0.5, width 99.5") << QRectF(-0.5, 10, 99.5, 20) << QRect(-1, 10, 100, 20);
    QTest::newRow("x 0.5, height 99.5") << QRectF(0.5, 10, 20, 99.5) << QRect(1, 10, 20, 100);
    QTest::newRow("another display") << QRectF(-1280.4, -720.6, 300.2, 200.7) << QRect(-1280, -721, 300, 201);
}

void WindowImageTest::boundsAreRounded()
{
    QFETCH(QRectF, rect);
    fakeplatform::state().image = [](int) { return fakeplatform::solidImage(8, 6, qRgb(1, 2, 3)); };
    fakeplatform::state().bounds = [rect] { return rect; };
    const MacWindowCapture capture(QStringLiteral("42"));
    QRect bounds;
    QVERIFY(!capture.capture(&bounds).isNull());
    QTEST(bounds, "expected");
}

void WindowImageTest::unknownBoundsBecomeTheImageRectangle_data()
{
    QTest::addColumn<bool>("known");
    QTest::addColumn<QRectF>("rect");
    QTest::newRow("none told") << false << QRectF();
    QTest::newRow("empty") << true << QRectF(30, 40, 0, 0);
    QTest::newRow("width rounds to nothing") << true << QRectF(30, 40, 0.4, 100);
    QTest::newRow("negative height") << true << QRectF(30, 40, 100, -1);
    QTest::newRow("the null rectangle of the system") << true << QRectF(qInf(), qInf(), 0, 0);
    QTest::newRow("not a number") << true << QRectF(qQNaN(), qQNaN(), qQNaN(), qQNaN());
}

void WindowImageTest::unknownBoundsBecomeTheImageRectangle()
{
    QFETCH(bool, known);
    QFETCH(QRectF, rect);
    fakeplatform::state().image = [](int) { return fakeplatform::solidImage(8, 6, qRgb(1, 2, 3)); };
    fakeplatform::state().bounds = [known, rect] { return known ? std::optional(rect) : std::nullopt; };
    const MacWindowCapture capture(QStringLiteral("42"));
    const LogCapture log;
    QRect bounds(1, 2, 3, 4);
    QCOMPARE(capture.capture(&bounds).size(), QSize(8, 6));
    QCOMPARE(bounds, QRect(0, 0, 8, 6));
    QCOMPARE(log.messages(), QStringList());
}

void WindowImageTest::boundsAreNotAskedForWithoutAPlaceForThem()
{
    int asked = 0;
    fakeplatform::state().image = [](int) { return fakeplatform::solidImage(8, 6, qRgb(1, 2, 3)); };
    fakeplatform::state().bounds = [&asked] { return ++asked, QRectF(0, 0, 8, 6); };
    const MacWindowCapture capture(QStringLiteral("42"));
    QVERIFY(!capture.capture(nullptr).isNull());
    QCOMPARE(asked, 0);
    QRect bounds;
    QVERIFY(!capture.capture(&bounds).isNull());
    QCOMPARE(asked, 1);
}

void WindowImageTest::opaqueImageSharesItsPixels()
{
    const QImage source = fakeplatform::solidImage(8, 6, qRgb(10, 200, 30));
    fakeplatform::state().image = [source](int) { return source; };
    const MacWindowCapture capture(QStringLiteral("42"));
    const QImage image = capture.capture(nullptr);
    QCOMPARE(image.format(), QImage::Format_ARGB32);
    QCOMPARE(image.size(), QSize(8, 6));
    QCOMPARE(image.pixel(7, 5), qRgba(10, 200, 30, 255));
    QCOMPARE(image.constBits(), source.constBits());
}

void WindowImageTest::opaqueImageOutlivesItsSource()
{
    QImage image;
    {
        QImage source = fakeplatform::solidImage(8, 6, qRgb(10, 200, 30));
        fakeplatform::state().image = [&source](int) { return source; };
        const MacWindowCapture capture(QStringLiteral("42"));
        image = capture.capture(nullptr);
        source.fill(Qt::red); // the source takes new pixels; the image keeps the old ones
    }
    fakeplatform::reset();
    QCOMPARE(image, QImage(fakeplatform::solidImage(8, 6, qRgb(10, 200, 30))).convertToFormat(image.format()));
    image.setPixel(0, 0, qRgba(1, 2, 3, 4)); // and may be written to
    QCOMPARE(image.pixel(0, 0), qRgba(1, 2, 3, 4));
}

void WindowImageTest::translucentImageGetsStraightAlpha()
{
    QImage source(3, 1, QImage::Format_ARGB32_Premultiplied);
    source.setPixel(0, 0, qRgba(0, 0, 0, 0));
    source.setPixel(1, 0, qRgba(255, 0, 0, 255));
    reinterpret_cast<QRgb*>(source.scanLine(0))[2] = qRgba(100, 50, 0, 100); // half-way green under full red
    fakeplatform::state().image = [source](int) { return source; };
    const MacWindowCapture capture(QStringLiteral("42"));
    const QImage image = capture.capture(nullptr);
    QCOMPARE(image.format(), QImage::Format_ARGB32);
    const auto* pixels = reinterpret_cast<const QRgb*>(image.constScanLine(0));
    QCOMPARE(pixels[0], qRgba(0, 0, 0, 0));
    QCOMPARE(pixels[1], qRgba(255, 0, 0, 255));
    QCOMPARE(qAlpha(pixels[2]), 100);
    QCOMPARE(qRed(pixels[2]), 255);
    QVERIFY(qAbs(qGreen(pixels[2]) - 128) <= 1);
    QCOMPARE(qBlue(pixels[2]), 0);
}

void WindowImageTest::onePixelDecidesWhetherAnImageIsOpaque_data()
{
    QTest::addColumn<QPoint>("pixel");
    QTest::addColumn<int>("alpha");
    QTest::newRow("none") << QPoint(0, 0) << 255;
    QTest::newRow("the first") << QPoint(0, 0) << 0;
    QTest::newRow("one in the middle") << QPoint(17, 5) << 254;
    QTest::newRow("the last") << QPoint(32, 8) << 127;
}

void WindowImageTest::onePixelDecidesWhetherAnImageIsOpaque()
{
    QFETCH(const QPoint, pixel);
    QFETCH(const int, alpha);
    QImage source(33, 9, QImage::Format_ARGB32_Premultiplied);
    source.fill(qRgb(10, 20, 30));
    reinterpret_cast<QRgb*>(source.scanLine(pixel.y()))[pixel.x()] = qRgba(alpha / 2, 0, 0, alpha);
    fakeplatform::state().image = [source](int) { return source; };
    const MacWindowCapture capture(QStringLiteral("42"));
    const QImage image = capture.capture(nullptr);
    QCOMPARE(capture.captureWindow().opaque, alpha == 255);
    QCOMPARE(image.format(), QImage::Format_ARGB32);
    QCOMPARE(image, source.convertToFormat(QImage::Format_ARGB32));
    QCOMPARE(image.constBits() == source.constBits(), alpha == 255); // the same bytes need no conversion
}

void WindowImageTest::opaquenessIsThatOfTheLastImage()
{
    QImage translucent(4, 4, QImage::Format_ARGB32_Premultiplied);
    translucent.fill(Qt::transparent);
    fakeplatform::state().image = [translucent](int index) {
        return index % 2 == 0 ? fakeplatform::solidImage(4, 4, qRgb(1, 2, 3)) : translucent;
    };
    const MacWindowCapture capture(QStringLiteral("42"));
    for (int i = 0; i < 4; ++i) {
        const CapturedWindow captured = capture.captureWindow();
        QVERIFY(!captured.image.isNull());
        QCOMPARE(captured.opaque, i % 2 == 0);
    }
}

void WindowImageTest::unchangedImageIsSharedNotConverted_data()
{
    QTest::addColumn<QImage::Format>("format");
    QTest::newRow("opaque") << QImage::Format_RGB32;
    QTest::newRow("translucent") << QImage::Format_ARGB32_Premultiplied;
}

void WindowImageTest::unchangedImageIsSharedNotConverted()
{
    QFETCH(QImage::Format, format);
    QImage source = fakeplatform::solidImage(8, 6, qRgb(9, 8, 7)).convertToFormat(format);
    if (source.hasAlphaChannel())
        source.setPixel(0, 0, 0);
    fakeplatform::state().image = [source](int) { return source; };
    const MacWindowCapture capture(QStringLiteral("42"));
    const QImage first = capture.capture(nullptr);
    const QImage second = capture.capture(nullptr);
    QCOMPARE(second.constBits(), first.constBits());
    QCOMPARE(second.cacheKey(), first.cacheKey());
    QCOMPARE(second.pixel(3, 3), qRgba(9, 8, 7, 255));
}

void WindowImageTest::changedImageIsTakenAnew()
{
    QImage source = fakeplatform::solidImage(8, 6, qRgb(0, 0, 0));
    fakeplatform::state().image = [&source](int index) {
        source.fill(qRgb(index, 0, 0)); // the same object, other pixels
        return source;
    };
    const MacWindowCapture capture(QStringLiteral("42"));
    QList<QImage> images;
    for (int i = 0; i < 3; ++i)
        images.append(capture.capture(nullptr));
    for (int i = 0; i < 3; ++i)
        QCOMPARE(images[i].pixel(0, 0), qRgba(i, 0, 0, 255));
}

void WindowImageTest::imageAfterAGapIsTakenAnew_data()
{
    QTest::addColumn<Gap>("gap");
    QTest::addColumn<bool>("opaque");
    QTest::newRow("no image") << Gap::NoImage << true;
    QTest::newRow("no image of a translucent window") << Gap::NoImage << false;
    QTest::newRow("an exception") << Gap::Exception << true;
    QTest::newRow("an answer that comes late") << Gap::LateAnswer << true;
}

/// A row changes in what is lost, and the source does not name it again.
void WindowImageTest::imageAfterAGapIsTakenAnew()
{
    QFETCH(const Gap, gap);
    QFETCH(const bool, opaque);
    QImage before = fakeplatform::solidImage(8, 6, qRgb(9, 8, 7));
    if (!opaque) {
        before.convertTo(QImage::Format_ARGB32_Premultiplied);
        before.setPixel(0, 0, 0);
    }
    QImage after = before;
    after.setPixel(3, 4, qRgb(1, 2, 3));
    const auto isLate = std::make_shared<QSemaphore>(); // the answer may end after the test
    fakeplatform::state().image = [gap, before, after, isLate](int index) {
        if (index != 1)
            return index == 0 ? before : after;
        if (gap == Gap::Exception)
            throw std::runtime_error("no image");
        if (gap == Gap::LateAnswer)
            isLate->acquire();
        return gap == Gap::NoImage ? QImage() : after;
    };
    fakeplatform::state().changedRows = [](int index) {
        return index == 0 ? RowSet(0, 6) : index == 1 ? RowSet(4, 5) : RowSet();
    };
    const MacWindowCapture capture(QStringLiteral("42"));
    const LogCapture log;
    const CapturedWindow first = capture.captureWindow();
    QCOMPARE(first.image.pixel(3, 4), qRgb(9, 8, 7));
    if (gap == Gap::Exception)
        QVERIFY_THROWS_EXCEPTION(std::runtime_error, capture.captureWindow());
    else
        QVERIFY(capture.captureWindow().image.isNull());
    isLate->release();
    CapturedWindow next;
    while (next.image.isNull())
        next = capture.captureWindow();
    QCOMPARE(next.image.pixel(3, 4), qRgb(1, 2, 3));
    QCOMPARE(next.changedRows, RowSet(0, 6));
    QCOMPARE(next.version, first.version + 1);
}

/// The frame that had the change first may have been dropped.
void WindowImageTest::versionKeepsItsRows()
{
    QImage source = fakeplatform::solidImage(8, 6, qRgb(0, 0, 0));
    fakeplatform::state().image = [&source](int index) {
        if (index == 1)
            source.setPixel(3, 4, qRgb(1, 2, 3));
        return source;
    };
    fakeplatform::state().changedRows = [](int index) {
        return index == 0 ? RowSet(0, 6) : index == 1 ? RowSet(4, 5) : RowSet();
    };
    const MacWindowCapture capture(QStringLiteral("42"));
    const qint64 first = capture.captureWindow().version;
    for (int i = 0; i < 3; ++i) {
        const CapturedWindow captured = capture.captureWindow();
        QCOMPARE(captured.version, first + 1);
        QCOMPARE(captured.changedRows, RowSet(4, 5));
        QVERIFY(captured.ownBytes > 0);
    }
}

void WindowImageTest::pointerLocation()
{
    fakeplatform::state().image = [](int) { return fakeplatform::solidImage(8, 6, qRgb(1, 2, 3)); };
    fakeplatform::state().pointer = [] { return QPointF(-3.5, 1200.25); };
    const MacWindowCapture capture(QStringLiteral("42"));
    QCOMPARE(capture.captureWindow().pointer, std::optional(QPointF(-3.5, 1200.25)));
    fakeplatform::state().pointer = nullptr;
    QVERIFY(!capture.captureWindow().pointer);
}

ORVANTIS_TEST(WindowImageTest)
#include "windowimage_test.moc"

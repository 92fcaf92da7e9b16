// Canvas sizes, letterboxing and the mapping of screen points.
#include "framegeometry.h"
#include "testregistry.h"

#include <QTest>

#include <limits>

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();

}

class FrameGeometryTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void canvasSize_data();
    void canvasSize();
    void letterbox_data();
    void letterbox();
    void scaleIsCanvasPixelsPerImagePixel();
    void screenPointInImagePixels();
    void edgesCountAsInside_data();
    void edgesCountAsInside();
    void farEdgeIsInsideForEverySize();
    void unknownBoundsOrNoImageMeanNoPoint_data();
    void unknownBoundsOrNoImageMeanNoPoint();
    void pointThatIsNoNumberIsOutside();
    void boundsAsWideAsIntDoNotOverflow();
    void fractionsOfTheWindow();
    void imagePixelsOnTheCanvas();
    void rowsOfTheHighestImage();
};

void FrameGeometryTest::canvasSize_data()
{
    QTest::addColumn<double>("requested");
    QTest::addColumn<int>("expected");
    QTest::newRow("0") << 0.0 << 16;
    QTest::newRow("1919.5") << 1919.5 << 1920;
    QTest::newRow("1920.5") << 1920.5 << 1922;
    QTest::newRow("1279.4") << 1279.4 << 1280;
    QTest::newRow("1280") << 1280.0 << 1280;
    QTest::newRow("1921") << 1921.0 << 1922;
    QTest::newRow("7") << 7.0 << 16;
    QTest::newRow("16") << 16.0 << 16;
    QTest::newRow("16.5") << 16.5 << 18;
    QTest::newRow("17") << 17.0 << 18;
    QTest::newRow("negative") << -1280.0 << 16;
    QTest::newRow("1e308") << 1e308 << 2147483646;
    QTest::newRow("-1e308") << -1e308 << 16;
    QTest::newRow("infinity") << infinity << 2147483646;
    QTest::newRow("not a number") << notANumber << 16;
    QTest::newRow("the largest int, which is odd") << 2147483647.0 << 2147483646;
}

void FrameGeometryTest::canvasSize()
{
    QFETCH(double, requested);
    QTEST(normalizedCanvasSize(requested), "expected");
}

void FrameGeometryTest::letterbox_data()
{
    QTest::addColumn<QSize>("image");
    QTest::addColumn<QSize>("canvas");
    QTest::addColumn<QRectF>("target");
    QTest::newRow("wider than the canvas") << QSize(1000, 500) << QSize(1920, 1080) << QRectF(0, 60, 1920, 960);
    QTest::newRow("narrower than the canvas") << QSize(640, 480) << QSize(1920, 1080) << QRectF(240, 0, 1440, 1080);
    QTest::newRow("same size") << QSize(1920, 1080) << QSize(1920, 1080) << QRectF(0, 0, 1920, 1080);
    QTest::newRow("spare column goes right") << QSize(1920, 1080) << QSize(1921, 1080) << QRectF(0, 0, 1920, 1080);
    QTest::newRow("spare row goes below") << QSize(1920, 1080) << QSize(1920, 1081) << QRectF(0, 0, 1920, 1080);
    QTest::newRow("five spare columns") << QSize(100, 100) << QSize(105, 100) << QRectF(2, 0, 100, 100);
    QTest::newRow("shrunk") << QSize(3840, 2160) << QSize(1280, 720) << QRectF(0, 0, 1280, 720);
    QTest::newRow("one pixel") << QSize(1, 1) << QSize(64, 32) << QRectF(16, 0, 32, 32);
    QTest::newRow("flat") << QSize(1000, 1) << QSize(100, 100) << QRectF(0, 50, 100, 0);
}

void FrameGeometryTest::letterbox()
{
    QFETCH(QSize, image);
    QFETCH(QSize, canvas);
    const FrameGeometry geometry(image, QRect(QPoint(0, 0), image), canvas);
    QTEST(geometry.target(), "target");
}

void FrameGeometryTest::scaleIsCanvasPixelsPerImagePixel()
{
    const FrameGeometry enlarged(QSize(640, 480), QRect(), QSize(1920, 1080));
    QCOMPARE(enlarged.scaleX(), 2.25);
    QCOMPARE(enlarged.scaleY(), 2.25);
    const FrameGeometry uneven(QSize(3, 1000), QRect(), QSize(100, 100)); // 0.3 pixels wide is drawn as 0
    QCOMPARE(uneven.scaleX(), 0.0);
    QCOMPARE(uneven.scaleY(), 0.1);
    const FrameGeometry nothing(QSize(0, 0), QRect(), QSize(100, 100));
    QCOMPARE(nothing.scaleX(), 0.0);
    QCOMPARE(nothing.scaleY(), 0.0);
}

void FrameGeometryTest::screenPointInImagePixels()
{
    // A window of 100 x 50 points at (-20, 30), two pixels to the point.
    const FrameGeometry geometry(QSize(200, 100), QRect(-20, 30, 100, 50), QSize(400, 400));
    QCOMPARE(geometry.insideImage(-20, 30), std::optional(QPointF(0, 0)));
    QCOMPARE(geometry.insideImage(30, 42.5), std::optional(QPointF(100, 25)));
}

void FrameGeometryTest::edgesCountAsInside_data()
{
    QTest::addColumn<QPointF>("point");
    QTest::addColumn<bool>("inside");
    QTest::newRow("top left corner") << QPointF(10, 20) << true;
    QTest::newRow("bottom right corner") << QPointF(110, 70) << true;
    QTest::newRow("left of it") << QPointF(9.99, 40) << false;
    QTest::newRow("above it") << QPointF(40, 19.99) << false;
    QTest::newRow("right of it") << QPointF(110.01, 40) << false;
    QTest::newRow("below it") << QPointF(40, 70.01) << false;
    QTest::newRow("one point right of the edge") << QPointF(111, 40) << false;
}

void FrameGeometryTest::edgesCountAsInside()
{
    QFETCH(QPointF, point);
    const FrameGeometry geometry(QSize(200, 100), QRect(10, 20, 100, 50), QSize(400, 400));
    QTEST(geometry.insideImage(point.x(), point.y()).has_value(), "inside");
}

void FrameGeometryTest::farEdgeIsInsideForEverySize()
{
    for (int points = 1; points < 1000; ++points) {
        for (const int pixels : {1, 3, 97, 805, points, points + 1, points * 5 / 4, points * 3 / 2, points * 2}) {
            const FrameGeometry geometry(QSize(pixels, pixels), QRect(7, 7, points, points), QSize(64, 64));
            const auto corner = geometry.insideImage(7 + points, 7 + points);
            QVERIFY2(corner, qPrintable(QStringLiteral("%1 pixels for %2 points").arg(pixels).arg(points)));
            QCOMPARE(*corner, QPointF(pixels, pixels));
        }
    }
}

void FrameGeometryTest::unknownBoundsOrNoImageMeanNoPoint_data()
{
    QTest::addColumn<QSize>("image");
    QTest::addColumn<QRect>("bounds");
    QTest::newRow("invalid bounds") << QSize(100, 100) << QRect();
    QTest::newRow("no width of bounds") << QSize(100, 100) << QRect(0, 0, 0, 100);
    QTest::newRow("no height of bounds") << QSize(100, 100) << QRect(0, 0, 100, 0);
    QTest::newRow("image without width") << QSize(0, 100) << QRect(0, 0, 100, 100);
    QTest::newRow("image without height") << QSize(100, 0) << QRect(0, 0, 100, 100);
}

void FrameGeometryTest::unknownBoundsOrNoImageMeanNoPoint()
{
    QFETCH(QSize, image);
    QFETCH(QRect, bounds);
    const FrameGeometry geometry(image, bounds, QSize(64, 64));
    QVERIFY(!geometry.insideImage(0, 0));
}

void FrameGeometryTest::pointThatIsNoNumberIsOutside()
{
    const FrameGeometry geometry(QSize(100, 100), QRect(0, 0, 100, 100), QSize(64, 64));
    QVERIFY(!geometry.insideImage(notANumber, 50));
    QVERIFY(!geometry.insideImage(50, notANumber));
    QVERIFY(!geometry.insideImage(infinity, 50));
    QVERIFY(!geometry.insideImage(50, -infinity));
    QVERIFY(!geometry.insideImage(1e308, 50));
}

void FrameGeometryTest::boundsAsWideAsIntDoNotOverflow()
{
    const QRect widest(QPoint(std::numeric_limits<int>::min(), 0), QPoint(std::numeric_limits<int>::max(), 9));
    const FrameGeometry geometry(QSize(4096, 10), widest, QSize(64, 64));
    QCOMPARE(geometry.insideImage(0, 5), std::optional(QPointF(2048, 5)));
}

void FrameGeometryTest::fractionsOfTheWindow()
{
    const FrameGeometry geometry(QSize(200, 100), QRect(), QSize(64, 64));
    QCOMPARE(geometry.normalizedToImage(0.5, 0.25), QPointF(100, 25));
    QCOMPARE(geometry.normalizedToImage(1.0, 1.0), QPointF(200, 100));
}

void FrameGeometryTest::imagePixelsOnTheCanvas()
{
    const FrameGeometry geometry(QSize(1000, 500), QRect(), QSize(1920, 1080));
    QCOMPARE(geometry.toCanvas(QPointF(0, 0)), QPointF(0, 60));
    QCOMPARE(geometry.toCanvas(QPointF(500, 250)), QPointF(960, 540));
    QCOMPARE(geometry.toCanvas(QPointF(1000, 500)), QPointF(1920, 1020));
}

void FrameGeometryTest::rowsOfTheHighestImage()
{
    constexpr int highest = std::numeric_limits<int>::max();
    const FrameGeometry geometry(QSize(16, highest), QRect(), QSize(64, 64));
    QCOMPARE(geometry.toCanvas(RowSet(0, highest)), RowSet(0, 64));
}

ORVANTIS_TEST(FrameGeometryTest)
#include "framegeometry_test.moc"

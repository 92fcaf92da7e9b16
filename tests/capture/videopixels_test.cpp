// The shadow in images of a window: what clients draw is found, and what a translucent window shows is not taken for
// one.
#include "testregistry.h"
#include "videopixels.h"

#include <QMargins>
#include <QTest>

#include <algorithm>
#include <functional>

using wayland::PixelView;

namespace {

constexpr QRgb white = 0xffffffff;
constexpr wayland::PixelOrder padded{2, 1, 0, 3, false}; // as QImage has them
using Alpha = std::function<int(int)>; // by the distance from the window, from 1

/// A white window, and black around it.
QImage imageOf(const QSize& size, const QMargins& around, const Alpha& alpha)
{
    QImage image(size, QImage::Format_ARGB32);
    const QRect window = image.rect().marginsRemoved(around);
    for (int y = 0; y < size.height(); ++y) {
        for (int x = 0; x < size.width(); ++x) {
            const int distance
                = std::max({window.left() - x, x - window.right(), window.top() - y, y - window.bottom()});
            image.setPixel(x, y, distance > 0 ? qRgba(0, 0, 0, alpha(distance)) : white);
        }
    }
    return image;
}

PixelView viewOf(const QImage& image)
{
    return {image.constBits(), image.bytesPerLine(), image.size(), padded};
}

QMargins shadowOf(const QImage& image)
{
    return wayland::shadowIn(viewOf(image), image.rect());
}

int soft(int distance)
{
    return std::max(0, 0x50 - 16 * distance);
}

/// Over 20 pixels.
int linear(int distance)
{
    return 100 - 5 * distance;
}

}

class VideoPixelsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void shadowIsFound_data();
    void shadowIsFound();
    void shadowOfAWindowWithRoundCorners();
    void shadowIsThatOfThePart();
    void translucentWindowHasNone_data();
    void translucentWindowHasNone();
    void whatIsNoShadow_data();
    void whatIsNoShadow();
    void textOnATranslucentGroundIsNoWindow();
    void mostOfTheWindowRemains();
};

void VideoPixelsTest::shadowIsFound_data()
{
    QTest::addColumn<QMargins>("shadow");
    QTest::addColumn<Alpha>("alpha");
    QTest::newRow("other on each side") << QMargins(6, 4, 8, 7) << Alpha(soft);
    QTest::newRow("large") << QMargins(60, 57, 60, 63)
                           << Alpha([](int distance) { return std::max(0, 120 - 2 * distance); });
    QTest::newRow("on one side, of a window at the edge of the screen") << QMargins(0, 0, 5, 0) << Alpha(soft);
    QTest::newRow("with a line around the window")
        << QMargins(9, 9, 9, 9) << Alpha([](int distance) { return distance == 1 ? 0x8c : soft(distance); });
    QTest::newRow("none") << QMargins() << Alpha(soft);
}

void VideoPixelsTest::shadowIsFound()
{
    QFETCH(const QMargins, shadow);
    QFETCH(const Alpha, alpha);
    QCOMPARE(shadowOf(imageOf(QSize(400, 300), shadow, alpha)), shadow);
}

void VideoPixelsTest::shadowOfAWindowWithRoundCorners()
{
    const QMargins shadow(6, 6, 6, 6);
    QImage image = imageOf(QSize(100, 80), shadow, soft);
    for (int i = 0; i < 12; ++i) {
        for (int k = 0; k < 12 - i; ++k) {
            image.setPixel(6 + k, 6 + i, 0x60404040);
            image.setPixel(93 - k, 6 + i, 0x60404040);
        }
    }
    QCOMPARE(shadowOf(image), shadow);
}

void VideoPixelsTest::shadowIsThatOfThePart()
{
    QImage image(200, 100, QImage::Format_ARGB32);
    image.fill(white);
    const QRect part(20, 10, 90, 70);
    const QImage window = imageOf(part.size(), QMargins(7, 5, 6, 8), soft);
    for (int y = 0; y < part.height(); ++y)
        std::copy_n(reinterpret_cast<const QRgb*>(window.constScanLine(y)), part.width(),
            reinterpret_cast<QRgb*>(image.scanLine(part.top() + y)) + part.left());
    QCOMPARE(wayland::shadowIn(viewOf(image), part), QMargins(7, 5, 6, 8));
    QCOMPARE(shadowOf(image), QMargins());
}

void VideoPixelsTest::translucentWindowHasNone_data()
{
    QTest::addColumn<int>("alpha");
    QTest::newRow("of a terminal") << 0x60;
    QTest::newRow("hardly visible") << 0x10;
    QTest::newRow("invisible") << 0;
}

/// Black on all sides, and in it something that is opaque and may move.
void VideoPixelsTest::translucentWindowHasNone()
{
    QFETCH(const int, alpha);
    QCOMPARE(
        shadowOf(imageOf(QSize(400, 300), QMargins(20, 20, 20, 20), [alpha](int) { return alpha; })), QMargins());
}

void VideoPixelsTest::whatIsNoShadow_data()
{
    QTest::addColumn<QMargins>("around");
    QTest::addColumn<Alpha>("alpha");
    const QMargins even(20, 20, 20, 20);
    QTest::newRow("an edge that was smoothed")
        << even << Alpha([](int distance) { return distance > 2 ? 0 : 0xa0 / distance; });
    QTest::newRow("to be seen at the edge") << even << Alpha([](int distance) { return 0x60 - distance; });
    QTest::newRow("stronger, then weaker")
        << QMargins(0, 20, 0, 0) << Alpha([](int distance) { return distance > 5 ? 5 * (20 - distance) : 40; });
    QTest::newRow("wider than shadows are")
        << QMargins(0, 0, 0, 130) << Alpha([](int distance) { return 130 - distance; });
}

void VideoPixelsTest::whatIsNoShadow()
{
    QFETCH(const QMargins, around);
    QFETCH(const Alpha, alpha);
    QCOMPARE(shadowOf(imageOf(QSize(400, 300), around, alpha)), QMargins());
}

/// What the ground of a window fades to is not its shadow: only letters end it.
void VideoPixelsTest::textOnATranslucentGroundIsNoWindow()
{
    QImage image = imageOf(QSize(400, 300), QMargins(20, 20, 20, 20), linear);
    for (int y = 20; y < 280; ++y) {
        for (int x = 20; x < 380; ++x)
            image.setPixel(x, y, x % 12 < 5 && y % 16 < 7 ? white : 0x60000000);
    }
    QCOMPARE(shadowOf(image), QMargins());
}

void VideoPixelsTest::mostOfTheWindowRemains()
{
    const QMargins around(20, 20, 20, 20);
    QCOMPARE(shadowOf(imageOf(QSize(81, 81), around, linear)), around);
    QCOMPARE(shadowOf(imageOf(QSize(80, 300), around, linear)), QMargins()); // half of the width
    QCOMPARE(shadowOf(imageOf(QSize(300, 80), around, linear)), QMargins());
}

ORVANTIS_TEST(VideoPixelsTest)
#include "videopixels_test.moc"

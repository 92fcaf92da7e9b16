// Pixel layouts and their conversion, without a server.
#include "linux/x11/x11pixels.h"
#include "testregistry.h"

#include <QTest>

#include <vector>

using x11::imageFromPixels;
using x11::PixelLayout;
using x11::pixelLayout;

namespace {

xcb_visualtype_t visual(quint32 redMask, quint32 greenMask, quint32 blueMask)
{
    xcb_visualtype_t type{};
    type._class = XCB_VISUAL_CLASS_TRUE_COLOR;
    type.red_mask = redMask;
    type.green_mask = greenMask;
    type.blue_mask = blueMask;
    return type;
}

}

class X11PixelsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void layoutOfAVisual_data();
    void layoutOfAVisual();
    void rowsArePaddedToWords();
    void largeByteCountsDoNotOverflow();
    void topBytesOfOpaquePixelsAreSet_data();
    void topBytesOfOpaquePixelsAreSet();
    void premultipliedPixelsAreCopied();
    void paddingOfNarrowPixelsIsLeftOut();
};

void X11PixelsTest::layoutOfAVisual_data()
{
    QTest::addColumn<int>("depth");
    QTest::addColumn<int>("bitsPerPixel");
    QTest::addColumn<quint32>("red");
    QTest::addColumn<quint32>("green");
    QTest::addColumn<quint32>("blue");
    QTest::addColumn<QImage::Format>("format"); // Format_Invalid: none
    QTest::newRow("alpha") << 32 << 32 << 0xff0000u << 0xff00u << 0xffu << QImage::Format_ARGB32_Premultiplied;
    QTest::newRow("opaque") << 24 << 32 << 0xff0000u << 0xff00u << 0xffu << QImage::Format_RGB32;
    QTest::newRow("ten bits") << 30 << 32 << 0x3ff00000u << 0xffc00u << 0x3ffu << QImage::Format_RGB30;
    QTest::newRow("sixteen") << 16 << 16 << 0xf800u << 0x7e0u << 0x1fu << QImage::Format_RGB16;
    QTest::newRow("blue first") << 24 << 32 << 0xffu << 0xff00u << 0xff0000u << QImage::Format_Invalid;
    QTest::newRow("packed") << 24 << 24 << 0xff0000u << 0xff00u << 0xffu << QImage::Format_Invalid;
    QTest::newRow("fifteen") << 15 << 16 << 0x7c00u << 0x3e0u << 0x1fu << QImage::Format_Invalid;
    QTest::newRow("ten bits, blue first") << 30 << 32 << 0x3ffu << 0xffc00u << 0x3ff00000u << QImage::Format_Invalid;
    QTest::newRow("palette") << 8 << 8 << 0u << 0u << 0u << QImage::Format_Invalid;
}

void X11PixelsTest::layoutOfAVisual()
{
    QFETCH(int, depth);
    QFETCH(int, bitsPerPixel);
    QFETCH(quint32, red);
    QFETCH(quint32, green);
    QFETCH(quint32, blue);
    QFETCH(QImage::Format, format);
    const auto layout = pixelLayout(depth, bitsPerPixel, visual(red, green, blue));
    QCOMPARE(layout.has_value(), format != QImage::Format_Invalid);
    if (layout) {
        QCOMPARE(layout->format, format);
        QCOMPARE(layout->bytesPerPixel * 8, bitsPerPixel);
    }
}

void X11PixelsTest::rowsArePaddedToWords()
{
    const PixelLayout wide{QImage::Format_RGB32, 4};
    const PixelLayout narrow{QImage::Format_RGB16, 2};
    QCOMPARE(wide.bytesPerLine(3), 12);
    QCOMPARE(narrow.bytesPerLine(3), 8);
    QCOMPARE(narrow.bytesPerLine(4), 8);
    QCOMPARE(narrow.byteCount(QSize(3, 5)), 40);
}

void X11PixelsTest::largeByteCountsDoNotOverflow()
{
    const PixelLayout layout{QImage::Format_RGB32, 4};
    QCOMPARE(layout.byteCount(QSize(65535, 65535)), qsizetype(65535) * 65535 * 4);
}

void X11PixelsTest::topBytesOfOpaquePixelsAreSet_data()
{
    QTest::addColumn<int>("width"); // around the widths of vector registers
    for (const int width : {1, 3, 4, 5, 7, 8, 9, 16, 17, 33})
        QTest::addRow("%d", width) << width;
}

void X11PixelsTest::topBytesOfOpaquePixelsAreSet()
{
    QFETCH(int, width);
    const QSize size(width, 3);
    std::vector<quint32> pixels(size_t(width) * 3);
    for (size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = quint32(i * 0x01030507u);
    const QImage image
        = imageFromPixels(reinterpret_cast<const uchar*>(pixels.data()), size, {QImage::Format_RGB32, 4});
    QCOMPARE(image.format(), QImage::Format_RGB32);
    for (int y = 0; y < 3; ++y) {
        const auto* line = reinterpret_cast<const quint32*>(image.constScanLine(y));
        for (int x = 0; x < width; ++x)
            QCOMPARE(line[x], pixels[size_t(y * width + x)] | 0xff000000u);
    }
}

void X11PixelsTest::premultipliedPixelsAreCopied()
{
    const std::vector<quint32> pixels{0x80402010, 0x00000000, 0xffffffff, 0x01010101};
    const QImage image = imageFromPixels(
        reinterpret_cast<const uchar*>(pixels.data()), QSize(2, 2), {QImage::Format_ARGB32_Premultiplied, 4});
    QCOMPARE(image.format(), QImage::Format_ARGB32_Premultiplied);
    for (int i = 0; i < 4; ++i)
        QCOMPARE(reinterpret_cast<const quint32*>(image.constScanLine(i / 2))[i % 2], pixels[size_t(i)]);
}

void X11PixelsTest::paddingOfNarrowPixelsIsLeftOut()
{
    const std::vector<quint16> pixels{0xf800, 0x07e0, 0x001f, 0x1234, 0xffff, 0x0000, 0xf800, 0x5678};
    const QImage image
        = imageFromPixels(reinterpret_cast<const uchar*>(pixels.data()), QSize(3, 2), {QImage::Format_RGB16, 2});
    QCOMPARE(image.format(), QImage::Format_RGB32);
    const QList<QRgb> expected{0xffff0000, 0xff00ff00, 0xff0000ff, 0xffffffff, 0xff000000, 0xffff0000};
    for (int i = 0; i < 6; ++i)
        QCOMPARE(image.pixel(i % 3, i / 3), expected[i]);
}

ORVANTIS_TEST(X11PixelsTest)
#include "x11pixels_test.moc"

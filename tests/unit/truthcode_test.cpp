// The truth window's barcode: it is read from every frame that shows it well, and from no other.
#include "clipwriter.h"
#include "mediafile.h"
#include "privatetempdir.h"
#include "testregistry.h"
#include "truthcode.h"
#include "truthscene.h"

#include <QPainter>
#include <QRandomGenerator>
#include <QTest>

namespace {

constexpr QSize windowSize(1280, 720);
constexpr TruthStamp someStamp{0x00abcd, 0x9e3779b9};

QImage windowWith(const TruthStamp& stamp, QSize size = windowSize)
{
    QImage window = truthscene::paintStill(size);
    truthscene::paintAnimated(window, stamp);
    return window;
}

/// The window as a recording shows it: as large as possible on a black canvas.
QImage onCanvas(const QImage& window, QSize canvasSize)
{
    QImage canvas(canvasSize, QImage::Format_RGB32);
    canvas.fill(Qt::black);
    QPainter painter(&canvas);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.drawImage(truthscene::letterboxed(window.size(), canvasSize), window, QRectF(window.rect()));
    return canvas;
}

/// The rectangle of one cell, in window pixels.
QRect cellRect(int index)
{
    const int cell = windowSize.width() / int(truthcode::cellsAcrossWindow);
    return {(index % truthcode::columns + 1) * cell, (index / truthcode::columns + 1) * cell, cell, cell};
}

QImage withCell(QImage window, int index, QRgb colour)
{
    QPainter(&window).fillRect(cellRect(index), QColor(colour));
    return window;
}

std::optional<TruthStamp> decodeWindow(const QImage& window)
{
    return truthcode::decode(window, QRectF(window.rect()));
}

}

class TruthCodeTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void roundTrip_data();
    void roundTrip();
    void survivesScaling_data();
    void survivesScaling();
    void survivesMpeg4_data();
    void survivesMpeg4();
    void counterKeeps24Bits();
    void everyWrongCellIsRefused();
    void coveredCellIsRefused();
    void tornPaintingIsRefused();
    void noiseIsRefused();
    void flatFramesAreRefused();
    void windowOutsideTheFrameIsRefused();
    void letterboxIsCentred_data();
    void letterboxIsCentred();
    void layoutKeepsItsPromises_data();
    void layoutKeepsItsPromises();
    void smallWindowIsPaintedWithinItself();
};

void TruthCodeTest::roundTrip_data()
{
    QTest::addColumn<QSize>("window");
    QTest::addColumn<quint32>("counter");
    QTest::addColumn<quint32>("clockMs");
    QTest::newRow("zeros") << QSize(640, 480) << 0u << 0u;
    QTest::newRow("ones") << QSize(640, 480) << 0xffffffu << 0xffffffffu;
    QTest::newRow("cells of uneven size") << QSize(1001, 600) << 1u << 0x80000001u;
    QTest::newRow("full HD") << QSize(1920, 1080) << 0x123456u << 0x89abcdefu;
    QTest::newRow("4K") << QSize(3840, 2160) << 0x654321u << 0xfedcba98u;
}

void TruthCodeTest::roundTrip()
{
    QFETCH(QSize, window);
    QFETCH(quint32, counter);
    QFETCH(quint32, clockMs);
    const std::optional<TruthStamp> read = decodeWindow(windowWith({counter, clockMs}, window));
    QVERIFY(read);
    QCOMPARE(read->counter, counter);
    QCOMPARE(read->clockMs, clockMs);
}

void TruthCodeTest::survivesScaling_data()
{
    QTest::addColumn<QSize>("window");
    QTest::addColumn<QSize>("canvas");
    QTest::newRow("half") << QSize(640, 480) << QSize(320, 240);
    QTest::newRow("half, bars above and below") << QSize(1280, 720) << QSize(640, 480);
    QTest::newRow("odd factor") << QSize(1280, 720) << QSize(998, 700);
    QTest::newRow("bars on both sides") << QSize(1000, 701) << QSize(1920, 1080);
    QTest::newRow("double") << QSize(960, 540) << QSize(1920, 1080);
}

void TruthCodeTest::survivesScaling()
{
    QFETCH(QSize, window);
    QFETCH(QSize, canvas);
    const QImage frame = onCanvas(windowWith(someStamp, window), canvas);
    QCOMPARE(truthcode::decode(frame, truthscene::letterboxed(window, canvas)), std::optional(someStamp));
}

void TruthCodeTest::survivesMpeg4_data()
{
    QTest::addColumn<QSize>("canvas");
    QTest::addColumn<int>("bitRate");
    QTest::newRow("1:1") << QSize(1280, 720) << 6'000'000;
    QTest::newRow("1:1, starved") << QSize(1280, 720) << 300'000;
    QTest::newRow("half") << QSize(640, 360) << 6'000'000;
    QTest::newRow("larger, with bars") << QSize(1920, 1200) << 6'000'000;
}

void TruthCodeTest::survivesMpeg4()
{
    QFETCH(QSize, canvas);
    QFETCH(int, bitRate);
    const PrivateTempDir directory;
    const QString path = directory.filePath(QStringLiteral("clip.mp4"));
    constexpr int frames = 20;
    {
        ClipOptions options;
        options.bitRate = bitRate;
        ClipWriter clip(path, canvas, options);
        for (quint32 i = 0; i < frames; ++i) {
            const QImage window = windowWith({i * 0x1357, someStamp.clockMs + i * 41});
            QVERIFY2(clip.add(onCanvas(window, canvas), i * 41), qPrintable(clip.errorString()));
        }
        QVERIFY2(clip.finish(), qPrintable(clip.errorString()));
    }
    MediaFile file(path);
    QList<std::optional<TruthStamp>> expected;
    QList<std::optional<TruthStamp>> read;
    file.forEachFrame([&](const MediaFrame& frame) {
        const auto i = quint32(read.size());
        expected.append(TruthStamp{i * 0x1357, someStamp.clockMs + i * 41});
        read.append(truthcode::decode(frame.image, truthscene::letterboxed(windowSize, canvas)));
        return true;
    });
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QCOMPARE(read.size(), qsizetype(frames));
    QVERIFY(read == expected);
}

void TruthCodeTest::counterKeeps24Bits()
{
    const std::optional<TruthStamp> read = decodeWindow(windowWith({0x1abcdef, 5}));
    QVERIFY(read);
    QCOMPARE(read->counter, 0xabcdefu);
}

void TruthCodeTest::everyWrongCellIsRefused()
{
    const QImage window = windowWith(someStamp);
    for (int cell = 0; cell < truthcode::columns * truthcode::rows; ++cell) {
        const bool black = qGray(window.pixel(cellRect(cell).center())) < 128;
        const QImage wrong = withCell(window, cell, black ? qRgb(255, 255, 255) : qRgb(0, 0, 0));
        QVERIFY2(!decodeWindow(wrong), qPrintable(QString::number(cell)));
    }
}

void TruthCodeTest::coveredCellIsRefused()
{
    QVERIFY(!decodeWindow(withCell(windowWith(someStamp), 30, truthscene::fieldColour)));
}

/// The upper half of one painting over the lower half of the next, as a grab in the middle of a repaint would
/// show.
void TruthCodeTest::tornPaintingIsRefused()
{
    QImage window = windowWith({100, 0x10000000});
    const QImage next = windowWith({101, 0x10000029});
    QPainter painter(&window);
    painter.drawImage(QPoint(0, 0), next, QRect(0, 0, window.width(), cellRect(truthcode::columns).top()));
    painter.end();
    QVERIFY(!decodeWindow(window));
}

void TruthCodeTest::noiseIsRefused()
{
    QRandomGenerator random(20);
    constexpr int tries = 500;
    for (int attempt = 0; attempt < tries; ++attempt) {
        QImage window = windowWith({});
        QPainter painter(&window);
        for (int cell = 0; cell < truthcode::columns * truthcode::rows; ++cell)
            painter.fillRect(cellRect(cell), random.bounded(2) ? Qt::black : Qt::white);
        painter.end();
        QVERIFY2(!decodeWindow(window), qPrintable(QString::number(attempt)));
    }
}

void TruthCodeTest::flatFramesAreRefused()
{
    for (const QRgb colour : {qRgb(0, 0, 0), qRgb(255, 255, 255), qRgb(128, 128, 128)}) {
        QImage frame(windowSize, QImage::Format_RGB32);
        frame.fill(colour);
        QVERIFY(!decodeWindow(frame));
    }
}

void TruthCodeTest::windowOutsideTheFrameIsRefused()
{
    const QImage frame = windowWith(someStamp);
    QVERIFY(!truthcode::decode(frame, QRectF(frame.rect()).translated(-100, 0)));
    QVERIFY(!truthcode::decode(frame, QRectF(frame.rect()).translated(700, 0)));
    QVERIFY(!truthcode::decode(frame, QRectF()));
    QVERIFY(!truthcode::decode(QImage(), QRectF(frame.rect())));
}

void TruthCodeTest::letterboxIsCentred_data()
{
    QTest::addColumn<QSize>("window");
    QTest::addColumn<QSize>("canvas");
    QTest::addColumn<QRectF>("where");
    QTest::newRow("same") << QSize(1280, 720) << QSize(1280, 720) << QRectF(0, 0, 1280, 720);
    QTest::newRow("wide window") << QSize(1000, 500) << QSize(1920, 1080) << QRectF(0, 60, 1920, 960);
    QTest::newRow("tall window") << QSize(640, 480) << QSize(1920, 1080) << QRectF(240, 0, 1440, 1080);
    QTest::newRow("odd bar") << QSize(640, 480) << QSize(643, 480) << QRectF(1, 0, 640, 480);
}

void TruthCodeTest::letterboxIsCentred()
{
    QFETCH(QSize, window);
    QFETCH(QSize, canvas);
    QFETCH(QRectF, where);
    QCOMPARE(truthscene::letterboxed(window, canvas), where);
}

void TruthCodeTest::layoutKeepsItsPromises_data()
{
    QTest::addColumn<QSize>("window");
    QTest::newRow("smallest") << QSize(640, 214);
    QTest::newRow("VGA") << QSize(640, 480);
    QTest::newRow("uneven") << QSize(1001, 777);
    QTest::newRow("full HD") << QSize(1920, 1080);
}

void TruthCodeTest::layoutKeepsItsPromises()
{
    QFETCH(QSize, window);
    QVERIFY(truthscene::fits(window));
    const truthscene::Layout layout = truthscene::layout(window);
    const QRect whole(QPoint(), window);
    QCOMPARE(layout.patches.size(), qsizetype(truthscene::patchColours.size()));
    const QImage image = truthscene::paintStill(window);
    for (qsizetype i = 0; i < layout.patches.size(); ++i) {
        const QRect& patch = layout.patches[i];
        QVERIFY(whole.contains(patch));
        QVERIFY(patch.width() >= 48 && patch.height() >= 48);
        QCOMPARE(image.pixel(patch.center()), truthscene::patchColours[std::size_t(i)]);
        QVERIFY(!patch.intersects(layout.field) && !patch.intersects(layout.animated));
    }
    QVERIFY(whole.contains(layout.field));
    QVERIFY(layout.field.width() * layout.field.height() * 10 >= window.width() * window.height() * 4);
    QVERIFY(layout.animated.contains(layout.moving));
}

void TruthCodeTest::smallWindowIsPaintedWithinItself()
{
    for (const QSize size : {QSize(1, 1), QSize(100, 3), QSize(64, 9), QSize(30, 200)}) {
        QVERIFY(!truthscene::fits(size));
        QImage window = truthscene::paintStill(size);
        truthscene::paintAnimated(window, someStamp);
        const QRect animated = truthscene::layout(size).animated;
        QVERIFY(animated.isEmpty() || window.rect().contains(animated));
        QCOMPARE(window.size(), size);
    }
}

ORVANTIS_TEST(TruthCodeTest)
#include "truthcode_test.moc"

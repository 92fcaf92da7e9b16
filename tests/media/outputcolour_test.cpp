// The window's colours come back from the file, through a decoder that honours the file's tags.
#include "idlerecorder.h"
#include "mediafile.h"
#include "testregistry.h"

#include <QPainter>
#include <QTest>

namespace {

/// What eight bits and limited range leave of a flat colour: measured 4 at most over all the patches below with
/// FFmpeg 5.1. A file that is read with BT.709's matrix is wrong by up to 40, with the full range by up to 20.
constexpr int tolerance = 5;

constexpr int patchSize = 32;

/// A chart of flat patches, `columns` to a row.
QImage chart(const QList<QRgb>& colours, int columns)
{
    const int rows = (int(colours.size()) + columns - 1) / columns;
    QImage image = testimages::solid(QSize(columns, rows) * patchSize, Qt::black);
    QPainter painter(&image);
    for (int i = 0; i < colours.size(); ++i)
        painter.fillRect(i % columns * patchSize, i / columns * patchSize, patchSize, patchSize, QColor(colours[i]));
    return image;
}

QRgb middleOf(const QImage& image, int patch, int columns)
{
    return image.pixel(patch % columns * patchSize + patchSize / 2, patch / columns * patchSize + patchSize / 2);
}

/// Colours on a grid of the RGB cube, its corners among them.
QList<QRgb> cube(int step)
{
    QList<QRgb> colours;
    for (int red = 0; red <= 255; red += step) {
        for (int green = 0; green <= 255; green += step) {
            for (int blue = 0; blue <= 255; blue += step)
                colours.append(qRgb(red, green, blue));
        }
    }
    return colours;
}

/// Records one image and returns it as decoded.
MediaFrame recorded(IdleRecorder& recorder, const QImage& image)
{
    if (!recorder->openOutput() || !recorder->encodeImage(image, 0) || !recorder.finish())
        return MediaFrame();
    const QList<MediaFrame> frames = MediaFile(recorder->outputPath()).frames();
    return frames.size() == 1 ? frames.constFirst() : MediaFrame();
}

}

class OutputColourTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void quadrantsKeepTheirColours();
    void patchesKeepTheirColours_data();
    void patchesKeepTheirColours();
    void coloursHoldOverManyImages();
    void everyInputFormatIsTheSameImage_data();
    void everyInputFormatIsTheSameImage();
    void edgesStayInPlace();
};

void OutputColourTest::quadrantsKeepTheirColours()
{
    IdleRecorder recorder;
    QImage image = testimages::solid(recorder.canvas(), QColor(255, 255, 255));
    QPainter painter(&image);
    painter.fillRect(0, 0, 160, 120, QColor(255, 0, 0));
    painter.fillRect(160, 0, 160, 120, QColor(0, 255, 0));
    painter.fillRect(0, 120, 160, 120, QColor(0, 0, 255));
    painter.end();
    const MediaFrame frame = recorded(recorder, image);
    QCOMPARE(frame.image.size(), recorder.canvas());
    QVERIFY(frame.coloursTagged);
    QVERIFY(testimages::channelError(frame.image.pixel(80, 60), qRgb(255, 0, 0)) <= tolerance);
    QVERIFY(testimages::channelError(frame.image.pixel(240, 60), qRgb(0, 255, 0)) <= tolerance);
    QVERIFY(testimages::channelError(frame.image.pixel(80, 180), qRgb(0, 0, 255)) <= tolerance);
    QVERIFY(testimages::channelError(frame.image.pixel(240, 180), qRgb(255, 255, 255)) <= tolerance);
}

void OutputColourTest::patchesKeepTheirColours_data()
{
    QTest::addColumn<QList<QRgb>>("colours");
    QTest::addColumn<int>("columns");
    QTest::newRow("the cube's corners") << cube(255) << 4;
    QTest::newRow("the cube in steps of 51") << cube(51) << 18;
    QList<QRgb> greys;
    for (int level = 0; level <= 255; level += 5)
        greys.append(qRgb(level, level, level));
    QTest::newRow("greys") << greys << 13;
    // The sizes at which players guess BT.709 for a file without tags.
    QTest::newRow("high definition") << cube(51) << 60;
}

void OutputColourTest::patchesKeepTheirColours()
{
    QFETCH(const QList<QRgb>, colours);
    QFETCH(const int, columns);
    const QImage image = chart(colours, columns);
    IdleRecorder recorder(QStringLiteral("clip.mp4"), image.size());
    const MediaFrame frame = recorded(recorder, image);
    QCOMPARE(frame.image.size(), image.size());
    QVERIFY(frame.coloursTagged);
    for (int i = 0; i < colours.size(); ++i) {
        const QRgb seen = middleOf(frame.image, i, columns);
        QVERIFY2(testimages::channelError(seen, colours[i]) <= tolerance,
            qPrintable(QStringLiteral("%1 instead of %2").arg(QColor(seen).name(), QColor(colours[i]).name())));
    }
}

/// Predicted images do not drift away.
void OutputColourTest::coloursHoldOverManyImages()
{
    const QList<QRgb> colours = cube(85);
    constexpr int columns = 8;
    constexpr int images = 60;
    const QImage image = chart(colours, columns);
    IdleRecorder recorder(QStringLiteral("clip.mp4"), image.size());
    QVERIFY(recorder->openOutput());
    for (int i = 0; i < images; ++i)
        QVERIFY(recorder->encodeImage(image, i * 41));
    QVERIFY(recorder.finish());
    const QList<MediaFrame> frames = MediaFile(recorder->outputPath()).frames();
    QCOMPARE(frames.size(), images);
    for (const MediaFrame& frame : frames) {
        for (int i = 0; i < colours.size(); ++i)
            QVERIFY(testimages::channelError(middleOf(frame.image, i, columns), colours[i]) <= tolerance);
    }
}

void OutputColourTest::everyInputFormatIsTheSameImage_data()
{
    QTest::addColumn<int>("format");
    QTest::newRow("ARGB32") << int(QImage::Format_ARGB32);
    QTest::newRow("ARGB32 premultiplied") << int(QImage::Format_ARGB32_Premultiplied);
    QTest::newRow("RGB32") << int(QImage::Format_RGB32);
    QTest::newRow("RGBA8888") << int(QImage::Format_RGBA8888);
    QTest::newRow("RGB888") << int(QImage::Format_RGB888);
    QTest::newRow("RGB30") << int(QImage::Format_RGB30);
}

/// The encoder is handed blue, green, red, alpha, whatever the image came as.
void OutputColourTest::everyInputFormatIsTheSameImage()
{
    QFETCH(const int, format);
    const QImage image = chart(cube(255), 4);
    IdleRecorder recorder(QStringLiteral("clip.mp4"), image.size());
    const MediaFrame frame = recorded(recorder, image.convertToFormat(QImage::Format(format)));
    QCOMPARE(frame.image.size(), image.size());
    for (int i = 0; i < 8; ++i)
        QVERIFY(testimages::channelError(middleOf(frame.image, i, 4), middleOf(image, i, 4)) <= tolerance);
}

/// Rows and columns are not shifted: single lines are where they were painted.
void OutputColourTest::edgesStayInPlace()
{
    IdleRecorder recorder(QStringLiteral("clip.mp4"), QSize(98, 66)); // no multiple of any alignment
    QImage image = testimages::solid(recorder.canvas(), Qt::black);
    QPainter painter(&image);
    painter.fillRect(0, 0, 98, 4, Qt::white);
    painter.fillRect(0, 62, 98, 4, Qt::white);
    painter.fillRect(0, 0, 4, 66, Qt::white);
    painter.fillRect(94, 0, 4, 66, Qt::white);
    painter.end();
    const MediaFrame frame = recorded(recorder, image);
    QCOMPARE(frame.image.size(), recorder.canvas());
    for (const QPoint corner : {QPoint(1, 1), QPoint(96, 1), QPoint(1, 64), QPoint(96, 64)})
        QVERIFY(qGray(frame.image.pixel(corner)) > 200);
    for (const QPoint inside : {QPoint(8, 8), QPoint(89, 8), QPoint(8, 57), QPoint(89, 57)})
        QVERIFY(qGray(frame.image.pixel(inside)) < 50);
}

ORVANTIS_TEST(OutputColourTest)
#include "outputcolour_test.moc"

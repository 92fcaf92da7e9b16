// Finding the pointer and the click markers on the truth window's field, to a fraction of a pixel.
#include "clipwriter.h"
#include "mediafile.h"
#include "privatetempdir.h"
#include "testregistry.h"
#include "truthoverlay.h"

#include <QPainter>
#include <QTest>

#include <cmath>

namespace {

constexpr QSize frameSize(640, 480);
constexpr QRect field(10, 20, 620, 450);
constexpr QRgb grey = qRgb(128, 128, 128);
constexpr double cleanPx = 0.15; // as painted
constexpr double encodedPx = 0.5; // after MPEG-4

QImage plainField()
{
    QImage frame(frameSize, QImage::Format_RGB32);
    frame.fill(grey);
    return frame;
}

QImage withPointer(const QPointF& tip, double scale)
{
    QImage frame = plainField();
    QPainter painter(&frame);
    truthoverlay::drawPointer(painter, tip, scale);
    return frame;
}

QImage withMarker(QImage frame, const QPointF& centre, double ageMs)
{
    QPainter painter(&frame);
    truthoverlay::drawMarker(painter, centre, ageMs);
    return frame;
}

double distance(const QPointF& a, const QPointF& b)
{
    return std::hypot(a.x() - b.x(), a.y() - b.y());
}

double radiusAt(double ageMs)
{
    return std::max(16.0 * (1.0 - ageMs / 2000.0), 2.0);
}

/// The frames after a lossy encoder. Fewer than were given when something failed.
QList<QImage> encodedAndDecoded(const QList<QImage>& frames)
{
    const PrivateTempDir directory;
    const QString path = directory.filePath(QStringLiteral("clip.mp4"));
    ClipWriter clip(path, frameSize);
    qint64 ptsMs = 0;
    for (const QImage& frame : frames) {
        if (!clip.add(frame, ptsMs))
            return {};
        ptsMs += 41;
    }
    if (!clip.finish())
        return {};
    QList<QImage> decoded;
    for (const MediaFrame& frame : MediaFile(path).frames())
        decoded.append(frame.image);
    return decoded;
}

}

class TruthOverlayTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void pointerIsFound_data();
    void pointerIsFound();
    void pointerIsFoundAfterEncoding();
    void noPointerOnPlainField();
    void pointerAtTheEdgeIsRefused();
    void pointerOfAnotherSizeIsRefused();
    void coveredPointerIsRefused();
    void markerIsFound_data();
    void markerIsFound();
    void markerIsFoundAfterEncoding();
    void markerIsFoundOverThePointer();
    void twoMarkersAreTwoSpots();
    void noMarkerWithoutRed();
    void arrowKeepsItsOutline();
};

void TruthOverlayTest::pointerIsFound_data()
{
    QTest::addColumn<QPointF>("tip");
    QTest::addColumn<double>("scale");
    QTest::newRow("whole pixel") << QPointF(300, 200) << 1.0;
    QTest::newRow("half pixel") << QPointF(300.5, 200.5) << 1.0;
    QTest::newRow("fractions") << QPointF(300.3, 200.8) << 1.0;
    QTest::newRow("near the corner") << QPointF(20.25, 30.75) << 1.0;
    QTest::newRow("enlarged") << QPointF(411.6, 99.1) << 1.5;
    QTest::newRow("enlarged by an odd factor") << QPointF(100.4, 333.3) << 1.37;
    QTest::newRow("double") << QPointF(500.9, 300.2) << 2.0;
}

void TruthOverlayTest::pointerIsFound()
{
    QFETCH(QPointF, tip);
    QFETCH(double, scale);
    const std::optional<QPointF> found = truthoverlay::findPointer(withPointer(tip, scale), field, scale);
    QVERIFY(found);
    QVERIFY2(distance(*found, tip) < cleanPx, qPrintable(QString::number(distance(*found, tip))));
}

void TruthOverlayTest::pointerIsFoundAfterEncoding()
{
    const QList<QPointF> tips{{300, 200}, {310.4, 207.7}, {123.5, 321.25}, {555.1, 60.9}};
    for (const double scale : {1.0, 1.5}) {
        QList<QImage> frames;
        for (const QPointF& tip : tips)
            frames.append(withPointer(tip, scale));
        const QList<QImage> decoded = encodedAndDecoded(frames);
        QCOMPARE(decoded.size(), tips.size());
        for (qsizetype i = 0; i < tips.size(); ++i) {
            const std::optional<QPointF> found = truthoverlay::findPointer(decoded[i], field, scale);
            QVERIFY(found);
            QVERIFY2(distance(*found, tips[i]) < encodedPx, qPrintable(QString::number(distance(*found, tips[i]))));
        }
    }
}

void TruthOverlayTest::noPointerOnPlainField()
{
    QVERIFY(!truthoverlay::findPointer(plainField(), field, 1.0));
    QVERIFY(!truthoverlay::findPointer(withMarker(plainField(), {300, 200}, 0), field, 1.0));
    QImage box = plainField();
    QPainter(&box).fillRect(QRect(300, 200, 60, 60), Qt::white);
    QVERIFY(!truthoverlay::findPointer(box, field, 1.0));
}

void TruthOverlayTest::pointerAtTheEdgeIsRefused()
{
    QVERIFY(!truthoverlay::findPointer(withPointer({622, 200}, 1.0), field, 1.0));
    QVERIFY(!truthoverlay::findPointer(withPointer({300, 5}, 1.0), field, 1.0));
}

void TruthOverlayTest::pointerOfAnotherSizeIsRefused()
{
    QVERIFY(!truthoverlay::findPointer(withPointer({300, 200}, 1.5), field, 1.0));
    QVERIFY(!truthoverlay::findPointer(withPointer({300, 200}, 1.0), field, 1.5));
}

void TruthOverlayTest::coveredPointerIsRefused()
{
    QVERIFY(!truthoverlay::findPointer(withMarker(withPointer({300, 200}, 1.0), {300, 200}, 0), field, 1.0));
}

void TruthOverlayTest::markerIsFound_data()
{
    QTest::addColumn<QPointF>("centre");
    QTest::addColumn<double>("ageMs");
    QTest::newRow("fresh") << QPointF(300, 200) << 0.0;
    QTest::newRow("fresh, fractions") << QPointF(300.3, 200.7) << 0.0;
    QTest::newRow("half a second") << QPointF(123.9, 60.2) << 500.0;
    QTest::newRow("one second") << QPointF(500.5, 400.5) << 1000.0;
    QTest::newRow("faintest alpha") << QPointF(400.2, 100.4) << 1400.0;
    QTest::newRow("smallest") << QPointF(200.6, 300.1) << 1750.0;
    QTest::newRow("last") << QPointF(200, 300) << 2000.0;
}

void TruthOverlayTest::markerIsFound()
{
    QFETCH(QPointF, centre);
    QFETCH(double, ageMs);
    const auto spots = truthoverlay::findMarkers(withMarker(plainField(), centre, ageMs), field);
    QCOMPARE(spots.size(), 1);
    QVERIFY2(
        distance(spots[0].centre, centre) < cleanPx, qPrintable(QString::number(distance(spots[0].centre, centre))));
    QVERIFY2(std::abs(spots[0].radius - radiusAt(ageMs)) < 0.3, qPrintable(QString::number(spots[0].radius)));
}

void TruthOverlayTest::markerIsFoundAfterEncoding()
{
    QList<QImage> frames;
    const QPointF centre(301.4, 198.7);
    const QList<double> agesMs{0, 250, 500, 750, 1000, 1250};
    for (const double ageMs : agesMs)
        frames.append(withMarker(plainField(), centre, ageMs));
    const QList<QImage> decoded = encodedAndDecoded(frames);
    QCOMPARE(decoded.size(), agesMs.size());
    for (qsizetype i = 0; i < agesMs.size(); ++i) {
        const auto spots = truthoverlay::findMarkers(decoded[i], field);
        QVERIFY2(spots.size() == 1, qPrintable(QStringLiteral("%1 spots at %2 ms").arg(spots.size()).arg(agesMs[i])));
        QVERIFY2(distance(spots[0].centre, centre) < encodedPx,
            qPrintable(QString::number(distance(spots[0].centre, centre))));
        QVERIFY2(std::abs(spots[0].radius - radiusAt(agesMs[i])) < 0.8,
            qPrintable(QStringLiteral("radius %1 at %2 ms").arg(spots[0].radius).arg(agesMs[i])));
    }
}

/// A click is made where the pointer is: black and white below the marker move nothing.
void TruthOverlayTest::markerIsFoundOverThePointer()
{
    const QPointF point(300.4, 200.6);
    const auto spots = truthoverlay::findMarkers(withMarker(withPointer(point, 1.0), point, 300), field);
    QCOMPARE(spots.size(), 1);
    QVERIFY2(
        distance(spots[0].centre, point) < encodedPx, qPrintable(QString::number(distance(spots[0].centre, point))));
}

void TruthOverlayTest::twoMarkersAreTwoSpots()
{
    const QImage frame = withMarker(withMarker(plainField(), {100, 100}, 0), {400, 300}, 1000);
    const auto spots = truthoverlay::findMarkers(frame, field);
    QCOMPARE(spots.size(), 2);
    QVERIFY(distance(spots[0].centre, {100, 100}) < cleanPx);
    QVERIFY(distance(spots[1].centre, {400, 300}) < cleanPx);
}

void TruthOverlayTest::noMarkerWithoutRed()
{
    QCOMPARE(truthoverlay::findMarkers(plainField(), field).size(), 0);
    QCOMPARE(truthoverlay::findMarkers(withPointer({300, 200}, 2.0), field).size(), 0);
    QCOMPARE(truthoverlay::findMarkers(withMarker(plainField(), {5, 5}, 1900), field).size(), 0);
    QImage speck = plainField();
    speck.setPixel(300, 200, qRgb(200, 40, 60));
    QCOMPARE(truthoverlay::findMarkers(speck, field).size(), 0);
}

/// The outline's points, one by one: a white inside, a black rim around it, and grey beyond.
void TruthOverlayTest::arrowKeepsItsOutline()
{
    const QImage frame = withPointer({300, 200}, 4.0);
    const auto brightness = [&](double x, double y) {
        return qGray(frame.pixel(int(std::floor(300 + 4 * x)), int(std::floor(200 + 4 * y))));
    };
    for (const QPointF& inside : {QPointF(2, 6), QPointF(3, 17), QPointF(12, 13), QPointF(11, 24), QPointF(0.25, 22)})
        QVERIFY2(brightness(inside.x(), inside.y()) > 250, qPrintable(QString::number(inside.y())));
    for (const QPointF& rim :
        {QPointF(-1, 10), QPointF(-1, 20), QPointF(16, 16), QPointF(10, 28), QPointF(-0.7, -0.7)})
        QVERIFY2(brightness(rim.x(), rim.y()) < 60, qPrintable(QString::number(rim.y())));
    for (const QPointF& outside : {QPointF(-2.5, 10), QPointF(20, 5), QPointF(3, 24), QPointF(16, 20)})
        QCOMPARE(brightness(outside.x(), outside.y()), 128);
}

ORVANTIS_TEST(TruthOverlayTest)
#include "truthoverlay_test.moc"

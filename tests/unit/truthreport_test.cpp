// The truth report: every number in it is provoked by frames of which the right answer is known.
#include "testregistry.h"
#include "truthframes.h"
#include "truthoverlay.h"
#include "truthreport.h"

#include <QPainter>
#include <QTest>

#include <cmath>

using namespace truthframes;

namespace {

TruthReport measured(const QList<Frame>& frames)
{
    TruthMeter meter(plainQuery(), windowSize);
    for (const Frame& frame : frames)
        meter.add(windowWith(frame.stamp), frame.ptsMs);
    return meter.report();
}

}

class TruthReportTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void missedSlotsAreCounted_data();
    void missedSlotsAreCounted();
    void steadyRecordingHasNoErrors();
    void lostFramesAreMissedAndRepeated();
    void stillWindowHasNoTiming();
    void slowWindowMayRepeat();
    void unreadableFramesCountAsFrames();
    void emptyRecording();
    void lateFramesAreTimeErrors();
    void driftIsASlope_data();
    void driftIsASlope();
    void clockMayWrapAround();
    void colourErrorsArePerPatchAndChannel();
    void onlyTheMiddleOfAPatchCounts();
    void pointerErrorIsADistance();
    void hiddenPointerIsNeverSeen();
    void markerIsFollowed();
    void secondMarkerIsToldApart();
};

void TruthReportTest::missedSlotsAreCounted_data()
{
    QTest::addColumn<QList<double>>("ptsMs");
    QTest::addColumn<int>("missed");
    QTest::newRow("nothing") << QList<double>() << 0;
    QTest::newRow("one frame") << QList<double>{500} << 0;
    QTest::newRow("steady") << QList<double>{0, 41, 82, 123} << 0;
    QTest::newRow("jitter") << QList<double>{0, 61, 82, 123} << 0;
    QTest::newRow("just too long") << QList<double>{0, 61.5} << 1;
    QTest::newRow("one") << QList<double>{0, 41, 123, 164} << 1;
    QTest::newRow("four in two gaps") << QList<double>{0, 82, 246 + 3, 287} << 1 + 3;
    QTest::newRow("half a second") << QList<double>{0, 500} << 11;
}

void TruthReportTest::missedSlotsAreCounted()
{
    QFETCH(QList<double>, ptsMs);
    QFETCH(int, missed);
    QCOMPARE(missedSlots(ptsMs), missed);
}

void TruthReportTest::steadyRecordingHasNoErrors()
{
    const TruthReport report = measured(steadyFrames(30));
    QCOMPARE(report.error, QString());
    QCOMPARE(report.canvas, windowSize);
    QCOMPARE(report.whereTheWindowIs, QRectF(0, 0, 640, 480));
    QCOMPARE(report.framesInFile, 30);
    QCOMPARE(report.framesDecoded, 30);
    QCOMPARE(report.framesLost(), 0);
    QVERIFY(report.animated);
    QVERIFY(about(report.repaintIntervalMs, 8.0, 0.1));
    QVERIFY(report.timing);
    QCOMPARE(report.timing->medianMs, 0.0);
    QCOMPARE(report.timing->worstMs, 0.0);
    QVERIFY(about(report.timing->driftMsPerMinute, 0.0, 1e-6));
    QCOMPARE(report.patches.size(), 10);
    for (const TruthPatch& patch : report.patches) {
        QCOMPARE(patch.mean, (std::array{0.0, 0.0, 0.0}));
        QCOMPARE(patch.max, (std::array{0, 0, 0}));
    }
    QVERIFY(!report.pointer);
    QVERIFY(report.markers.isEmpty());
}

void TruthReportTest::lostFramesAreMissedAndRepeated()
{
    QList<Frame> frames = steadyFrames(30);
    frames[5].stamp = frames[4].stamp;
    frames[6].stamp = frames[4].stamp;
    frames.removeAt(20);
    frames.removeAt(20);
    frames.removeAt(10);
    const TruthReport report = measured(frames);
    QCOMPARE(report.framesInFile, 27);
    QCOMPARE(report.missedSlots, 3);
    QCOMPARE(report.repeatedFrames, 2);
    QCOMPARE(report.framesLost(), 5);
}

void TruthReportTest::stillWindowHasNoTiming()
{
    QList<Frame> frames = steadyFrames(10);
    for (Frame& frame : frames)
        frame.stamp = frames.first().stamp;
    const TruthReport report = measured(frames);
    QCOMPARE(report.framesDecoded, 10);
    QVERIFY(!report.animated);
    QVERIFY(!report.timing);
    QCOMPARE(report.repeatedFrames, 0);
    QCOMPARE(report.repaintIntervalMs, 0.0);
}

void TruthReportTest::slowWindowMayRepeat()
{
    QList<Frame> frames = steadyFrames(40);
    for (qsizetype i = 0; i < frames.size(); ++i)
        frames[i].stamp = {quint32(i / 2), quint32(5000 + i / 2 * 82)};
    const TruthReport report = measured(frames);
    QVERIFY(about(report.repaintIntervalMs, 82.0, 0.1));
    QVERIFY(!report.animated);
    QCOMPARE(report.repeatedFrames, 0);
}

void TruthReportTest::unreadableFramesCountAsFrames()
{
    TruthMeter meter(plainQuery(), windowSize);
    QImage black(windowSize, QImage::Format_RGB32);
    black.fill(Qt::black);
    meter.add(black, 0.0);
    meter.add(windowWith({1, 41}), 41.0);
    meter.add(windowWith({6, 82}).scaled(320, 240), 82.0);
    const TruthReport report = meter.report();
    QCOMPARE(report.framesInFile, 3);
    QCOMPARE(report.framesDecoded, 1);
    QCOMPARE(report.patches[0].max, (std::array{0, 0, 0}));
}

void TruthReportTest::emptyRecording()
{
    const TruthReport report = measured({});
    QCOMPARE(report.framesInFile, 0);
    QCOMPARE(report.framesDecoded, 0);
    QVERIFY(!report.timing);
    QVERIFY(std::isnan(report.patches[0].mean[0]));
}

void TruthReportTest::lateFramesAreTimeErrors()
{
    QList<Frame> frames = steadyFrames(40);
    for (Frame& frame : frames)
        frame.ptsMs += 700; // taken away with the median
    frames[3].ptsMs += 20;
    frames[9].ptsMs -= 12;
    frames[30].ptsMs += 5;
    const TruthReport report = measured(frames);
    QVERIFY(report.timing);
    QCOMPARE(report.timing->medianMs, 0.0);
    QVERIFY(about(report.timing->p95Ms, 5.0, 1e-9)); // the third largest of 40
    QVERIFY(about(report.timing->worstMs, 20.0, 1e-9));
}

void TruthReportTest::driftIsASlope_data()
{
    QTest::addColumn<double>("share");
    QTest::newRow("file runs slow") << 0.001;
    QTest::newRow("file runs fast") << -0.002;
}

void TruthReportTest::driftIsASlope()
{
    QFETCH(double, share);
    QList<Frame> frames = steadyFrames(240);
    for (Frame& frame : frames)
        frame.ptsMs *= 1.0 + share;
    const TruthReport steady = measured(frames);
    QVERIFY(steady.timing);
    QVERIFY(about(steady.timing->driftMsPerMinute, share * 60'000, 1e-6));

    frames.last().ptsMs += 500; // one very late frame is no drift
    const TruthReport disturbed = measured(frames);
    QVERIFY(disturbed.timing);
    QVERIFY(about(disturbed.timing->driftMsPerMinute, share * 60'000, 2.0));
}

void TruthReportTest::clockMayWrapAround()
{
    const TruthReport report = measured(steadyFrames(30, 0xffffffffu - 500));
    QVERIFY(report.timing);
    QCOMPARE(report.timing->worstMs, 0.0);
    QVERIFY(about(report.repaintIntervalMs, 8.0, 0.1));
}

void TruthReportTest::colourErrorsArePerPatchAndChannel()
{
    TruthMeter meter(plainQuery(), windowSize);
    constexpr qsizetype skin = 6;
    QCOMPARE(truthscene::patchColours[skin], qRgb(224, 172, 138));
    for (int i = 0; i < 2; ++i) {
        QImage window = windowWith({quint32(i), quint32(i)});
        QPainter(&window).fillRect(
            truthscene::layout(windowSize).patches[skin], QColor(224 - 3, 172, 138 + 7 + 2 * i));
        meter.add(window, i * 41.0);
    }
    const TruthReport report = meter.report();
    QCOMPARE(report.patches[skin].mean, (std::array{3.0, 0.0, 8.0}));
    QCOMPARE(report.patches[skin].max, (std::array{3, 0, 9}));
    QCOMPARE(report.patches[skin - 1].max, (std::array{0, 0, 0}));
    QCOMPARE(report.patches[skin + 1].max, (std::array{0, 0, 0}));
}

void TruthReportTest::onlyTheMiddleOfAPatchCounts()
{
    TruthMeter meter(plainQuery(), windowSize);
    QImage window = windowWith({});
    const QRect patch = truthscene::layout(windowSize).patches[0];
    QPainter painter(&window);
    painter.fillRect(QRect(patch.topLeft(), QSize(patch.width(), 8)), Qt::blue);
    painter.fillRect(QRect(patch.topLeft(), QSize(8, patch.height())), Qt::blue);
    painter.end();
    meter.add(window, 0.0);
    QCOMPARE(meter.report().patches[0].max, (std::array{0, 0, 0}));
}

void TruthReportTest::pointerErrorIsADistance()
{
    TruthQuery query = plainQuery();
    query.pointer = QPointF(200, 300);
    const QSize canvas(1280, 960); // everything is twice as large
    TruthMeter meter(query, canvas);
    for (int i = 0; i < 3; ++i) {
        QImage image = windowWith({quint32(i), quint32(i)}).scaled(canvas);
        QPainter painter(&image);
        truthoverlay::drawPointer(painter, i < 2 ? QPointF(400, 600) : QPointF(403, 604), 2.0);
        painter.end();
        meter.add(image, i * 41.0);
    }
    const TruthReport report = meter.report();
    QVERIFY(report.pointer);
    QCOMPARE(report.pointer->expected, QPointF(400, 600));
    QCOMPARE(report.pointer->framesSeen, 3);
    QVERIFY(about(report.pointer->medianErrorPx, 0.0, 0.3));
    QVERIFY(about(report.pointer->worstErrorPx, 5.0, 0.3));
}

void TruthReportTest::hiddenPointerIsNeverSeen()
{
    TruthQuery query = plainQuery();
    query.pointer = QPointF(200, 300);
    TruthMeter meter(query, windowSize);
    meter.add(windowWith({}), 0.0);
    const TruthReport report = meter.report();
    QVERIFY(report.pointer);
    QCOMPARE(report.pointer->framesSeen, 0);
    QVERIFY(std::isnan(report.pointer->medianErrorPx));
}

void TruthReportTest::markerIsFollowed()
{
    TruthQuery query = plainQuery();
    query.markers = {QPointF(300, 250)};
    TruthMeter meter(query, windowSize);
    constexpr double clickMs = 410;
    for (const Frame& frame : steadyFrames(80)) {
        QImage image = windowWith(frame.stamp);
        const double ageMs = frame.ptsMs - clickMs;
        QPainter painter(&image);
        if (ageMs >= 0 && ageMs <= 2000)
            truthoverlay::drawMarker(painter, QPointF(301.5, 252), ageMs);
        painter.end();
        meter.add(image, frame.ptsMs);
    }
    const TruthReport report = meter.report();
    QCOMPARE(report.markers.size(), 1);
    const TruthMarker& marker = report.markers[0];
    QCOMPARE(marker.expected, QPointF(300, 250));
    QCOMPARE(marker.firstSeenPtsMs, clickMs);
    QCOMPARE(marker.lastSeenPtsMs, clickMs + 48 * 41);
    QCOMPARE(marker.samples.size(), 49);
    QVERIFY(about(marker.medianErrorPx, 2.5, 0.2));
    QVERIFY(about(marker.worstErrorPx, 2.5, 0.3));
    for (const TruthMarker::Sample& sample : marker.samples)
        QVERIFY(about(sample.radius, std::max(16 - (sample.ptsMs - clickMs) / 125, 2.0), 0.4));
}

void TruthReportTest::secondMarkerIsToldApart()
{
    TruthQuery query = plainQuery();
    query.markers = {QPointF(100, 300), QPointF(500, 300), QPointF(300, 400)};
    TruthMeter meter(query, windowSize);
    QImage image = windowWith({});
    QPainter painter(&image);
    truthoverlay::drawMarker(painter, QPointF(101, 300), 0);
    truthoverlay::drawMarker(painter, QPointF(500, 302), 500);
    truthoverlay::drawMarker(painter, QPointF(240, 400), 0); // too far from all of them
    painter.end();
    meter.add(image, 70.0);
    const TruthReport report = meter.report();
    QVERIFY(about(report.markers[0].worstErrorPx, 1.0, 0.2));
    QVERIFY(about(report.markers[1].worstErrorPx, 2.0, 0.2));
    QVERIFY(report.markers[2].samples.isEmpty());
    QVERIFY(std::isnan(report.markers[2].firstSeenPtsMs));
}

ORVANTIS_TEST(TruthReportTest)
#include "truthreport_test.moc"

// The truth report on files, and its texts.
#include "clipwriter.h"
#include "privatetempdir.h"
#include "testregistry.h"
#include "truthframes.h"
#include "truthoverlay.h"
#include "truthreporttext.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPainter>
#include <QTest>

#include <algorithm>

using namespace truthframes;

namespace {

/// A clip of the window on a larger canvas, with bars, and a report on it.
TruthReport measuredClip(const ClipOptions& options, QSize canvasSize, const TruthQuery& query)
{
    const PrivateTempDir directory;
    const QString path = directory.filePath(QStringLiteral("clip.mp4"));
    ClipWriter clip(path, canvasSize, options);
    for (const Frame& frame : steadyFrames(12)) {
        QImage canvas(canvasSize, QImage::Format_RGB32);
        canvas.fill(Qt::black);
        QPainter painter(&canvas);
        painter.setRenderHint(QPainter::SmoothPixmapTransform);
        painter.drawImage(
            truthscene::letterboxed(windowSize, canvasSize), windowWith(frame.stamp), QRectF(QPointF(), windowSize));
        painter.end();
        if (!clip.add(canvas, qint64(frame.ptsMs)))
            break;
    }
    TruthReport report;
    report.error = clip.finish() ? QString() : clip.errorString();
    return report.error.isEmpty() ? measureTruth(path, query) : report;
}

}

class TruthClipTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void encodedClipIsMeasured();
    void untaggedColoursAreNoticed();
    void wrongTagIsAColourError();
    void whatIsMissingIsAnError();
    void textsHoldTheNumbers();
};

void TruthClipTest::encodedClipIsMeasured()
{
    const TruthReport report = measuredClip({}, QSize(960, 600), plainQuery());
    QCOMPARE(report.error, QString());
    QVERIFY(report.coloursTagged);
    QCOMPARE(report.canvas, QSize(960, 600));
    QCOMPARE(report.whereTheWindowIs, QRectF(80, 0, 800, 600));
    QCOMPARE(report.framesInFile, 12);
    QCOMPARE(report.framesDecoded, 12);
    QCOMPARE(report.framesLost(), 0);
    QVERIFY(report.timing && about(report.timing->worstMs, 0.0, 1e-6));
    for (const TruthPatch& patch : report.patches) {
        for (const double error : patch.mean)
            QVERIFY(about(error, 0.0, 4.0));
    }
}

void TruthClipTest::untaggedColoursAreNoticed()
{
    ClipOptions options;
    options.taggedMatrix = AVCOL_SPC_UNSPECIFIED;
    const TruthReport report = measuredClip(options, windowSize, plainQuery());
    QCOMPARE(report.error, QString());
    QVERIFY(!report.coloursTagged);
    QVERIFY(truthReportTable(report).contains(QStringLiteral("NOT TAGGED")));
}

/// The reader converts as the file says, so a file that says the wrong thing shows the wrong colours.
void TruthClipTest::wrongTagIsAColourError()
{
    ClipOptions options;
    options.taggedMatrix = AVCOL_SPC_BT709;
    const TruthReport report = measuredClip(options, windowSize, plainQuery());
    QVERIFY(report.coloursTagged);
    double worst = 0.0;
    for (const TruthPatch& patch : report.patches)
        worst = std::max({worst, patch.mean[0], patch.mean[1], patch.mean[2]});
    QVERIFY2(worst > 20.0, qPrintable(QString::number(worst)));
}

void TruthClipTest::whatIsMissingIsAnError()
{
    QVERIFY(!measureTruth(QStringLiteral("/nowhere/clip.mp4"), plainQuery()).error.isEmpty());
    QVERIFY(!measureTruth(QStringLiteral("/dev/null"), plainQuery()).error.isEmpty());
    TruthQuery small = plainQuery();
    small.window = QSize(320, 240);
    QVERIFY(measureTruth(QStringLiteral("/dev/null"), small).error.contains(QStringLiteral("320x240")));
}

void TruthClipTest::textsHoldTheNumbers()
{
    TruthQuery query = plainQuery();
    query.pointer = QPointF(200, 300);
    query.markers = {QPointF(400, 300)};
    TruthMeter meter(query, windowSize);
    for (const Frame& frame : steadyFrames(3)) {
        QImage image = windowWith(frame.stamp);
        QPainter painter(&image);
        truthoverlay::drawMarker(painter, QPointF(400, 300), frame.ptsMs);
        painter.end();
        meter.add(image, frame.ptsMs * 3);
    }
    const TruthReport report = meter.report();
    const QString table = truthReportTable(report);
    QVERIFY2(table.contains(QStringLiteral("4 (4 missed slots, 0 repeated)")), qPrintable(table));
    QVERIFY2(table.contains(QStringLiteral("seen 0 to 246 ms in 3 frames")), qPrintable(table));

    QJsonParseError parsing{};
    const QJsonObject json = QJsonDocument::fromJson(truthReportJson(report), &parsing).object();
    QCOMPARE(parsing.error, QJsonParseError::NoError);
    QCOMPARE(json[QStringLiteral("framesDecoded")].toInt(), 3);
    QCOMPARE(json[QStringLiteral("framesLost")].toInt(), 4);
    QCOMPARE(json[QStringLiteral("timing")][QStringLiteral("worstMs")].toDouble(), 82.0);
    QCOMPARE(json[QStringLiteral("patches")].toArray().size(), 10);
    QVERIFY(json[QStringLiteral("pointer")][QStringLiteral("medianErrorPx")].isNull());
    QCOMPARE(json[QStringLiteral("markers")][0][QStringLiteral("samples")].toArray().size(), 3);
}

ORVANTIS_TEST(TruthClipTest)
#include "truthclip_test.moc"

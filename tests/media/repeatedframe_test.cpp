// A frame that comes several times in a row is converted once. Every packet shows the right one all the same.
#include "ffmpegfaults.h"
#include "idlerecorder.h"
#include "mediafile.h"
#include "testregistry.h"

#include <QTest>

using namespace ffmpegfaults;

namespace {

const QColor red(200, 30, 40);
const QColor green(20, 160, 60);

/// What the file shows, one letter a frame.
QString shown(const QString& path)
{
    QString letters;
    for (const MediaFrame& frame : MediaFile(path).frames()) {
        const QRgb pixel = frame.image.pixel(frame.image.rect().center());
        constexpr int tolerance = 12; // of the lossy encoder
        if (testimages::channelError(pixel, red.rgb()) <= tolerance)
            letters += QLatin1Char('r');
        else if (testimages::channelError(pixel, green.rgb()) <= tolerance)
            letters += QLatin1Char('g');
        else
            letters += QLatin1Char('?');
    }
    return letters;
}

}

class RepeatedFrameTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { reset(); }

    void everyPacketShowsItsFrame_data();
    void everyPacketShowsItsFrame();
    void frameThatWasPaintedOver();
    void isConvertedOnce();
    void failureIsNotTakenForTheFrame_data();
    void failureIsNotTakenForTheFrame();
    void nextOutputStartsAnew();
    void rehearsalLeavesTheFrameReady();
};

void RepeatedFrameTest::everyPacketShowsItsFrame_data()
{
    QTest::addColumn<bool>("lossless");
    QTest::newRow("mpeg4") << false;
    QTest::newRow("ffv1") << true;
}

void RepeatedFrameTest::everyPacketShowsItsFrame()
{
    QFETCH(const bool, lossless);
    if (lossless)
        surroundings().hiddenEncoders = {"mpeg4"};
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    const QImage redImage = testimages::solid(recorder.canvas(), red);
    const QImage greenImage = testimages::solid(recorder.canvas(), green);
    const QString order = QStringLiteral("rrrgrggrrrrg");
    for (int i = 0; i < order.size(); ++i)
        QVERIFY(recorder->encodeImage(order[i] == QLatin1Char('r') ? redImage : greenImage, i * 41));
    QVERIFY(recorder.finish());
    QCOMPARE(shown(recorder->outputPath()), order);
    const QList<MediaPacket> packets = MediaFile(recorder->outputPath()).packets();
    for (int i = 0; i < packets.size(); ++i)
        QVERIFY2(qAbs(packets[i].ptsMs - i * 41) <= 0.5, qPrintable(QString::number(packets[i].ptsMs)));
}

void RepeatedFrameTest::frameThatWasPaintedOver()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QImage frame = testimages::solid(recorder.canvas(), red);
    QVERIFY(recorder->encodeImage(frame, 0));
    frame.fill(green);
    QVERIFY(recorder->encodeImage(frame, 41));
    QVERIFY(recorder.finish());
    QCOMPARE(shown(recorder->outputPath()), QStringLiteral("rg"));
}

void RepeatedFrameTest::isConvertedOnce()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    RecorderProbe::CapturedFrame frame;
    frame.image = testimages::solid(recorder.canvas(), red);
    frame.imageVersion = 1;
    for (int i = 0; i < 5; ++i)
        QVERIFY(recorder->encodeImage(recorder->composeFrame(frame, i * 41), i * 41));
    QCOMPARE(calls(Call::MakeWritable), 1);
    QVERIFY(recorder->encodeImage(testimages::solid(recorder.canvas(), red), 205)); // equal, but not the same image
    QCOMPARE(calls(Call::MakeWritable), 2);
    QVERIFY(recorder.finish());
    QCOMPARE(shown(recorder->outputPath()), QStringLiteral("rrrrrr"));
}

void RepeatedFrameTest::failureIsNotTakenForTheFrame_data()
{
    QTest::addColumn<bool>("converterIsMissing");
    QTest::newRow("frame not writable") << false;
    QTest::newRow("no converter") << true;
}

void RepeatedFrameTest::failureIsNotTakenForTheFrame()
{
    QFETCH(const bool, converterIsMissing);
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    const QImage redImage = testimages::solid(recorder.canvas(), red);
    const QImage greenImage = testimages::solid(recorder.canvas(), green);
    QVERIFY(recorder->encodeImage(redImage, 0));
    SwsContext* const converter = recorder->swsContext();
    if (converterIsMissing)
        recorder->swsContext() = nullptr;
    else
        failOnce(Call::MakeWritable, AVERROR(ENOMEM));
    QVERIFY(!recorder->encodeImage(greenImage, 41));
    recorder->swsContext() = converter;
    QVERIFY(recorder->encodeImage(greenImage, 82));
    QVERIFY(recorder->encodeImage(redImage, 123));
    QVERIFY(recorder.finish());
    QCOMPARE(shown(recorder->outputPath()), QStringLiteral("rgr"));
}

void RepeatedFrameTest::nextOutputStartsAnew()
{
    IdleRecorder recorder;
    const QImage frame = testimages::solid(recorder.canvas(), red);
    for (int i = 0; i < 2; ++i) {
        QVERIFY(recorder->openOutput());
        QVERIFY(recorder->encodeImage(frame, 0));
        QVERIFY(recorder.finish());
        QCOMPARE(shown(recorder->outputPath()), QStringLiteral("r"));
    }
}

void RepeatedFrameTest::rehearsalLeavesTheFrameReady()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    RecorderProbe::CapturedFrame frame;
    frame.image = testimages::solid(recorder.canvas(), green);
    frame.windowBounds = frame.image.rect();
    frame.imageVersion = 1;
    recorder->rehearse(frame);
    QCOMPARE(calls(Call::MakeWritable), 1);
    QCOMPARE(calls(Call::SendFrame), 0);
    QVERIFY(recorder->encodeImage(recorder->composeFrame(frame, 0), 0));
    QCOMPARE(calls(Call::MakeWritable), 1);
    QVERIFY(recorder.finish());
    QCOMPARE(shown(recorder->outputPath()), QStringLiteral("g"));
}

ORVANTIS_TEST(RepeatedFrameTest)
#include "repeatedframe_test.moc"

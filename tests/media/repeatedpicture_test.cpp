// A picture that comes several times in a row is converted once. Every packet shows the right one all the same.
#include "ffmpegfaults.h"
#include "idlerecorder.h"
#include "mediafile.h"

#include <QTest>

using namespace ffmpegfaults;

namespace {

const QColor red(200, 30, 40);
const QColor green(20, 160, 60);

/// What the file shows, one letter a picture.
QString shown(const QString& path)
{
    QString letters;
    for (const MediaFrame& frame : MediaFile(path).frames()) {
        const QRgb pixel = frame.image.pixel(frame.image.rect().center());
        constexpr int tolerance = 12; // of the lossy encoder
        if (testpictures::channelError(pixel, red.rgb()) <= tolerance)
            letters += QLatin1Char('r');
        else if (testpictures::channelError(pixel, green.rgb()) <= tolerance)
            letters += QLatin1Char('g');
        else
            letters += QLatin1Char('?');
    }
    return letters;
}

}

class RepeatedPictureTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { reset(); }

    void everyPacketShowsItsPicture_data();
    void everyPacketShowsItsPicture();
    void pictureThatWasPaintedOver();
    void isConvertedOnce();
    void failureIsNotTakenForThePicture_data();
    void failureIsNotTakenForThePicture();
    void nextOutputStartsAnew();
    void rehearsalLeavesThePictureReady();
};

void RepeatedPictureTest::everyPacketShowsItsPicture_data()
{
    QTest::addColumn<bool>("lossless");
    QTest::newRow("mpeg4") << false;
    QTest::newRow("ffv1") << true;
}

void RepeatedPictureTest::everyPacketShowsItsPicture()
{
    QFETCH(const bool, lossless);
    if (lossless)
        surroundings().hiddenEncoders = {"mpeg4"};
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    const QImage redPicture = testpictures::solid(recorder.canvas(), red);
    const QImage greenPicture = testpictures::solid(recorder.canvas(), green);
    const QString order = QStringLiteral("rrrgrggrrrrg");
    for (int i = 0; i < order.size(); ++i)
        QVERIFY(recorder->encodeImage(order[i] == QLatin1Char('r') ? redPicture : greenPicture, i * 41));
    QVERIFY(recorder.finish());
    QCOMPARE(shown(recorder->outputPath()), order);
    const QList<MediaPacket> packets = MediaFile(recorder->outputPath()).packets();
    for (int i = 0; i < packets.size(); ++i)
        QVERIFY2(qAbs(packets[i].ptsMs - i * 41) <= 0.5, qPrintable(QString::number(packets[i].ptsMs)));
}

void RepeatedPictureTest::pictureThatWasPaintedOver()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QImage picture = testpictures::solid(recorder.canvas(), red);
    QVERIFY(recorder->encodeImage(picture, 0));
    picture.fill(green);
    QVERIFY(recorder->encodeImage(picture, 41));
    QVERIFY(recorder.finish());
    QCOMPARE(shown(recorder->outputPath()), QStringLiteral("rg"));
}

void RepeatedPictureTest::isConvertedOnce()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    const QImage picture = testpictures::solid(recorder.canvas(), red);
    for (int i = 0; i < 5; ++i)
        QVERIFY(recorder->encodeImage(picture, i * 41));
    QCOMPARE(calls(Call::MakeWritable), 1);
    QVERIFY(recorder->encodeImage(testpictures::solid(recorder.canvas(), red), 205)); // equal, but another one
    QCOMPARE(calls(Call::MakeWritable), 2);
    QVERIFY(recorder.finish());
    QCOMPARE(shown(recorder->outputPath()), QStringLiteral("rrrrrr"));
}

void RepeatedPictureTest::failureIsNotTakenForThePicture_data()
{
    QTest::addColumn<bool>("converterIsMissing");
    QTest::newRow("frame not writable") << false;
    QTest::newRow("no converter") << true;
}

void RepeatedPictureTest::failureIsNotTakenForThePicture()
{
    QFETCH(const bool, converterIsMissing);
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    const QImage redPicture = testpictures::solid(recorder.canvas(), red);
    const QImage greenPicture = testpictures::solid(recorder.canvas(), green);
    QVERIFY(recorder->encodeImage(redPicture, 0));
    SwsContext* const converter = recorder->swsContext();
    if (converterIsMissing)
        recorder->swsContext() = nullptr;
    else
        failOnce(Call::MakeWritable, AVERROR(ENOMEM));
    QVERIFY(!recorder->encodeImage(greenPicture, 41));
    recorder->swsContext() = converter;
    QVERIFY(recorder->encodeImage(greenPicture, 82));
    QVERIFY(recorder->encodeImage(redPicture, 123));
    QVERIFY(recorder.finish());
    QCOMPARE(shown(recorder->outputPath()), QStringLiteral("rgr"));
}

void RepeatedPictureTest::nextOutputStartsAnew()
{
    IdleRecorder recorder;
    const QImage picture = testpictures::solid(recorder.canvas(), red);
    for (int i = 0; i < 2; ++i) {
        QVERIFY(recorder->openOutput());
        QVERIFY(recorder->encodeImage(picture, 0));
        QVERIFY(recorder.finish());
        QCOMPARE(shown(recorder->outputPath()), QStringLiteral("r"));
    }
}

void RepeatedPictureTest::rehearsalLeavesThePictureReady()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    RecorderProbe::CapturedFrame frame;
    frame.image = testpictures::solid(recorder.canvas(), green);
    frame.windowBounds = frame.image.rect();
    recorder->rehearse(frame);
    QCOMPARE(calls(Call::MakeWritable), 1);
    QCOMPARE(calls(Call::SendFrame), 0);
    QVERIFY(recorder->encodeImage(recorder->composeFrame(frame, 0), 0));
    QCOMPARE(calls(Call::MakeWritable), 1);
    QVERIFY(recorder.finish());
    QCOMPARE(shown(recorder->outputPath()), QStringLiteral("g"));
}

QTEST_GUILESS_MAIN(RepeatedPictureTest)
#include "repeatedpicture_test.moc"

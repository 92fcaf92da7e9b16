// The MP4 file: what it states about its frames, when each one is shown, and where its bytes are.
#include "idlerecorder.h"
#include "mediafile.h"
#include "mp4boxes.h"
#include "testregistry.h"

#include <QDir>
#include <QFileInfo>
#include <QTest>

class Mp4OutputTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void streamIsDescribed();
    void recordingWithoutAudioHasOneStream();
    void openedLineNamesEverything();

    void muxerTimeBaseDiffersAndTimesAreRight();
    void packetsKeepTheGivenTimes_data();
    void packetsKeepTheGivenTimes();
    void timesCountFromTheFirstFrame_data();
    void timesCountFromTheFirstFrame();
    void dayWithoutFramesCostsOneAtMost();
    void durationsReachTheNextFrame();
    void everyFrameIsDecoded();
    void blackFrameIsAtZero();

    void directoriesAreMade();
    void existingFileIsReplaced();
    void nameKeepsBlanksAndForeignLetters();
};

void Mp4OutputTest::streamIsDescribed()
{
    IdleRecorder recorder(QStringLiteral("clip.mp4"), QSize(322, 242));
    QVERIFY(recorder.record(IdleRecorder::steadyTimes(3)));
    QVERIFY(recorder.wasQuiet());
    const MediaFile file(recorder->outputPath());
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QVERIFY(file.containerName().split(QLatin1Char(',')).contains(QStringLiteral("mp4")));
    const MediaStream* const video = file.videoStream();
    QVERIFY(video);
    QCOMPARE(video->index, 0);
    QCOMPARE(video->codecId, AV_CODEC_ID_MPEG4);
    QCOMPARE(video->codecTag, quint32(MKTAG('m', 'p', '4', 'v')));
    QCOMPARE(video->size, QSize(322, 242));
    QCOMPARE(video->pixelFormat, AV_PIX_FMT_YUV420P);
    QCOMPARE(video->primaries, AVCOL_PRI_BT709);
    QCOMPARE(video->transfer, AVCOL_TRC_IEC61966_2_1);
    QCOMPARE(video->matrix, AVCOL_SPC_SMPTE170M);
    QCOMPARE(video->range, AVCOL_RANGE_MPEG);
}

void Mp4OutputTest::recordingWithoutAudioHasOneStream()
{
    IdleRecorder recorder;
    QVERIFY(recorder.record({0}));
    QCOMPARE(recorder.log().count(QStringLiteral("Continuing video recording without audio.")), 1);
    QCOMPARE(MediaFile(recorder->outputPath()).streams().size(), 1);
}

void Mp4OutputTest::openedLineNamesEverything()
{
    IdleRecorder recorder(QStringLiteral("one clip.mp4"), QSize(1920, 1080));
    QVERIFY(recorder->openOutput());
    QCOMPARE(recorder.log().messages(QtDebugMsg),
        QStringList{QStringLiteral("FFmpeg recorder using video encoder \"mpeg4\" output \"%1\" container mp4 "
                                   "pixel format yuv420p bitrate 12441600")
                        .arg(recorder->outputPath())});
    QCOMPARE(recorder->videoEncoderName(), QStringLiteral("mpeg4"));
}

void Mp4OutputTest::muxerTimeBaseDiffersAndTimesAreRight()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QCOMPARE(recorder->videoCodecContext()->time_base.num, 1);
    QCOMPARE(recorder->videoCodecContext()->time_base.den, 1000);
    const AVRational fileTimeBase = recorder->videoStream()->time_base;
    QVERIFY2(av_cmp_q(fileTimeBase, recorder->videoCodecContext()->time_base) != 0, "nothing is left to rescale");
    QVERIFY(recorder.encode({0, 41, 1000}));
    QVERIFY(recorder.finish());

    MediaFile file(recorder->outputPath());
    QCOMPARE(av_cmp_q(file.videoStream()->timeBase, fileTimeBase), 0);
    const QList<MediaPacket> packets = file.packets();
    QCOMPARE(packets.size(), 3);
    QCOMPARE(packets[1].pts, av_rescale_q(41, AVRational{1, 1000}, fileTimeBase));
    QCOMPARE(packets[2].pts, av_rescale_q(1000, AVRational{1, 1000}, fileTimeBase));
    QCOMPARE(packets[2].ptsMs, 1000.0);
}

void Mp4OutputTest::packetsKeepTheGivenTimes_data()
{
    QTest::addColumn<QList<qint64>>("timesMs");
    constexpr qint64 hour = 3600 * 1000;
    QTest::newRow("steady") << IdleRecorder::steadyTimes(50);
    QTest::newRow("late and early") << QList<qint64>{0, 44, 81, 130, 164, 202, 287, 288, 330, 1371};
    QTest::newRow("every millisecond") << QList<qint64>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    QTest::newRow("an hour without frames") << QList<qint64>{0, 41, hour, hour + 41};
    QList<qint64> fortnight;
    for (qint64 t = 0; t <= 14 * 24 * hour; t += hour)
        fortnight.append(t);
    QTest::newRow("a fortnight, a frame an hour") << fortnight;
}

void Mp4OutputTest::packetsKeepTheGivenTimes()
{
    QFETCH(const QList<qint64>, timesMs);
    IdleRecorder recorder;
    QVERIFY(recorder.record(timesMs));
    QVERIFY(recorder.wasQuiet());
    MediaFile file(recorder->outputPath());
    const QList<MediaPacket> packets = file.packets();
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QCOMPARE(packets.size(), timesMs.size());
    for (qsizetype i = 0; i < packets.size(); ++i) {
        QCOMPARE(packets[i].ptsMs, double(timesMs[i]));
        QCOMPARE(packets[i].dts, packets[i].pts);
    }
}

void Mp4OutputTest::timesCountFromTheFirstFrame_data()
{
    QTest::addColumn<qint64>("firstMs");
    QTest::newRow("3 ms") << qint64(3);
    QTest::newRow("5 s") << qint64(5000);
    QTest::newRow("a fortnight") << qint64(14) * 24 * 3600 * 1000;
}

/// A fragmented file begins with its first frame, whatever that one's time; the distances stay.
void Mp4OutputTest::timesCountFromTheFirstFrame()
{
    QFETCH(const qint64, firstMs);
    IdleRecorder recorder;
    QVERIFY(recorder.record({firstMs, firstMs + 41, firstMs + 90}));
    QVERIFY(recorder.wasQuiet());
    MediaFile file(recorder->outputPath());
    const QList<MediaPacket> packets = file.packets();
    QCOMPARE(packets.size(), 3);
    QCOMPARE(packets[0].ptsMs, 0.0);
    QCOMPARE(packets[1].ptsMs, 41.0);
    QCOMPARE(packets[2].ptsMs, 90.0);
}

/// MPEG-4 has no way to say that a frame is shown for more than an hour. FFmpeg may refuse the frame that
/// follows; the recording goes on after it.
void Mp4OutputTest::dayWithoutFramesCostsOneAtMost()
{
    constexpr qint64 dayMs = 24 * 3600 * 1000;
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QVERIFY(recorder.encode(IdleRecorder::steadyTimes(10)));
    const bool accepted = recorder.encode({dayMs}, 10);
    QCOMPARE(recorder.criticals().size(), accepted ? 0 : 1);
    QVERIFY(recorder.encode({dayMs + 41, dayMs + 82}, 11));
    QVERIFY(recorder.finish());

    MediaFile file(recorder->outputPath());
    const QList<MediaFrame> frames = file.frames();
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QCOMPARE(frames.size(), accepted ? 13 : 12);
    QCOMPARE(frames.constLast().ptsMs, double(dayMs + 82));
    QVERIFY(testimages::channelError(frames.constLast().image.pixel(12 * 2 + 15, 120), qRgb(200, 190, 120)) <= 10);
}

void Mp4OutputTest::durationsReachTheNextFrame()
{
    const QList<qint64> times{0, 41, 82, 400, 441, 460, 3000, 3041};
    IdleRecorder recorder;
    QVERIFY(recorder.record(times));
    MediaFile file(recorder->outputPath());
    const QList<MediaPacket> packets = file.packets();
    QCOMPARE(packets.size(), times.size());
    for (qsizetype i = 0; i + 1 < packets.size(); ++i)
        QCOMPARE(packets[i].durationMs, double(times[i + 1] - times[i]));
    QCOMPARE(packets.constLast().durationMs, 41.0);
}

void Mp4OutputTest::everyFrameIsDecoded()
{
    const QList<qint64> times = IdleRecorder::steadyTimes(55);
    IdleRecorder recorder;
    QVERIFY(recorder.record(times));
    MediaFile file(recorder->outputPath());
    const QList<MediaFrame> frames = file.frames();
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QCOMPARE(frames.size(), times.size());
    for (qsizetype i = 0; i < frames.size(); ++i) {
        QCOMPARE(frames[i].ptsMs, double(times[i]));
        // The square's middle, where the frame's number puts it, and a place that it has left or not reached.
        const QImage& image = frames[i].image;
        QVERIFY(testimages::channelError(image.pixel(int(i) * 2 + 15, 120), qRgb(200, 190, 120)) <= 10);
        QVERIFY(testimages::channelError(image.pixel(int(i) * 2 + 60, 120), qRgb(40, 44, 60)) <= 10);
    }
}

void Mp4OutputTest::blackFrameIsAtZero()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QVERIFY(recorder->encodeImage(testimages::solid(recorder.canvas(), Qt::black), 0));
    QVERIFY(recorder.finish());
    MediaFile file(recorder->outputPath());
    const QList<MediaPacket> packets = file.packets();
    QCOMPARE(packets.size(), 1);
    QCOMPARE(packets[0].pts, 0);
    QVERIFY(packets[0].key);
    QCOMPARE(packets[0].durationMs, 41.0);
    const QList<MediaFrame> frames = file.frames();
    QCOMPARE(frames.size(), 1);
    QVERIFY(testimages::channelError(frames[0].image.pixel(160, 120), qRgb(0, 0, 0)) <= 2);
}

void Mp4OutputTest::directoriesAreMade()
{
    IdleRecorder recorder(QStringLiteral("not/yet/there/clip.mp4"));
    QVERIFY(recorder.record({0}));
    QVERIFY(MediaFile(recorder.filePath(QStringLiteral("not/yet/there/clip.mp4"))).videoStream());
}

void Mp4OutputTest::existingFileIsReplaced()
{
    IdleRecorder recorder;
    QFile old(recorder->outputPath());
    QVERIFY(old.open(QIODevice::WriteOnly));
    old.write(QByteArray(1000000, 'x'));
    old.close();
    QVERIFY(recorder.record({0}));
    const QList<Mp4Box> boxes = mp4boxes::parseFile(recorder->outputPath());
    QCOMPARE(boxes.constFirst().type, QByteArray("ftyp"));
    QCOMPARE(boxes.constLast().type, QByteArray("mfra"));
    QVERIFY(QFileInfo(recorder->outputPath()).size() < 100000);
}

void Mp4OutputTest::nameKeepsBlanksAndForeignLetters()
{
    const QString name = QString::fromUtf8("Prüfung 画面/a clip: 50% 🎬.mp4");
    IdleRecorder recorder(name);
    QVERIFY(recorder.record({0}));
    QCOMPARE(QDir(recorder.filePath(QString::fromUtf8("Prüfung 画面"))).entryList(QDir::Files),
        QStringList{QString::fromUtf8("a clip: 50% 🎬.mp4")});
    QVERIFY(MediaFile(recorder.filePath(name)).videoStream());
}

ORVANTIS_TEST(Mp4OutputTest)
#include "mp4output_test.moc"

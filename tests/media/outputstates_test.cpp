// The media output's calls in every state: not open, half open, open, drained, closed.
#include "idlerecorder.h"
#include "mediafile.h"
#include "mp4boxes.h"
#include "testregistry.h"

#include <QFileInfo>
#include <QTest>

#include <utility>

class OutputStatesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void callsBeforeOpeningDoNothing();
    void callsAfterClosingDoNothing();
    void closingTwiceIsSilent();
    void closingKeepsWhatIsStillAskedFor();
    void drainingTwiceSucceeds();
    void frameAfterDrainingIsRefused();
    void nothingIsEncodedWithoutItsObjects_data();
    void nothingIsEncodedWithoutItsObjects();
    void nothingIsDrainedWithoutItsObjects();
    void converterThatIsMissingIsReported();
    void destructorEndsTheFile();
    void descriptorsAreClosed();
    void openEncoderIsKept();
    void failedHeaderlessOutputHasNoTrailer();

    void wrongSizeIsRefused_data();
    void wrongSizeIsRefused();
    void timeThatDoesNotAdvanceIsRefused_data();
    void timeThatDoesNotAdvanceIsRefused();

    void framesHoursApart_data();
    void framesHoursApart();

    void hugeCanvasIsRefused_data();
    void hugeCanvasIsRefused();
    void smallestCanvas();
    void canvasesThatPlayersMeet_data();
    void canvasesThatPlayersMeet();
};

void OutputStatesTest::callsBeforeOpeningDoNothing()
{
    IdleRecorder recorder;
    QVERIFY(!recorder->encodeImage(testimages::walking(recorder.canvas(), 0), 0));
    QVERIFY(recorder->drainEncoder());
    recorder->closeOutput();
    QCOMPARE(recorder.log().messages(), QStringList());
    QVERIFY(recorder.isClosed());
    QVERIFY(!QFileInfo::exists(recorder->outputPath()));
}

void OutputStatesTest::callsAfterClosingDoNothing()
{
    IdleRecorder recorder;
    QVERIFY(recorder.record({0}));
    const qint64 size = QFileInfo(recorder->outputPath()).size();
    recorder.log().clear();
    QVERIFY(!recorder->encodeImage(testimages::walking(recorder.canvas(), 1), 41));
    QVERIFY(recorder->drainEncoder());
    QCOMPARE(recorder.log().messages(), QStringList());
    QCOMPARE(QFileInfo(recorder->outputPath()).size(), size);
}

void OutputStatesTest::closingTwiceIsSilent()
{
    IdleRecorder recorder;
    QVERIFY(recorder.record({0, 41}));
    QVERIFY(recorder.isClosed());
    const qint64 size = QFileInfo(recorder->outputPath()).size();
    recorder.log().clear();
    recorder->closeOutput();
    QCOMPARE(recorder.log().messages(), QStringList());
    QVERIFY(recorder.isClosed());
    QCOMPARE(QFileInfo(recorder->outputPath()).size(), size);
}

void OutputStatesTest::closingKeepsWhatIsStillAskedFor()
{
    IdleRecorder recorder;
    recorder->encodedFrameCount() = 7;
    recorder->durationMs() = 321;
    QVERIFY(recorder.record({0}));
    QCOMPARE(recorder->encodedFrameCount(), 7);
    QCOMPARE(recorder->durationMs(), 321u);
    QCOMPARE(recorder->outputPath(), recorder.filePath(QStringLiteral("clip.mp4")));
    QCOMPARE(recorder->videoEncoderName(), QStringLiteral("mpeg4"));
}

void OutputStatesTest::drainingTwiceSucceeds()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QVERIFY(recorder.encode({0, 41}));
    QVERIFY(recorder->drainEncoder());
    QVERIFY(recorder->drainEncoder());
    recorder->closeOutput();
    QVERIFY(recorder.wasQuiet());
    QCOMPARE(MediaFile(recorder->outputPath()).packets().size(), 2);
}

void OutputStatesTest::frameAfterDrainingIsRefused()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QVERIFY(recorder.encode({0}));
    QVERIFY(recorder->drainEncoder());
    QVERIFY(!recorder.encode({41}));
    QCOMPARE(recorder.criticals(), QStringList{QStringLiteral("Unable to send FFmpeg video frame: \"End of file\"")});
    recorder->closeOutput();
    QCOMPARE(MediaFile(recorder->outputPath()).packets().size(), 1);
}

void OutputStatesTest::nothingIsEncodedWithoutItsObjects_data()
{
    QTest::addColumn<QString>("missing");
    for (const char* name : {"encoder", "container", "frame"})
        QTest::newRow(name) << QString::fromLatin1(name);
}

void OutputStatesTest::nothingIsEncodedWithoutItsObjects()
{
    QFETCH(const QString, missing);
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    recorder.log().clear();
    const QImage frame = testimages::walking(recorder.canvas(), 0);
    const auto refusedWithout = [&](auto& member) {
        auto* const taken = std::exchange(member, nullptr);
        const bool refused = !recorder->encodeImage(frame, 0);
        member = taken;
        return refused;
    };
    if (missing == QLatin1String("encoder"))
        QVERIFY(refusedWithout(recorder->videoCodecContext()));
    else if (missing == QLatin1String("container"))
        QVERIFY(refusedWithout(recorder->formatContext()));
    else
        QVERIFY(refusedWithout(recorder->videoFrame()));
    QCOMPARE(recorder.log().messages(), QStringList());
    QVERIFY(recorder->encodeImage(frame, 0));
}

void OutputStatesTest::nothingIsDrainedWithoutItsObjects()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    recorder.log().clear();
    AVCodecContext* const encoder = std::exchange(recorder->videoCodecContext(), nullptr);
    QVERIFY(recorder->drainEncoder());
    recorder->videoCodecContext() = encoder;
    AVFormatContext* const container = std::exchange(recorder->formatContext(), nullptr);
    QVERIFY(recorder->drainEncoder());
    recorder->formatContext() = container;
    QCOMPARE(recorder.log().messages(), QStringList());
    QVERIFY(recorder.encode({0})); // neither call had drained the encoder
}

void OutputStatesTest::converterThatIsMissingIsReported()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    SwsContext* const converter = std::exchange(recorder->swsContext(), nullptr);
    QVERIFY(!recorder.encode({0}));
    QCOMPARE(recorder.criticals(), QStringList{QStringLiteral("FFmpeg pixel conversion context is unavailable.")});
    recorder->swsContext() = converter;
    QVERIFY(recorder.encode({0}));
}

void OutputStatesTest::destructorEndsTheFile()
{
    IdleRecorder recorder;
    const QString path = recorder->outputPath();
    const qsizetype before = openDescriptors();
    QVERIFY(recorder->openOutput());
    QVERIFY(recorder.encode(IdleRecorder::steadyTimes(30)));
    recorder.destroy();
    QVERIFY(openDescriptors() <= before);
    QCOMPARE(mp4boxes::parseFile(path).constLast().type, QByteArray("mfra"));
    QCOMPARE(MediaFile(path).packets().size(), 30);
}

void OutputStatesTest::descriptorsAreClosed()
{
    IdleRecorder recorder;
    const qsizetype before = openDescriptors();
    QVERIFY(recorder->openOutput());
    QCOMPARE(openDescriptors(), before + 1);
    QVERIFY(recorder.encode({0}));
    QVERIFY(recorder.finish());
    QCOMPARE(openDescriptors(), before);
}

/// An encoder that is already there is used: none is opened beside it.
void OutputStatesTest::openEncoderIsKept()
{
    IdleRecorder recorder;
    QVERIFY(recorder->allocateContainer());
    QVERIFY(recorder->tryVideoEncoder(QStringLiteral("mpeg4")));
    const AVCodecContext* const encoder = recorder->videoCodecContext();
    avformat_free_context(std::exchange(recorder->formatContext(), nullptr));
    QVERIFY(recorder->openOutput());
    QCOMPARE(recorder->videoCodecContext(), encoder);
    QVERIFY(recorder.encode({0}));
    QVERIFY(recorder.finish());
    QVERIFY(recorder.wasQuiet());
    QCOMPARE(MediaFile(recorder->outputPath()).packets().size(), 1);
}

void OutputStatesTest::failedHeaderlessOutputHasNoTrailer()
{
    IdleRecorder recorder;
    const qsizetype before = openDescriptors();
    QVERIFY(recorder->allocateContainer());
    QVERIFY(!recorder->headerWritten());
    recorder->closeOutput();
    QVERIFY(recorder.isClosed());
    QVERIFY(recorder.wasQuiet());
    QCOMPARE(openDescriptors(), before);
    QVERIFY(!QFileInfo::exists(recorder->outputPath()));
}

void OutputStatesTest::wrongSizeIsRefused_data()
{
    QTest::addColumn<QSize>("size");
    QTest::newRow("smaller") << QSize(160, 120);
    QTest::newRow("larger") << QSize(640, 480);
    QTest::newRow("narrower") << QSize(318, 240);
    QTest::newRow("lower") << QSize(320, 238);
    QTest::newRow("sides swapped") << QSize(240, 320);
    QTest::newRow("one pixel") << QSize(1, 1);
    QTest::newRow("no frame") << QSize(0, 0);
}

void OutputStatesTest::wrongSizeIsRefused()
{
    QFETCH(const QSize, size);
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QVERIFY(recorder->prepareFrame(testimages::walking(recorder.canvas(), 0), 0));
    recorder->sendPrepared();
    QCOMPARE(recorder->encodedFrameCount(), 1);
    const QImage frame = size.isEmpty() ? QImage() : testimages::solid(size, Qt::red);
    QVERIFY(!recorder->encodeImage(frame, 41));
    QVERIFY(!recorder->prepareFrame(frame, 41)); // as the recording loop does, which counts
    recorder->sendPrepared();
    QCOMPARE(recorder.warnings(),
        QStringList(2,
            QStringLiteral("Skipping frame with unexpected size QSize(%1, %2)")
                .arg(size.width())
                .arg(size.height())));
    QVERIFY(recorder.criticals().isEmpty());
    QCOMPARE(recorder->encodedFrameCount(), 1);
    QVERIFY(recorder.encode({82}));
    QVERIFY(recorder.finish());
    QCOMPARE(MediaFile(recorder->outputPath()).packets().size(), 2);
}

void OutputStatesTest::timeThatDoesNotAdvanceIsRefused_data()
{
    QTest::addColumn<qint64>("timeMs");
    QTest::newRow("the same again") << qint64(41);
    QTest::newRow("back") << qint64(30);
    QTest::newRow("below zero") << qint64(-1);
}

/// FFmpeg refuses it; the recording goes on.
void OutputStatesTest::timeThatDoesNotAdvanceIsRefused()
{
    QFETCH(const qint64, timeMs);
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QVERIFY(recorder.encode({0, 41}));
    QVERIFY(!recorder.encode({timeMs}, 2));
    QCOMPARE(recorder.criticals().size(), 1);
    QVERIFY(recorder.criticals().constFirst().startsWith(QStringLiteral("Unable to send FFmpeg video frame: \"")));
    QVERIFY(recorder.encode({82}, 2));
    QVERIFY(recorder.finish());
    MediaFile file(recorder->outputPath());
    QCOMPARE(file.frames().size(), 3);
    QCOMPARE(file.packets().constLast().ptsMs, 82.0);
}

void OutputStatesTest::framesHoursApart_data()
{
    QTest::addColumn<qint64>("gapMs");
    QTest::addColumn<bool>("key");
    QTest::newRow("an hour") << qint64(3'600'000) << false;
    QTest::newRow("a moment more") << qint64(3'600'001) << true;
    QTest::newRow("a second more") << qint64(3'601'000) << true;
    QTest::newRow("five hours") << qint64(18'000'000) << true;
}

/// A window that was hidden. MPEG-4 cannot state a longer distance than an hour but in front of a key frame.
void OutputStatesTest::framesHoursApart()
{
    QFETCH(const qint64, gapMs);
    QFETCH(const bool, key);
    IdleRecorder recorder;
    const QList<qint64> times{0, 41, 82, 82 + gapMs, 82 + gapMs + 41, 82 + gapMs + 82};
    QVERIFY(recorder.record(times));
    QVERIFY(recorder.wasQuiet());
    MediaFile file(recorder->outputPath());
    const QList<MediaPacket> packets = file.packets();
    QCOMPARE(packets.size(), times.size());
    for (qsizetype i = 0; i < times.size(); ++i) {
        QCOMPARE(packets[i].ptsMs, double(times[i]));
        QCOMPARE(packets[i].key, i == 0 || (i == 3 && key));
    }
    const QList<MediaFrame> frames = file.frames();
    QCOMPARE(frames.size(), times.size());
    for (int i = 0; i < int(times.size()); ++i)
        QVERIFY(testimages::channelError(frames[i].image.pixel(i * 2 + 15, 120), qRgb(200, 190, 120)) <= 10);
}

void OutputStatesTest::hugeCanvasIsRefused_data()
{
    QTest::addColumn<QSize>("size");
    constexpr int widest = 2147483646;
    QTest::newRow("100000x100000") << QSize(100000, 100000);
    QTest::newRow("as wide as can be") << QSize(widest, 16);
    QTest::newRow("as high as can be") << QSize(16, widest);
    QTest::newRow("both") << QSize(widest, widest);
    QTest::newRow("a product of 0 in 32 bits") << QSize(65536, 65536);
}

void OutputStatesTest::hugeCanvasIsRefused()
{
    QFETCH(const QSize, size);
    IdleRecorder recorder(QStringLiteral("clip.mp4"), size);
    QCOMPARE(recorder.canvas(), size);
    const qsizetype before = openDescriptors();
    QVERIFY(!recorder->openOutput());
    QCOMPARE(recorder.warnings(),
        QStringList{QStringLiteral("Unable to open video encoder \"mpeg4\" : \"Invalid argument\"")});
    QCOMPARE(recorder.criticals(),
        QStringList{QStringLiteral("Unable to open FFmpeg FFV1 fallback encoder: \"Invalid argument\"")});
    QVERIFY(!recorder->encodeImage(testimages::solid(QSize(16, 16), Qt::black), 0));
    recorder->closeOutput();
    QVERIFY(recorder.isClosed());
    QCOMPARE(openDescriptors(), before);
    QVERIFY(!QFileInfo::exists(recorder.filePath(QStringLiteral("clip.mp4"))));
    QVERIFY(!QFileInfo::exists(recorder.filePath(QStringLiteral("clip.mkv"))));
}

void OutputStatesTest::smallestCanvas()
{
    IdleRecorder recorder(QStringLiteral("clip.mp4"), QSize(0, 0));
    QCOMPARE(recorder.canvas(), QSize(16, 16));
    QVERIFY(recorder->openOutput());
    for (int i = 0; i < 50; ++i)
        QVERIFY(recorder->encodeImage(testimages::solid(QSize(16, 16), QColor(200, 5 * i, 0)), i * 41));
    QVERIFY(recorder.finish());
    QVERIFY(recorder.wasQuiet());
    const QList<MediaFrame> frames = MediaFile(recorder->outputPath()).frames();
    QCOMPARE(frames.size(), 50);
    for (int i = 0; i < 50; ++i)
        QVERIFY(testimages::channelError(frames[i].image.pixel(8, 8), qRgb(200, 5 * i, 0)) <= 8);
}

void OutputStatesTest::canvasesThatPlayersMeet_data()
{
    QTest::addColumn<QSize>("size");
    QTest::newRow("one row of blocks") << QSize(640, 16);
    QTest::newRow("one column of blocks") << QSize(16, 640);
    QTest::newRow("no multiple of 16") << QSize(1366, 768);
    QTest::newRow("1922x1082") << QSize(1922, 1082);
    QTest::newRow("2560x1440") << QSize(2560, 1440);
    QTest::newRow("the widest that MPEG-4 states") << QSize(8190, 16);
}

void OutputStatesTest::canvasesThatPlayersMeet()
{
    QFETCH(const QSize, size);
    IdleRecorder recorder(QStringLiteral("clip.mp4"), size);
    QVERIFY(recorder.record(IdleRecorder::steadyTimes(3)));
    QVERIFY(recorder.wasQuiet());
    MediaFile file(recorder->outputPath());
    QVERIFY(file.videoStream());
    QCOMPARE(file.videoStream()->size, size);
    QCOMPARE(file.frames().size(), 3);
}

ORVANTIS_TEST(OutputStatesTest)
#include "outputstates_test.moc"

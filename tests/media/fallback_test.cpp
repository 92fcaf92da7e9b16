// Without an encoder for MPEG-4 the recording is lossless FFV1 in Matroska.
#include "ffmpegfaults.h"
#include "idlerecorder.h"
#include "mediafile.h"
#include "testregistry.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

extern "C" {
#include <libavutil/crc.h>
}

using namespace ffmpegfaults;

namespace {

const auto fallbackWarning
    = QStringLiteral("Recording with FFV1 fallback because no preferred video encoder was opened.");

/// FFV1's own check: over a slice and its end (3 bytes of size, a status byte, 4 bytes of checksum) the checksum
/// comes out as 0. A packet ends with its last slice.
bool lastSliceHasChecksum(const QByteArray& packet)
{
    constexpr qsizetype endSize = 8;
    if (packet.size() <= endSize)
        return false;
    const auto* const bytes = reinterpret_cast<const quint8*>(packet.constData());
    const quint8* const end = bytes + packet.size() - endSize;
    const qsizetype sliceSize = (qsizetype(end[0]) << 16) + (qsizetype(end[1]) << 8) + end[2] + endSize;
    return sliceSize <= packet.size()
        && av_crc(av_crc_get_table(AV_CRC_32_IEEE), 0, bytes + packet.size() - sliceSize, std::size_t(sliceSize))
        == 0;
}

}

class FallbackTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup() { reset(); }

    void pathLineAndWarning();
    void onlyTheSuffixOfThePathChanges_data();
    void onlyTheSuffixOfThePathChanges();
    void streamIsDescribed();
    void pixelsAreExact();
    void transparencyIsKept();
    void packetsKeepTheGivenTimes();
    void packetsLastOneFrameInterval();
    void everySliceHasAChecksum();
    void encoderSettings();
    void muxerGetsNoOptions();
    void noConverterIsMade();
    void encoderIsFoundByItsIdToo();
    void canvasTooLargeForMpeg4FallsBack();
};

void FallbackTest::init()
{
    reset();
    surroundings().hiddenEncoders = {"mpeg4"};
}

void FallbackTest::pathLineAndWarning()
{
    IdleRecorder recorder(QStringLiteral("my clip.mp4"));
    const QString path = recorder.filePath(QStringLiteral("my clip.mkv"));
    QVERIFY(recorder->openOutput());
    QCOMPARE(recorder->outputPath(), path);
    QCOMPARE(recorder->videoEncoderName(), QStringLiteral("ffv1"));
    QCOMPARE(recorder.warnings(), QStringList{fallbackWarning});
    QCOMPARE(recorder.log().messages(QtDebugMsg),
        QStringList{
            QStringLiteral("FFmpeg recorder using video encoder \"ffv1\" output \"%1\" container matroska pixel "
                           "format bgra bitrate %2")
                .arg(path)
                .arg(recorder->videoCodecContext()->bit_rate)});
    QVERIFY(recorder.encode(IdleRecorder::steadyTimes(3)));
    QVERIFY(recorder.finish());
    QCOMPARE(recorder->outputPath(), path);
    QCOMPARE(recorder.warnings(), QStringList{fallbackWarning});
    QVERIFY(recorder.criticals().isEmpty());
    QVERIFY(QFileInfo::exists(path));
    QVERIFY(!QFileInfo::exists(recorder.filePath(QStringLiteral("my clip.mp4"))));
}

void FallbackTest::onlyTheSuffixOfThePathChanges_data()
{
    QTest::addColumn<QString>("asked");
    QTest::addColumn<QString>("written");
    QTest::newRow("in a directory") << QStringLiteral("sub/clip.mp4") << QStringLiteral("sub/clip.mkv");
    QTest::newRow("capitals") << QStringLiteral("clip.MP4") << QStringLiteral("clip.mkv");
    QTest::newRow("dots in the name") << QStringLiteral("a.b.mov") << QStringLiteral("a.b.mkv");
    QTest::newRow("dots in the directory") << QStringLiteral("a.d/clip.mp4") << QStringLiteral("a.d/clip.mkv");
    QTest::newRow("hidden") << QStringLiteral(".hidden") << QStringLiteral(".hidden.mkv");
    QTest::newRow("pattern") << QStringLiteral("rec_%03d.mov") << QStringLiteral("rec_001.mkv");
    QTest::newRow("blanks and accents") << QString::fromUtf8("une prise d'été.mp4")
                                        << QString::fromUtf8("une prise d'été.mkv");
}

void FallbackTest::onlyTheSuffixOfThePathChanges()
{
    QFETCH(const QString, asked);
    QFETCH(const QString, written);
    IdleRecorder recorder(asked);
    QVERIFY(recorder.record({0}));
    QCOMPARE(recorder->outputPath(), recorder.filePath(written));
    QVERIFY(MediaFile(recorder.filePath(written)).videoStream());
}

void FallbackTest::streamIsDescribed()
{
    IdleRecorder recorder(QStringLiteral("clip.mp4"), QSize(322, 242));
    QVERIFY(recorder.record(IdleRecorder::steadyTimes(2)));
    const MediaFile file(recorder->outputPath());
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QVERIFY(file.containerName().contains(QStringLiteral("matroska")));
    const MediaStream* const video = file.videoStream();
    QVERIFY(video);
    QCOMPARE(video->codecId, AV_CODEC_ID_FFV1);
    QCOMPARE(video->size, QSize(322, 242));
    QCOMPARE(video->pixelFormat, AV_PIX_FMT_BGRA);
    QCOMPARE(video->primaries, AVCOL_PRI_BT709);
    QCOMPARE(video->transfer, AVCOL_TRC_IEC61966_2_1);
    QCOMPARE(video->matrix, AVCOL_SPC_RGB);
    QCOMPARE(video->range, AVCOL_RANGE_JPEG);
}

void FallbackTest::pixelsAreExact()
{
    IdleRecorder recorder(QStringLiteral("clip.mp4"), QSize(98, 66)); // no multiple of any alignment
    QVERIFY(recorder->openOutput());
    constexpr int images = 30;
    for (int i = 0; i < images; ++i)
        QVERIFY(recorder->encodeImage(testimages::noise(recorder.canvas(), quint32(i)), i * 41));
    QVERIFY(recorder.finish());
    MediaFile file(recorder->outputPath());
    const QList<MediaFrame> frames = file.frames();
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QCOMPARE(frames.size(), images);
    for (int i = 0; i < images; ++i) {
        QVERIFY(frames[i].coloursTagged);
        const QImage expected = testimages::noise(recorder.canvas(), quint32(i));
        QCOMPARE(frames[i].image, expected.convertToFormat(QImage::Format_RGB32));
    }
}

/// Colours of translucent pixels are handed over straight, not darkened by their alpha.
void FallbackTest::transparencyIsKept()
{
    IdleRecorder recorder;
    QImage image(recorder.canvas(), QImage::Format_ARGB32);
    image.fill(qRgba(200, 100, 50, 128));
    QVERIFY(recorder->openOutput());
    QVERIFY(recorder->encodeImage(image, 0));
    QVERIFY(recorder.finish());
    const QList<MediaFrame> frames = MediaFile(recorder->outputPath()).frames();
    QCOMPARE(frames.size(), 1);
    QCOMPARE(frames[0].image.pixel(10, 10) & 0xffffffu, qRgb(200, 100, 50) & 0xffffffu);
}

void FallbackTest::packetsKeepTheGivenTimes()
{
    const QList<qint64> times{0, 41, 82, 130, 1000, 5000, 7200000};
    IdleRecorder recorder;
    QVERIFY(recorder.record(times));
    MediaFile file(recorder->outputPath());
    const QList<MediaPacket> packets = file.packets();
    QCOMPARE(packets.size(), times.size());
    for (qsizetype i = 0; i < times.size(); ++i)
        QCOMPARE(packets[i].ptsMs, double(times[i]));
}

/// The muxer leaves the thousandth alone, so one frame interval is 41.
void FallbackTest::packetsLastOneFrameInterval()
{
    QList<qint64> durations;
    surroundings().atWritePacket = [&](const AVPacket& packet) { durations.append(packet.duration); };
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QCOMPARE(recorder->videoStream()->time_base.den, 1000);
    QVERIFY(recorder.encode({0, 41, 400}));
    QVERIFY(recorder.finish());
    QCOMPARE(durations, (QList<qint64>{41, 41, 41}));
}

void FallbackTest::everySliceHasAChecksum()
{
    QList<QByteArray> packets;
    surroundings().atWritePacket = [&](const AVPacket& packet) {
        packets.append(QByteArray(reinterpret_cast<const char*>(packet.data), packet.size));
    };
    IdleRecorder recorder;
    QVERIFY(recorder.record(IdleRecorder::steadyTimes(3)));
    QCOMPARE(packets.size(), 3);
    for (const QByteArray& packet : packets) {
        QVERIFY(lastSliceHasChecksum(packet));
        QByteArray damaged = packet;
        damaged[damaged.size() - 20] = char(damaged[damaged.size() - 20] ^ 1);
        QVERIFY(!lastSliceHasChecksum(damaged));
    }
}

void FallbackTest::encoderSettings()
{
    surroundings().processors = 10;
    const AvCodecContextHandle defaults(avcodec_alloc_context3(avcodec_find_encoder_by_name("ffv1")));
    QVERIFY(defaults);
    int opened = 0;
    surroundings().atOpenCodec = [&](const AVCodecContext& context, const AVDictionary* options) {
        ++opened;
        QCOMPARE(context.codec_id, AV_CODEC_ID_FFV1);
        QCOMPARE(context.codec_type, AVMEDIA_TYPE_VIDEO);
        QCOMPARE(QSize(context.width, context.height), QSize(320, 240));
        QCOMPARE(av_cmp_q(context.time_base, AVRational{1, 1000}), 0);
        QCOMPARE(av_cmp_q(context.framerate, AVRational{24, 1}), 0);
        QCOMPARE(context.gop_size, 24);
        QCOMPARE(context.pix_fmt, AV_PIX_FMT_BGRA);
        QCOMPARE(context.thread_count, 0);
        QCOMPARE(context.bit_rate, defaults->bit_rate);
        QCOMPARE(context.rc_max_rate, defaults->rc_max_rate);
        QCOMPARE(context.rc_buffer_size, defaults->rc_buffer_size);
        QVERIFY(context.flags & AV_CODEC_FLAG_GLOBAL_HEADER);
        QCOMPARE(av_dict_count(options), 1);
        QCOMPARE(av_dict_get(options, "slicecrc", nullptr, 0)->value, "1");
    };
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QCOMPARE(opened, 1);
}

void FallbackTest::muxerGetsNoOptions()
{
    int headers = 0;
    surroundings().atWriteHeader = [&](const AVFormatContext& context, const AVDictionary* options) {
        ++headers;
        QCOMPARE(context.oformat->name, "matroska");
        QCOMPARE(av_dict_count(options), 0);
    };
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QCOMPARE(headers, 1);
}

void FallbackTest::noConverterIsMade()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QVERIFY(!recorder->swsContext());
    QCOMPARE(calls(Call::GetConverter), 0);
    QCOMPARE(recorder->videoFrame()->format, int(AV_PIX_FMT_BGRA));
}

void FallbackTest::encoderIsFoundByItsIdToo()
{
    surroundings().hiddenEncoders = {"mpeg4", "ffv1"};
    IdleRecorder recorder;
    QVERIFY(recorder.record({0, 41}));
    QCOMPARE(calls(Call::FindEncoderById), 1);
    QCOMPARE(recorder->videoEncoderName(), QStringLiteral("ffv1"));
    QCOMPARE(MediaFile(recorder->outputPath()).frames().size(), 2);
}

/// MPEG-4 states sizes in 13 bits. FFmpeg refuses what does not fit; FFV1 has no such limit.
void FallbackTest::canvasTooLargeForMpeg4FallsBack()
{
    reset();
    IdleRecorder recorder(QStringLiteral("clip.mp4"), QSize(8192, 16));
    QVERIFY(recorder.record({0, 41}));
    QCOMPARE(recorder.warnings(),
        (QStringList{
            QStringLiteral("Unable to open video encoder \"mpeg4\" : \"Invalid argument\""), fallbackWarning}));
    const QList<MediaFrame> frames = MediaFile(recorder.filePath(QStringLiteral("clip.mkv"))).frames();
    QCOMPARE(frames.size(), 2);
    QCOMPARE(frames[1].image, testimages::walking(QSize(8192, 16), 1).convertToFormat(QImage::Format_RGB32));
}

ORVANTIS_TEST(FallbackTest)
#include "fallback_test.moc"

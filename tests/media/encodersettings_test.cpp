// What FFmpeg is asked for: the encoder's and the muxer's settings, seen at the calls.
#include "ffmpegfaults.h"
#include "idlerecorder.h"
#include "mediafile.h"
#include "testregistry.h"

#include <QFileInfo>
#include <QTest>

using namespace ffmpegfaults;

namespace {

QString option(const AVDictionary* options, const char* key)
{
    const AVDictionaryEntry* const entry = av_dict_get(options, key, nullptr, 0);
    return entry ? QString::fromUtf8(entry->value) : QString();
}

}

class EncoderSettingsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { reset(); }
    void cleanup() { reset(); }

    void encoderIsOpenedWithItsSettings();
    void bitRateFollowsTheCanvas_data();
    void bitRateFollowsTheCanvas();
    void threadsFollowTheProcessors_data();
    void threadsFollowTheProcessors();
    void oneEncoderIsAskedFor();
    void muxerGetsItsOptions();
    void streamAsksForMilliseconds();
    void frameAndConverterMatchTheEncoder();
    void muxerWithoutGlobalHeaderGetsNone();
    void muxerWithoutFileOpensNone();
};

void EncoderSettingsTest::encoderIsOpenedWithItsSettings()
{
    const AvCodecContextHandle defaults(avcodec_alloc_context3(avcodec_find_encoder_by_name("mpeg4")));
    QVERIFY(defaults);
    int opened = 0;
    surroundings().atOpenCodec = [&](const AVCodecContext& context, const AVDictionary* options) {
        ++opened;
        QCOMPARE(context.codec_id, AV_CODEC_ID_MPEG4);
        QCOMPARE(context.codec_type, AVMEDIA_TYPE_VIDEO);
        QCOMPARE(QSize(context.width, context.height), QSize(1366, 768));
        QCOMPARE(context.time_base.num, 1);
        QCOMPARE(context.time_base.den, 1000);
        QCOMPARE(context.framerate.num, 24);
        QCOMPARE(context.framerate.den, 1);
        QCOMPARE(context.gop_size, 24);
        QCOMPARE(context.pix_fmt, AV_PIX_FMT_YUV420P);
        QCOMPARE(context.color_primaries, AVCOL_PRI_BT709);
        QCOMPARE(context.color_trc, AVCOL_TRC_IEC61966_2_1);
        QCOMPARE(context.colorspace, AVCOL_SPC_SMPTE170M);
        QCOMPARE(context.color_range, AVCOL_RANGE_MPEG);
        QCOMPARE(context.flags, defaults->flags | AV_CODEC_FLAG_GLOBAL_HEADER);
        QCOMPARE(context.max_b_frames, defaults->max_b_frames);
        QCOMPARE(av_dict_count(options), 0);
    };
    IdleRecorder recorder(QStringLiteral("clip.mp4"), QSize(1366, 768));
    QVERIFY(recorder->openOutput());
    QCOMPARE(opened, 1);
}

void EncoderSettingsTest::bitRateFollowsTheCanvas_data()
{
    QTest::addColumn<QSize>("canvas");
    QTest::addColumn<qint64>("bitRate");
    QTest::newRow("16x16") << QSize(16, 16) << qint64(6000000);
    QTest::newRow("1280x720") << QSize(1280, 720) << qint64(6000000);
    QTest::newRow("1920x1080") << QSize(1920, 1080) << qint64(12441600);
    QTest::newRow("2560x1440") << QSize(2560, 1440) << qint64(18000000);
    QTest::newRow("3840x2160") << QSize(3840, 2160) << qint64(18000000);
}

void EncoderSettingsTest::bitRateFollowsTheCanvas()
{
    QFETCH(const QSize, canvas);
    QFETCH(const qint64, bitRate);
    int opened = 0;
    surroundings().atOpenCodec = [&](const AVCodecContext& context, const AVDictionary*) {
        ++opened;
        QCOMPARE(context.bit_rate, bitRate);
        QCOMPARE(context.rc_max_rate, 2 * bitRate);
        QCOMPARE(context.rc_buffer_size, int(4 * bitRate));
    };
    IdleRecorder recorder(QStringLiteral("clip.mp4"), canvas);
    QVERIFY(recorder->openOutput());
    QCOMPARE(opened, 1);
    QVERIFY(recorder.log().messages(QtDebugMsg).constLast().endsWith(QStringLiteral(" bitrate %1").arg(bitRate)));
}

void EncoderSettingsTest::threadsFollowTheProcessors_data()
{
    QTest::addColumn<int>("processors");
    QTest::addColumn<int>("threads");
    QTest::newRow("1") << 1 << 1;
    QTest::newRow("2") << 2 << 1;
    QTest::newRow("10") << 10 << 9;
    QTest::newRow("more than there are rows of blocks") << 64 << 63;
    QTest::newRow("more than FFmpeg has slices") << 200 << 199;
}

/// The encoder gets this count, and the recording is right with it.
void EncoderSettingsTest::threadsFollowTheProcessors()
{
    QFETCH(const int, processors);
    QFETCH(const int, threads);
    int asked = 0;
    surroundings().processors = processors;
    surroundings().atOpenCodec
        = [&](const AVCodecContext& context, const AVDictionary*) { asked = context.thread_count; };
    IdleRecorder recorder;
    QVERIFY(recorder.record(IdleRecorder::steadyTimes(26)));
    QVERIFY(recorder.wasQuiet());
    QCOMPARE(asked, threads);
    const QList<MediaFrame> frames = MediaFile(recorder->outputPath()).frames();
    QCOMPARE(frames.size(), 26);
    QVERIFY(testimages::channelError(frames[25].image.pixel(25 * 2 + 15, 120), qRgb(200, 190, 120)) <= 10);
}

void EncoderSettingsTest::oneEncoderIsAskedFor()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QCOMPARE(calls(Call::FindEncoderByName), 1);
    QCOMPARE(calls(Call::FindEncoderById), 0);
    QCOMPARE(calls(Call::OpenCodec), 1);
    QCOMPARE(calls(Call::AllocOutputContext), 1);
}

void EncoderSettingsTest::muxerGetsItsOptions()
{
    int headers = 0;
    surroundings().atWriteHeader = [&](const AVFormatContext& context, const AVDictionary* options) {
        ++headers;
        QCOMPARE(context.oformat->name, "mp4");
        QCOMPARE(av_dict_count(options), 2);
        QCOMPARE(option(options, "movflags"), QStringLiteral("+empty_moov+default_base_moof+frag_keyframe"));
        QCOMPARE(option(options, "frag_duration"), QStringLiteral("1000000"));
    };
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QCOMPARE(headers, 1);
}

/// Before the header; the muxer may choose another one then.
void EncoderSettingsTest::streamAsksForMilliseconds()
{
    int headers = 0;
    surroundings().atWriteHeader = [&](const AVFormatContext& context, const AVDictionary*) {
        ++headers;
        const AVStream* const video = context.streams[0];
        QCOMPARE(video->time_base.num, 1);
        QCOMPARE(video->time_base.den, 1000);
        QCOMPARE(video->codecpar->codec_id, AV_CODEC_ID_MPEG4);
        QCOMPARE(video->codecpar->width, 320);
        QVERIFY(context.pb);
    };
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QCOMPARE(headers, 1);
}

void EncoderSettingsTest::frameAndConverterMatchTheEncoder()
{
    IdleRecorder recorder(QStringLiteral("clip.mp4"), QSize(322, 242));
    QVERIFY(recorder->openOutput());
    const AVFrame* const frame = recorder->videoFrame();
    QCOMPARE(frame->format, int(AV_PIX_FMT_YUV420P));
    QCOMPARE(QSize(frame->width, frame->height), QSize(322, 242));
    for (int plane = 0; plane < 3; ++plane) {
        QVERIFY(frame->data[plane]);
        QCOMPARE(frame->linesize[plane] % 32, 0);
    }
    QVERIFY(recorder->swsContext());
    QCOMPARE(calls(Call::GetConverter), 1);
    QVERIFY(recorder.encode({0, 41, 82}));
    QCOMPARE(recorder->videoFrame(), frame); // one for all
    QCOMPARE(calls(Call::AllocFrame), 1);
    QCOMPARE(calls(Call::GetConverter), 1);
}

void EncoderSettingsTest::muxerWithoutGlobalHeaderGetsNone()
{
    surroundings().muxer = "null";
    int opened = 0;
    surroundings().atOpenCodec = [&](const AVCodecContext& context, const AVDictionary*) {
        ++opened;
        QVERIFY(!(context.flags & AV_CODEC_FLAG_GLOBAL_HEADER));
    };
    surroundings().atWriteHeader
        = [](const AVFormatContext&, const AVDictionary* options) { QCOMPARE(av_dict_count(options), 0); };
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QCOMPARE(opened, 1);
    QCOMPARE(calls(Call::WriteHeader), 1);
}

/// A muxer that needs no file gets none, and nothing is flushed or closed.
void EncoderSettingsTest::muxerWithoutFileOpensNone()
{
    surroundings().muxer = "null";
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QVERIFY(!recorder->formatContext()->pb);
    QVERIFY(recorder.encode({0, 41}));
    QVERIFY(recorder.finish());
    QVERIFY(recorder.wasQuiet());
    QVERIFY(recorder.isClosed());
    QCOMPARE(calls(Call::OpenFile), 0);
    QCOMPARE(calls(Call::FlushFile), 0);
    QCOMPARE(calls(Call::WritePacket), 3); // the last one is for what is gathered
    QCOMPARE(calls(Call::WriteTrailer), 1);
    QVERIFY(!QFileInfo::exists(recorder->outputPath()));
}

ORVANTIS_TEST(EncoderSettingsTest)
#include "encodersettings_test.moc"

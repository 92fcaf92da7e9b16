// Opening the file's audio: encoders, settings, and every way in which it fails.
#include "ffmpegfaults.h"
#include "mediafile.h"
#include "recorderwithaudio.h"
#include "testregistry.h"

#include <QTest>

#include <new>

using namespace ffmpegfaults;

namespace {

/// One failing call of the audio set-up. The row's expected log line contains the status.
struct Fault {
    Call call = Call::Last;
    int status = 0;
    int nth = 1;
};

const QSet<QByteArray> mp4Encoders{"aac", "libmp3lame", "mp3"};

}

Q_DECLARE_METATYPE(Fault)
Q_DECLARE_METATYPE(AVSampleFormat)
Q_DECLARE_METATYPE(AVCodecID)

class AudioOutputTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { reset(); }
    void cleanup() { reset(); }

    void encoderOfEachContainer_data();
    void encoderOfEachContainer();
    void encoderIsOpenedWithItsSettings_data();
    void encoderIsOpenedWithItsSettings();
    void globalHeaderOnlyWhereTheContainerWantsIt();
    void audioIsTheSecondStream();
    void logLine();
    void queueHasRoomForAFewFrames();

    void noEncoderAtAll_data();
    void noEncoderAtAll();
    void captureThatCannotBeSetUp();
    void invalidDeviceLeavesItsOwnLineAndOne();
    void earlierCaptureIsDestroyed();
    void audioFails_data();
    void audioFails();
    void openingIsInterrupted();
    void parametersAreNotCopied();
    void parametersAreNotCopiedAndTheHeaderRefused();
};

void AudioOutputTest::encoderOfEachContainer_data()
{
    QTest::addColumn<QSet<QByteArray>>("hidden");
    QTest::addColumn<QString>("name");
    QTest::addColumn<AVCodecID>("codec");
    const QSet<QByteArray> matroska{"mpeg4"};
    QTest::newRow("MP4: aac") << QSet<QByteArray>() << QStringLiteral("aac") << AV_CODEC_ID_AAC;
    QTest::newRow("MP4 without aac: mp3")
        << QSet<QByteArray>{"aac"} << QStringLiteral("libmp3lame") << AV_CODEC_ID_MP3;
    QTest::newRow("Matroska: aac") << matroska << QStringLiteral("aac") << AV_CODEC_ID_AAC;
    QTest::newRow("Matroska without aac: mp3")
        << matroska + QSet<QByteArray>{"aac"} << QStringLiteral("libmp3lame") << AV_CODEC_ID_MP3;
    QTest::newRow("Matroska with Opus only")
        << matroska + mp4Encoders << QStringLiteral("libopus") << AV_CODEC_ID_OPUS;
}

void AudioOutputTest::encoderOfEachContainer()
{
    QFETCH(const QSet<QByteArray>, hidden);
    QFETCH(const QString, name);
    QFETCH(const AVCodecID, codec);
    surroundings().hiddenEncoders = hidden;
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAudio());
    QCOMPARE(recorder->audioEncoderName(), name);
    QCOMPARE(recorder->audioStream()->codecpar->codec_id, codec);
    QVERIFY(recorder.encode(IdleRecorder::steadyTimes(2)));
    QVERIFY(recorder.finishAudio());
    const MediaFile file(recorder->outputPath());
    QVERIFY(file.audioStream());
    QCOMPARE(file.audioStream()->codecId, codec);
    QCOMPARE(file.audioStream()->sampleRate, 48000);
    QCOMPARE(file.audioStream()->channels, 2);
}

void AudioOutputTest::encoderIsOpenedWithItsSettings_data()
{
    QTest::addColumn<QByteArray>("encoder"); // found in aac's place
    QTest::addColumn<int>("rate");
    QTest::addColumn<AVSampleFormat>("format");
    QTest::addColumn<qint64>("bitRate");
    const auto row = [](const char* encoder, int rate, AVSampleFormat format, qint64 bitRate) {
        QTest::newRow(encoder) << QByteArray(encoder) << rate << format << bitRate;
    };
    row("aac", 48000, AV_SAMPLE_FMT_FLTP, 128000);
    row("libmp3lame", 48000, AV_SAMPLE_FMT_FLTP, 128000);
    row("libopus", 48000, AV_SAMPLE_FMT_S16, 96000);
    row("mp2", 48000, AV_SAMPLE_FMT_S16, 128000);
    row("alac", 48000, AV_SAMPLE_FMT_S16P, 128000);
    row("pcm_s32le", 48000, AV_SAMPLE_FMT_S32, 128000);
    row("ac3_fixed", 48000, AV_SAMPLE_FMT_S32P, 128000);
    row("libspeex", 8000, AV_SAMPLE_FMT_S16, 128000); // lists 8000, 16000, 32000
}

void AudioOutputTest::encoderIsOpenedWithItsSettings()
{
    QFETCH(const QByteArray, encoder);
    QFETCH(const int, rate);
    QFETCH(const AVSampleFormat, format);
    QFETCH(const qint64, bitRate);
    QVERIFY(RecorderWithAudio::useEncoder(encoder.constData()));
    surroundings().hiddenEncoders = {"mpeg4"}; // into Matroska, which takes them all
    int opened = 0;
    RecorderWithAudio recorder;
    surroundings().atOpenCodec = [&](const AVCodecContext& context, const AVDictionary* options) {
        if (context.codec_type != AVMEDIA_TYPE_AUDIO)
            return;
        ++opened;
        QCOMPARE(context.codec_id, surroundings().replacement->id);
        QCOMPARE(context.sample_rate, rate);
        QCOMPARE(context.sample_fmt, format);
        QCOMPARE(av_cmp_q(context.time_base, AVRational{1, rate}), 0);
        QCOMPARE(context.time_base.den, rate);
        QCOMPARE(context.bit_rate, bitRate);
        QCOMPARE(context.ch_layout.nb_channels, 2);
        AvChannelLayout stereo(2);
        QCOMPARE(av_channel_layout_compare(&context.ch_layout, stereo.get()), 0);
        const bool isOpus = encoder == "libopus";
        QCOMPARE(av_dict_count(options), isOpus ? 1 : 0);
        if (isOpus)
            QCOMPARE(av_dict_get(options, "application", nullptr, 0)->value, "audio");
    };
    QVERIFY(recorder.openAudio());
    QCOMPARE(opened, 1);
    QCOMPARE(recorder->audioEncoderName(), QString::fromLatin1(encoder));
}

void AudioOutputTest::globalHeaderOnlyWhereTheContainerWantsIt()
{
    for (const bool wanted : {true, false}) {
        reset();
        surroundings().muxer = wanted ? nullptr : "avi";
        int opened = 0;
        surroundings().atOpenCodec = [&](const AVCodecContext& context, const AVDictionary*) {
            opened += context.codec_type == AVMEDIA_TYPE_AUDIO;
            QCOMPARE(bool(context.flags & AV_CODEC_FLAG_GLOBAL_HEADER), wanted);
        };
        RecorderWithAudio recorder;
        QVERIFY(recorder.openAudio());
        QCOMPARE(opened, 1);
    }
}

void AudioOutputTest::audioIsTheSecondStream()
{
    RecorderWithAudio recorder;
    AVRational asked{};
    surroundings().atWriteHeader = [&](const AVFormatContext& context, const AVDictionary*) {
        QCOMPARE(context.nb_streams, 2u);
        asked = context.streams[1]->time_base;
    };
    QVERIFY(recorder.openAudio());
    QCOMPARE(av_cmp_q(asked, AVRational{1, 48000}), 0);
    QCOMPARE(recorder->videoStream()->index, 0);
    QCOMPARE(recorder->audioStream()->index, 1);
    QVERIFY(recorder.finishAudio());
    const MediaFile file(recorder->outputPath());
    QCOMPARE(file.streams().size(), 2);
    QCOMPARE(file.streams()[0].type, AVMEDIA_TYPE_VIDEO);
    QCOMPARE(file.streams()[1].type, AVMEDIA_TYPE_AUDIO);
    QCOMPARE(file.streams()[1].bitRate, qint64(128000));
}

void AudioOutputTest::logLine()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAudio());
    QCOMPARE(recorder.log().count(QStringLiteral(
                 "FFmpeg recorder using audio encoder \"aac\" sample rate 48000 channels 2 sample format fltp")),
        1);
    QVERIFY(recorder.wasQuiet());
}

void AudioOutputTest::queueHasRoomForAFewFrames()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAudio());
    QCOMPARE(recorder.queued(), 0);
    QCOMPARE(av_audio_fifo_space(recorder->audioFifo()), 4 * 1024);
    QCOMPARE(recorder->audioSamplesWritten(), 0);

    QVERIFY(RecorderWithAudio::useEncoder("pcm_s32le")); // takes any number
    surroundings().hiddenEncoders = {"mpeg4"};
    RecorderWithAudio other;
    QVERIFY(other.openAudio());
    QCOMPARE(av_audio_fifo_space(other->audioFifo()), 1024);
}

void AudioOutputTest::noEncoderAtAll_data()
{
    QTest::addColumn<QSet<QByteArray>>("hidden");
    QTest::addColumn<QString>("container");
    QTest::newRow("MP4, though Opus is there") << mp4Encoders << QStringLiteral("mp4");
    QTest::newRow("Matroska") << mp4Encoders + QSet<QByteArray>{"libopus", "mpeg4"} << QStringLiteral("matroska");
}

void AudioOutputTest::noEncoderAtAll()
{
    QFETCH(const QSet<QByteArray>, hidden);
    QFETCH(const QString, container);
    surroundings().hiddenEncoders = hidden;
    RecorderWithAudio recorder;
    QVERIFY(!recorder.openAudio());
    QVERIFY(recorder.warnings().contains(
        QStringLiteral("No FFmpeg audio encoder is available for \"%1\" ; continuing without audio.")
            .arg(container)));
    QVERIFY(recorder.criticals().isEmpty());
    QVERIFY(recorder.isSilent());
    QCOMPARE(fakeplatform::audio().liveStreams, 0);
    QVERIFY(recorder.encode({0, 41}));
    QVERIFY(recorder.finish());
    MediaFile file(recorder->outputPath());
    QCOMPARE(file.streams().size(), 1);
    QCOMPARE(file.frames().size(), 2);
}

void AudioOutputTest::captureThatCannotBeSetUp()
{
    RecorderWithAudio recorder; // the platform has no audio
    QVERIFY(recorder->allocateContainer());
    QVERIFY(!recorder->openAudioOutput());
    const QStringList lines = recorder.log().messages(QtWarningMsg);
    QCOMPARE(lines.size(), 2);
    QCOMPARE(lines[1], QStringLiteral("Continuing video recording without audio."));
    QVERIFY(recorder.isSilent());
    QCOMPARE(calls(Call::AllocCodecContext), 0);
}

void AudioOutputTest::invalidDeviceLeavesItsOwnLineAndOne()
{
    RecorderWithAudio recorder;
    recorder.giveAudio();
    recorder->audioSource() = QStringLiteral("app-pid:none");
    QVERIFY(recorder.record({0, 41}));
    const QStringList lines = recorder.log().messages(QtWarningMsg);
    QCOMPARE(lines,
        (QStringList{QStringLiteral("macOS app-only audio capture received an invalid app-pid device: "
                                    "\"app-pid:none\""),
            QStringLiteral("Continuing video recording without audio.")}));
    QCOMPARE(MediaFile(recorder->outputPath()).streams().size(), 1);
}

void AudioOutputTest::earlierCaptureIsDestroyed()
{
    RecorderWithAudio recorder;
    recorder.giveAudio();
    recorder->audioCapture() = std::make_unique<RecorderAudioCapture>(QString());
    QCOMPARE(fakeplatform::audio().liveStreams, 1);
    QVERIFY(recorder.openAudio());
    QCOMPARE(fakeplatform::audio().streams.size(), std::size_t(2));
    QCOMPARE(fakeplatform::audio().liveStreams, 1);
}

void AudioOutputTest::audioFails_data()
{
    QTest::addColumn<Fault>("fault");
    QTest::addColumn<QString>("warning");
    const auto row = [](const char* name, const Fault& fault, const char* warning) {
        QTest::newRow(name) << fault << QString::fromLatin1(warning);
    };
    // The video encoder, its stream and its parameters come first.
    row("no codec context", {Call::AllocCodecContext, 0, 2},
        "Unable to allocate FFmpeg audio codec context; continuing without audio.");
    row("no channel layout", {Call::CopyLayout, AVERROR(ENOMEM)},
        "Unable to allocate FFmpeg audio codec context; continuing without audio.");
    row("encoder not opened", {Call::OpenCodec, AVERROR_EXTERNAL, 2},
        "Unable to open FFmpeg audio encoder \"aac\" : \"Generic error in an external library\" - continuing without "
        "audio.");
    row("no resampler", {Call::AllocResampler, AVERROR(ENOMEM)},
        "Unable to allocate FFmpeg audio resampler: \"Cannot allocate memory\" - continuing without audio.");
    row("no resampler and no error", {Call::AllocResampler, 0},
        "Unable to allocate FFmpeg audio resampler: \"Success\" - continuing without audio.");
    row("resampler not initialised", {Call::InitResampler, AVERROR(EINVAL)},
        "Unable to initialize FFmpeg audio resampler: \"Invalid argument\" - continuing without audio.");
    row("no queue", {Call::AllocFifo}, "Unable to allocate FFmpeg audio FIFO; continuing without audio.");
    row("no stream", {Call::NewStream, 0, 2}, "Unable to create FFmpeg audio stream; continuing without audio.");
}

/// Nothing of the audio stays, and the video is recorded.
void AudioOutputTest::audioFails()
{
    QFETCH(const Fault, fault);
    QFETCH(const QString, warning);
    RecorderWithAudio recorder;
    const qsizetype descriptors = openDescriptors();
    failOnce(fault.call, fault.status, fault.nth);
    QVERIFY(!recorder.openAudio());
    heal(fault.call);
    QCOMPARE(recorder.log().messages(QtWarningMsg), QStringList{warning});
    QVERIFY(recorder.criticals().isEmpty());
    QVERIFY(recorder.isSilent());
    QCOMPARE(recorder->audioEncoderName(), QString());
    QCOMPARE(fakeplatform::audio().liveStreams, 0);
    QCOMPARE(fakeplatform::audio().liveOutputs, 0);

    QVERIFY(recorder->encodePendingAudio());
    QVERIFY(recorder.encode({0, 41}));
    QVERIFY(recorder->drainAudioEncoder());
    QVERIFY(recorder.finish());
    QCOMPARE(recorder.log().messages(QtWarningMsg), QStringList{warning});
    QVERIFY(recorder.isClosed());
    QCOMPARE(openDescriptors(), descriptors);
    MediaFile file(recorder->outputPath());
    QCOMPARE(file.streams().size(), 1);
    QCOMPARE(file.frames().size(), 2);
}

/// Nobody would read a capture without an encoder, so it is not started.
void AudioOutputTest::openingIsInterrupted()
{
    RecorderWithAudio recorder;
    recorder.giveAudio();
    surroundings().atOpenCodec = [](const AVCodecContext& context, const AVDictionary*) {
        if (context.codec_type == AVMEDIA_TYPE_AUDIO)
            throw std::bad_alloc();
    };
    QVERIFY(recorder->openOutput());
    QCOMPARE(recorder.criticals(),
        QStringList{QStringLiteral("Recorder worker was interrupted by an exception: std::bad_alloc")});
    QVERIFY(recorder.isSilent());
    QCOMPARE(fakeplatform::audio().liveStreams, 0);
    QVERIFY(recorder.encode({0, 41}));
    QVERIFY(recorder.finishAudio());
    MediaFile file(recorder->outputPath());
    QCOMPARE(file.streams().size(), 1);
    QCOMPARE(file.frames().size(), 2);
}

/// The one failure that leaves its objects: the stream cannot be taken out of the container again.
void AudioOutputTest::parametersAreNotCopied()
{
    RecorderWithAudio recorder;
    recorder.giveAudio();
    QVERIFY(recorder->allocateContainer());
    failOnce(Call::CopyParameters, AVERROR(ENOMEM));
    QVERIFY(!recorder->openAudioOutput());
    QCOMPARE(recorder.criticals(),
        QStringList{QStringLiteral("Unable to copy FFmpeg audio codec parameters: \"Cannot allocate memory\"")});
    QVERIFY(recorder.warnings().isEmpty());
    QVERIFY(!recorder->audioCodecContext());
    QVERIFY(recorder->audioCapture());
    QVERIFY(recorder->audioResampler());
    QVERIFY(recorder->audioFifo());
    QVERIFY(recorder->audioStream());
    QCOMPARE(recorder->audioEncoderName(), QString());

    // What is left half made does no harm.
    QVERIFY(recorder.startAudio());
    QVERIFY(fakeplatform::deliverStereo(testaudio::noise(0, 4800)));
    QVERIFY(recorder.turn(100));
    QVERIFY(recorder->drainAudioEncoder());
    QCOMPARE(recorder.present(), 0);
    recorder->closeOutput();
    QVERIFY(recorder.isClosed());
    QCOMPARE(fakeplatform::audio().liveStreams, 0);
    QVERIFY(recorder.warnings().isEmpty());
}

/// FFmpeg does not write a header for a stream without parameters.
void AudioOutputTest::parametersAreNotCopiedAndTheHeaderRefused()
{
    RecorderWithAudio recorder;
    recorder.giveAudio();
    failOnce(Call::CopyParameters, AVERROR(ENOMEM), 2);
    QVERIFY(!recorder->openOutput());
    QCOMPARE(recorder.criticals().size(), 2);
    QCOMPARE(recorder.criticals()[0],
        QStringLiteral("Unable to copy FFmpeg audio codec parameters: \"Cannot allocate memory\""));
    QVERIFY(recorder.criticals()[1].startsWith(QStringLiteral("Unable to write FFmpeg output header: \"")));
    recorder->closeOutput();
    QVERIFY(recorder.isClosed());
}

ORVANTIS_TEST(AudioOutputTest)
#include "audiooutput_test.moc"

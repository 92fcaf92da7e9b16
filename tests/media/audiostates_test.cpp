// The calls of the audio in every state: not open, half open, started, drained, closed.
#include "exactaudio.h"
#include "ffmpegfaults.h"
#include "mediafile.h"
#include "recorderwithaudio.h"
#include "testregistry.h"

#include <QTest>

#include <algorithm>
#include <cmath>
#include <utility>

using namespace ffmpegfaults;

class AudioStatesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { reset(); }
    void cleanup() { reset(); }

    void nothingIsDoneWithoutItsObjects();
    void nothingIsDoneUntilTheAudioIsStarted();

    void paddingStopsAtTheClock_data();
    void paddingStopsAtTheClock();
    void longGapIsPaddedInPieces();
    void failureInALongGap();
    void paddingThatIsTooLarge();
    void nothingIsPaddedWithoutItsObjects();

    void drainingFillsTheLastFrame();
    void drainingGivesAShortFrameToAnEncoderThatTakesIt();
    void drainingAnEmptyQueue();
    void drainingBeforeOpeningAndAfterClosing();
    void stoppingTheCapture();

    void closingReleasesTheAudio();
    void destructorReleasesTheAudio();
    void audioAfterClosingIsIgnored();
};

void AudioStatesTest::nothingIsDoneWithoutItsObjects()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    int metered = 0;
    fakeplatform::audio().deliverUntil = [&](qint64) { ++metered; };
    QVERIFY(fakeplatform::deliverStereo(testaudio::noise(0, 4800)));
    const auto idleWithout = [&](auto& member) {
        auto taken = std::exchange(member, {});
        const bool idle = recorder.turn(100) && metered == 0;
        member = std::move(taken);
        return idle;
    };
    QVERIFY(idleWithout(recorder->audioCodecContext()));
    QVERIFY(idleWithout(recorder->audioResampler()));
    QVERIFY(idleWithout(recorder->audioFifo()));
    QVERIFY(idleWithout(recorder->audioCapture()));
    QVERIFY(idleWithout(recorder->audioStarted()));
    QCOMPARE(recorder.present(), 0);

    AVStream* const stream = std::exchange(recorder->audioStream(), nullptr);
    QVERIFY(recorder->encodeAudioSamples(1024));
    recorder->audioStream() = stream;
    QVERIFY(recorder->encodeAudioSamples(0));
    QVERIFY(recorder->encodeAudioSamples(-1));
    QCOMPARE(recorder->audioSamplesWritten(), 0);

    QVERIFY(recorder.turn(100)); // all was still there
    QCOMPARE(recorder.present(), 4800);
    QVERIFY(recorder.wasQuiet());
}

void AudioStatesTest::nothingIsDoneUntilTheAudioIsStarted()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAudio());
    QVERIFY(fakeplatform::deliverStereo(testaudio::noise(0, 4800)));
    QVERIFY(recorder->encodePendingAudio());
    QCOMPARE(recorder.present(), 0);
    QCOMPARE(recorder->audioCapture()->readAvailable().size(), 1);
}

void AudioStatesTest::paddingStopsAtTheClock_data()
{
    QTest::addColumn<qint64>("elapsed");
    QTest::addColumn<int>("before");
    QTest::addColumn<int>("after");
    QTest::newRow("clock below zero") << qint64(-1) << 0 << 0;
    QTest::newRow("clock at zero") << qint64(0) << 0 << 0;
    QTest::newRow("from nothing") << qint64(100) << 0 << 4800;
    QTest::newRow("some") << qint64(100) << 4000 << 4800;
    QTest::newRow("level") << qint64(100) << 4800 << 4800;
    QTest::newRow("ahead: nothing is removed") << qint64(100) << 6000 << 6000;
}

void AudioStatesTest::paddingStopsAtTheClock()
{
    QFETCH(const qint64, elapsed);
    QFETCH(const int, before);
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(recorder->padAudioFifoWithSilence(before));
    QCOMPARE(recorder.queued(), before);
    QVERIFY(recorder->padAudioToElapsedClock(elapsed));
    QTEST(recorder.queued(), "after");
    QVERIFY(recorder.turn(1)); // what the encoder has counts as well
    const qint64 present = recorder.present();
    QVERIFY(recorder->padAudioToElapsedClock(elapsed));
    QCOMPARE(recorder.present(), present);
}

/// A computer that slept, say. An hour of silence in one piece would be 2.8 GB.
void AudioStatesTest::longGapIsPaddedInPieces()
{
    constexpr qint64 gapMs = 300'000;
    constexpr qint64 gapSamples = gapMs * 48;
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(recorder->padAudioFifoWithSilence(100));
    qint64 allocated = 0;
    int largest = 0;
    int mostQueued = 0;
    surroundings().atAllocSamples = [&](int samples) {
        allocated += samples;
        largest = std::max(largest, samples);
        mostQueued = std::max(mostQueued, recorder.queued());
    };
    QVERIFY(recorder->padAudioToElapsedClock(gapMs));
    QCOMPARE(recorder.present(), gapSamples);
    QCOMPARE(allocated, gapSamples - 100);
    constexpr int bound = 20 * testaudio::rate;
    QVERIFY2(largest < bound, qPrintable(QString::number(largest)));
    QVERIFY2(mostQueued < bound, qPrintable(QString::number(mostQueued)));
    QVERIFY(recorder.encode({0}));
    QVERIFY(recorder.finishAudio());
    QVERIFY(recorder.wasQuiet());
    MediaFile file(recorder->outputPath());
    const auto packets = file.packets();
    const auto blocks = std::count_if(
        packets.cbegin(), packets.cend(), [](const MediaPacket& packet) { return packet.stream == 1; });
    QCOMPARE(blocks, 1 + (gapSamples + 1023) / 1024); // the priming's first
}

void AudioStatesTest::failureInALongGap()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    failOnce(Call::AllocSamples, AVERROR(ENOMEM), 2);
    QVERIFY(!recorder->padAudioToElapsedClock(60'000));
    QCOMPARE(recorder.warnings(),
        QStringList{QStringLiteral("Unable to allocate silence audio samples: \"Cannot allocate memory\"")});
    QVERIFY(recorder.present() < 60'000 * 48);
    failOnce(Call::SendFrame, AVERROR(EINVAL));
    QVERIFY(!recorder->padAudioToElapsedClock(60'000));
    QVERIFY(recorder->padAudioToElapsedClock(60'000)); // later calls fill the rest
    QCOMPARE(recorder.present(), 60'000 * 48);
}

/// More samples than 32 bits count. The last gap that they do count gets further, where a fault ends it.
void AudioStatesTest::paddingThatIsTooLarge()
{
    constexpr qint64 lastMs = 44739243; // 2147483664 samples
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    recorder->audioSamplesWritten() = 16;
    QVERIFY(!recorder->padAudioToElapsedClock(lastMs));
    QCOMPARE(recorder.warnings(), QStringList{QStringLiteral("Audio clock gap is too large to pad: 2147483648")});
    recorder->audioSamplesWritten() = 17;
    recorder.log().clear();
    failOnce(Call::AllocSamples, AVERROR(ENOMEM));
    QVERIFY(!recorder->padAudioToElapsedClock(lastMs));
    QCOMPARE(recorder.warnings(),
        QStringList{QStringLiteral("Unable to allocate silence audio samples: \"Cannot allocate memory\"")});

    recorder.log().clear();
    QVERIFY(!recorder.turn(lastMs + 1000, testaudio::noise(0, 480)));
    QCOMPARE(recorder.warnings(),
        QStringList{QStringLiteral("Audio clock gap is too large to pad: %1").arg((lastMs + 990) * 48 - 17)});
    QCOMPARE(recorder.queued(), 0); // the chunk is not written
    recorder->audioSamplesWritten() = 0;
    QVERIFY(recorder.turn(10, testaudio::noise(0, 480))); // and later ones are
    QCOMPARE(recorder.queued(), 480);
}

void AudioStatesTest::nothingIsPaddedWithoutItsObjects()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder->padAudioToElapsedClock(1000));
    QVERIFY(recorder->padAudioFifoWithSilence(1000));
    QVERIFY(recorder->encodeAudioSamples(1000));
    QVERIFY(recorder->encodePendingAudio());
    QVERIFY(recorder.openAudio());
    AVCodecContext* const encoder = std::exchange(recorder->audioCodecContext(), nullptr);
    QVERIFY(recorder->padAudioToElapsedClock(1000));
    QVERIFY(recorder->padAudioFifoWithSilence(1000));
    recorder->audioCodecContext() = encoder;
    QCOMPARE(recorder.queued(), 0);
    AVAudioFifo* const queue = std::exchange(recorder->audioFifo(), nullptr);
    QVERIFY(recorder->padAudioToElapsedClock(1000));
    QVERIFY(recorder->padAudioFifoWithSilence(1000));
    QVERIFY(recorder->encodeAudioSamples(1000));
    recorder->audioFifo() = queue;
    QVERIFY(recorder->padAudioFifoWithSilence(0));
    QVERIFY(recorder->padAudioFifoWithSilence(-1));
    QCOMPARE(recorder.present(), 0);
    QVERIFY(recorder.wasQuiet());
}

/// 300 samples and 724 of silence, for an encoder that takes whole frames only.
void AudioStatesTest::drainingFillsTheLastFrame()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    recorder->recordingClock().invalidate();
    QVERIFY(recorder.turn(0, testaudio::constant(300, 8000)));
    QVERIFY(!(recorder->audioCodecContext()->codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE));
    recorder->stopAudioCapture();
    QVERIFY(recorder->drainAudioEncoder());
    QCOMPARE(recorder->audioSamplesWritten(), 1024);
    QCOMPARE(recorder.queued(), 0);
    QVERIFY(recorder.finish());
    MediaFile file(recorder->outputPath());
    QCOMPARE(file.packets().size(), 2); // the priming's and the frame's
    const auto audio = file.audio();
    QVERIFY(audio);
    QCOMPARE(audio->channels[0].size(), std::size_t(2048));
    QVERIFY(std::abs(audio->channels[0][1024 + 150]) > 0.1F);
    QVERIFY(std::abs(audio->channels[0][1024 + 1000]) < 0.02F);
}

void AudioStatesTest::drainingGivesAShortFrameToAnEncoderThatTakesIt()
{
    surroundings().hiddenEncoders = {"mpeg4"};
    QVERIFY(RecorderWithAudio::useEncoder("pcm_s32le"));
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    recorder->recordingClock().invalidate();
    QVERIFY(recorder.turn(0, testaudio::noise(0, 2048 + 300)));
    QCOMPARE(recorder->audioSamplesWritten(), 2048);
    QVERIFY(recorder->drainAudioEncoder());
    QCOMPARE(recorder->audioSamplesWritten(), 2348);
    recorder->closeOutput();
    std::vector<qint16> expected;
    appendNoise(expected, 0, 2348);
    QCOMPARE(exactSamples(recorder->outputPath()), expected);
}

void AudioStatesTest::drainingAnEmptyQueue()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(recorder.encode({0}));
    QVERIFY(recorder.finishAudio());
    QVERIFY(recorder.wasQuiet());
    MediaFile file(recorder->outputPath());
    QVERIFY(file.audioStream());
    QVERIFY(!file.audio());
    QCOMPARE(file.frames().size(), 1);
}

void AudioStatesTest::drainingBeforeOpeningAndAfterClosing()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder->drainAudioEncoder());
    QVERIFY(recorder.openAndStart());
    AVStream* const stream = std::exchange(recorder->audioStream(), nullptr);
    QVERIFY(recorder->drainAudioEncoder());
    recorder->audioStream() = stream;
    QVERIFY(recorder.turn(100, testaudio::noise(0, 4800))); // not drained: the encoder still takes audio
    QVERIFY(recorder->drainAudioEncoder());
    QVERIFY(recorder->drainAudioEncoder()); // already at its end
    QVERIFY(recorder.finishAudio());
    QVERIFY(recorder->drainAudioEncoder());
    QVERIFY(recorder.wasQuiet());
}

void AudioStatesTest::stoppingTheCapture()
{
    RecorderWithAudio recorder;
    recorder->stopAudioCapture(); // there is none
    QVERIFY(recorder.openAndStart());
    QCOMPARE(fakeplatform::audio().stops, 0);
    recorder->stopAudioCapture();
    QCOMPARE(fakeplatform::audio().stops, 1);
    QVERIFY(!recorder->audioStarted());
    QVERIFY(recorder->audioCapture());
    recorder->stopAudioCapture();
    QCOMPARE(fakeplatform::audio().stops, 1);
}

void AudioStatesTest::closingReleasesTheAudio()
{
    RecorderWithAudio recorder;
    const qsizetype descriptors = openDescriptors();
    QVERIFY(recorder.openAndStart());
    QVERIFY(recorder.encode({0}));
    QVERIFY(recorder.turn(100, testaudio::noise(0, 4800)));
    QVERIFY(recorder->audioSamplesWritten() > 0);
    recorder->closeOutput(); // drains nothing
    QVERIFY(recorder.isClosed());
    QCOMPARE(fakeplatform::audio().stops, 1);
    QCOMPARE(fakeplatform::audio().liveStreams, 0);
    QCOMPARE(openDescriptors(), descriptors);
    QCOMPARE(recorder->audioEncoderName(), QStringLiteral("aac"));
    QVERIFY(recorder.wasQuiet());

    recorder.log().clear();
    recorder->closeOutput();
    QCOMPARE(recorder.log().messages(), QStringList());
    QVERIFY(recorder.isClosed());
    QCOMPARE(fakeplatform::audio().stops, 1);
}

void AudioStatesTest::destructorReleasesTheAudio()
{
    RecorderWithAudio recorder;
    const QString path = recorder->outputPath();
    QVERIFY(recorder.openAndStart());
    QVERIFY(recorder.encode({0}));
    QVERIFY(recorder.turn(1000, testaudio::noise(0, 48000)));
    recorder.destroy();
    QCOMPARE(fakeplatform::audio().stops, 1);
    QCOMPARE(fakeplatform::audio().liveStreams, 0);
    QCOMPARE(fakeplatform::audio().liveOutputs, 0);
    QCOMPARE(fakeplatform::audio().liveQueues, 0);
    QVERIFY(MediaFile(path).audio()->durationMs() > 900);
}

void AudioStatesTest::audioAfterClosingIsIgnored()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(recorder.finishAudio());
    QVERIFY(!fakeplatform::deliverStereo(testaudio::noise(0, 480)));
    recorder->audioStarted() = true;
    QVERIFY(recorder.turn(10));
    recorder->audioStarted() = false;
    QVERIFY(recorder.wasQuiet());
}

ORVANTIS_TEST(AudioStatesTest)
#include "audiostates_test.moc"

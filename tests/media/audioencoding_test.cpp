// Captured audio against the recording clock, turn by turn, through FFmpeg and back out of the file. FLAC in Matroska
// gives every sample back as it was.
#include "exactaudio.h"
#include "ffmpegfaults.h"
#include "mediafile.h"
#include "recorderaudiocapture_p.h"
#include "recorderwithaudio.h"
#include "testregistry.h"

#include <QTest>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <utility>

using namespace ffmpegfaults;

namespace {

using Chunk = RecorderAudioCapture::Chunk;

constexpr qint64 rightNoise = 1'000'000; // its place behind that on the left

const auto pcmLine = QStringLiteral("Unix audio capture received PCM");

Chunk chunkOf(const std::vector<qint16>& samples)
{
    return {QByteArray(reinterpret_cast<const char*>(samples.data()), qsizetype(samples.size() * 2)),
        qint32(samples.size() / 2)};
}

qint64 monotonicMs()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

/// Lossless audio from now on.
bool useExactEncoder(const char* name = "flac")
{
    surroundings().hiddenEncoders = {"mpeg4"};
    return RecorderWithAudio::useEncoder(name);
}

/// Noise that is another one on the right.
std::vector<qint16> sidedNoise(qint64 first, qint64 count)
{
    std::vector<qint16> samples;
    for (qint64 i = first; i < first + count; ++i) {
        samples.push_back(testaudio::noiseAt(i));
        samples.push_back(testaudio::noiseAt(rightNoise + i));
    }
    return samples;
}

}

class AudioEncodingTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { reset(); }
    void cleanup() { reset(); }

    void metersTheAudioByTheClock();
    void withoutAClockNothingIsMeteredOrAligned();
    void longStallIsCaughtUpInTurns();

    void lateBurstIsPlacedBackFromNow();
    void audioFasterThanTheClockIsDroppedWhereItOverlaps_data();
    void audioFasterThanTheClockIsDroppedWhereItOverlaps();
    void audioAheadOfTheClockStays();
    void gapBetweenBatchesIsSilent();
    void batchIsFilledUpToTheClock();
    void chunksOfABatchFollowEachOther();
    void continuousAudioIsExact();
    void resampledAudioKeepsUpWithTheClock();
    void thereIsRoomForWhatTheResamplerHolds();

    void withoutAChunkNothingIsPadded();
    void fullFramesAreEncodedWithoutAChunk();
    void emptyChunksAreSkipped();
    void firstChunkIsLoggedOnce();
    void firstFrameIsAtZero();
};

/// The platform is asked for the audio before this instant of the monotonic clock, whatever clock Qt goes by, and
/// what it then delivers belongs to this turn.
void AudioEncodingTest::metersTheAudioByTheClock()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAudio());
    const qint64 beforeMs = monotonicMs();
    QVERIFY(recorder.startAudio());
    const qint64 afterMs = monotonicMs();
    QList<qint64> instants;
    fakeplatform::audio().deliverUntil = [&](qint64 instant) {
        instants.append(instant);
        fakeplatform::deliverStereo(testaudio::noise(0, 480));
    };
    QVERIFY(recorder.turn(10));
    QCOMPARE(recorder.present(), 480);
    QVERIFY(recorder.turn(20));
    QCOMPARE(recorder.present(), 960);
    QCOMPARE(instants.size(), 2);
    const qint64 startMs = instants[0] - 10;
    QVERIFY2(startMs >= beforeMs && startMs <= afterMs, qPrintable(QString::number(startMs - beforeMs)));
    QCOMPARE(instants[1], startMs + 20);
}

void AudioEncodingTest::withoutAClockNothingIsMeteredOrAligned()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    recorder->recordingClock().invalidate();
    int metered = 0;
    fakeplatform::audio().deliverUntil = [&](qint64) { ++metered; };
    QVERIFY(recorder.turn(5000, testaudio::noise(0, 480)));
    QVERIFY(recorder.turn(5000, testaudio::noise(480, 1000)));
    QCOMPARE(metered, 0);
    QCOMPARE(recorder.present(), 1480);
}

/// Five seconds of audio, then silence: the platform hands out ten seconds at a time, and each is put in its place.
void AudioEncodingTest::longStallIsCaughtUpInTurns()
{
    constexpr qint64 stallMs = 25000;
    constexpr qint64 audioMs = 5000;
    QVERIFY(useExactEncoder());
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    qint64 deliveredMs = 0;
    QList<qint64> turns;
    fakeplatform::audio().delivery = [&](qint64 instant) {
        const qint64 startMs = instant - stallMs;
        const qint64 untilMs = std::min(stallMs, deliveredMs + 10000);
        auto samples = testaudio::frames(deliveredMs * 48, (untilMs - deliveredMs) * 48,
            [](qint64 place) { return place < audioMs * 48 ? testaudio::noiseAt(place) : qint16(0); });
        fakeplatform::deliverStereo(samples);
        deliveredMs = untilMs;
        turns.append(untilMs);
        return platform::AudioDelivery{startMs + untilMs};
    };
    QVERIFY(recorder.turn(stallMs));
    QCOMPARE(turns, (QList<qint64>{10000, 20000, stallMs}));
    QCOMPARE(recorder.present(), stallMs * 48);
    QVERIFY(recorder.finishAudio());
    std::vector<qint16> expected;
    appendNoise(expected, 0, audioMs * 48);
    expected.resize(stallMs * 48, 0);
    QVERIFY(holdsThenSilence(exactSamples(recorder->outputPath()), expected));
}

/// Half a second's audio in ten blocks at once: it ended now, so it began half a second ago.
void AudioEncodingTest::lateBurstIsPlacedBackFromNow()
{
    QVERIFY(useExactEncoder());
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    for (int i = 0; i < 10; ++i)
        QVERIFY(fakeplatform::deliverStereo(testaudio::noise(i * 2400, 2400)));
    QVERIFY(recorder.turn(800));
    QCOMPARE(recorder.present(), 800 * 48);
    QVERIFY(recorder.finishAudio());
    std::vector<qint16> expected = silence(300 * 48);
    appendNoise(expected, 0, 24000);
    QVERIFY(holdsThenSilence(exactSamples(recorder->outputPath()), expected));
}

void AudioEncodingTest::audioFasterThanTheClockIsDroppedWhereItOverlaps_data()
{
    QTest::addColumn<QByteArray>("encoder");
    QTest::addColumn<bool>("planar");
    QTest::newRow("interleaved") << QByteArray("flac") << false;
    QTest::newRow("planar") << QByteArray("alac") << true;
}

/// Twice as fast as the clock: of every chunk the part is left out whose time has audio already, on both sides.
void AudioEncodingTest::audioFasterThanTheClockIsDroppedWhereItOverlaps()
{
    QFETCH(const QByteArray, encoder);
    QFETCH(const bool, planar);
    QVERIFY(useExactEncoder(encoder.constData()));
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QCOMPARE(av_sample_fmt_is_planar(recorder->audioCodecContext()->sample_fmt) != 0, planar);
    std::vector<qint16> left;
    std::vector<qint16> right;
    const auto expect = [&](qint64 first, qint64 count) {
        appendNoise(left, first, count);
        appendNoise(right, rightNoise + first, count);
    };
    expect(0, 480);
    QVERIFY(recorder.turn(10, sidedNoise(0, 480)));
    for (qint64 i = 1; i < 200; ++i) {
        QVERIFY(recorder.turn(10 + i * 5, sidedNoise(i * 480, 480)));
        QCOMPARE(recorder.present(), 480 + i * 240);
        expect(i * 480 + 240, 240);
    }
    QVERIFY(recorder.finishAudio());
    const auto [seenLeft, seenRight] = exactSides(recorder->outputPath());
    QVERIFY(holdsThenSilence(seenLeft, left));
    QVERIFY(holdsThenSilence(seenRight, right));
}

/// A block that is longer than the recording is kept whole, and what comes next waits for the clock.
void AudioEncodingTest::audioAheadOfTheClockStays()
{
    QVERIFY(useExactEncoder());
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(recorder.turn(10, testaudio::noise(0, 14400)));
    QCOMPARE(recorder.present(), 14400);
    QVERIFY(recorder.turn(100, testaudio::noise(20000, 4320)));
    QCOMPARE(recorder.present(), 14400);
    QVERIFY(recorder.turn(310, testaudio::noise(30000, 960))); // 290 to 310 ms
    QCOMPARE(recorder.present(), 310 * 48);
    QVERIFY(recorder.finishAudio());
    std::vector<qint16> expected;
    appendNoise(expected, 0, 14400);
    appendNoise(expected, 30480, 480);
    QVERIFY(holdsThenSilence(exactSamples(recorder->outputPath()), expected));
}

void AudioEncodingTest::gapBetweenBatchesIsSilent()
{
    QVERIFY(useExactEncoder());
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(recorder.turn(10, testaudio::noise(0, 480)));
    QVERIFY(recorder.turn(500));
    QVERIFY(recorder.turn(1010, testaudio::noise(480, 480)));
    QVERIFY(recorder.finishAudio());
    std::vector<qint16> expected;
    appendNoise(expected, 0, 480);
    expected.resize(1000 * 48, 0);
    appendNoise(expected, 480, 480);
    QVERIFY(holdsThenSilence(exactSamples(recorder->outputPath()), expected));
}

/// 470 frames last 10 ms when rounded; the 10 samples that they lack are silence at the end.
void AudioEncodingTest::batchIsFilledUpToTheClock()
{
    QVERIFY(useExactEncoder());
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(recorder.turn(10, testaudio::noise(0, 470)));
    QCOMPARE(recorder.present(), 480);
    QVERIFY(recorder.turn(20, testaudio::noise(470, 480)));
    QVERIFY(recorder.finishAudio());
    std::vector<qint16> expected;
    appendNoise(expected, 0, 470);
    expected.resize(480, 0);
    appendNoise(expected, 470, 480);
    QVERIFY(holdsThenSilence(exactSamples(recorder->outputPath()), expected));
}

void AudioEncodingTest::chunksOfABatchFollowEachOther()
{
    QVERIFY(useExactEncoder());
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    qint64 at = 0;
    for (const qint64 frames : {480, 96, 1440, 48, 2736}) {
        QVERIFY(fakeplatform::deliverStereo(testaudio::noise(at, frames)));
        at += frames;
    }
    QVERIFY(recorder.turn(at / 48));
    QVERIFY(recorder.finishAudio());
    std::vector<qint16> expected;
    appendNoise(expected, 0, at);
    QVERIFY(holdsThenSilence(exactSamples(recorder->outputPath()), expected));
}

/// A minute of audio that the clock meters out, with turns as irregular as the loop's: every sample is in the file,
/// in its place, and the queue stays short.
void AudioEncodingTest::continuousAudioIsExact()
{
    QVERIFY(useExactEncoder());
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    qint64 delivered = 0;
    qint64 startMs = 0;
    fakeplatform::audio().deliverUntil = [&](qint64 instant) {
        startMs = delivered == 0 ? instant - *setclock::elapsedMs() : startMs;
        const qint64 end = (instant - startMs) * 48;
        fakeplatform::deliverStereo(testaudio::noise(delivered, end - delivered));
        delivered = end;
    };
    quint32 state = 5;
    qint64 now = 0;
    qint64 nextFrame = 0;
    while (now < 60000) {
        state = state * 1664525u + 1013904223u;
        now += (state >> 8) % 52; // sometimes not at all
        QVERIFY(recorder.turn(now));
        QCOMPARE(recorder.present(), now * 48);
        QVERIFY(recorder.queued() < recorder->audioCodecContext()->frame_size);
        if (now >= nextFrame) {
            QVERIFY(recorder.encode({now}, int(now / 40)));
            nextFrame = now + 1000;
        }
    }
    QVERIFY(recorder.finishAudio());
    std::vector<qint16> expected;
    appendNoise(expected, 0, now * 48);
    const std::vector<qint16> seen = exactSamples(recorder->outputPath());
    QVERIFY(holdsThenSilence(seen, expected));
    QVERIFY(seen.size() < expected.size() + 4608);
}

/// Eight thousand samples a second for every second of the clock, however they are rounded.
void AudioEncodingTest::resampledAudioKeepsUpWithTheClock()
{
    surroundings().hiddenEncoders = {"mpeg4"};
    QVERIFY(RecorderWithAudio::useEncoder("libspeex"));
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QCOMPARE(recorder->audioCodecContext()->sample_rate, 8000);
    const int frameSize = recorder->audioCodecContext()->frame_size;
    for (qint64 now = 10; now <= 3000; now += 10) {
        QVERIFY(recorder.turn(now, testaudio::noise(now * 48, 480)));
        QVERIFY(std::abs(recorder.present() - now * 8) <= 1);
        QCOMPARE(recorder->audioSamplesWritten() % frameSize, 0);
    }
    QVERIFY(recorder.finishAudio());
    const MediaFile file(recorder->outputPath());
    QCOMPARE(file.audioStream()->sampleRate, 8000);
}

void AudioEncodingTest::thereIsRoomForWhatTheResamplerHolds()
{
    surroundings().hiddenEncoders = {"mpeg4"};
    QVERIFY(RecorderWithAudio::useEncoder("libspeex"));
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(recorder.turn(10, testaudio::noise(0, 480)));
    const qint64 held = swr_get_delay(recorder->audioResampler(), testaudio::rate);
    QVERIFY(held > 6); // more than one sample of the encoder's
    QList<int> rooms;
    surroundings().atAllocSamples = [&](int samples) { rooms.append(samples); };
    QVERIFY(recorder.turn(20, testaudio::noise(480, 481)));
    QCOMPARE(rooms.value(0), int((held + 481 + 5) / 6));
}

void AudioEncodingTest::withoutAChunkNothingIsPadded()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(recorder.turn(5000));
    QCOMPARE(recorder.present(), 0);
    QVERIFY(recorder.turn(5010, testaudio::noise(0, 480)));
    QCOMPARE(recorder.present(), 5010 * 48);
    QVERIFY(recorder.turn(9000));
    QCOMPARE(recorder.present(), 5010 * 48);
}

void AudioEncodingTest::fullFramesAreEncodedWithoutAChunk()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QCOMPARE(recorder->audioCodecContext()->frame_size, 1024);
    QVERIFY(recorder->padAudioFifoWithSilence(1500));
    QVERIFY(recorder.turn(1));
    QCOMPARE(recorder->audioSamplesWritten(), 1024);
    QCOMPARE(recorder.queued(), 476);
    QVERIFY(recorder.turn(2));
    QCOMPARE(recorder.queued(), 476);
    QVERIFY(recorder->padAudioFifoWithSilence(3 * 1024 - 476));
    QVERIFY(recorder.turn(3));
    QCOMPARE(recorder->audioSamplesWritten(), 4096);
    QCOMPARE(recorder.queued(), 0);
}

/// A chunk with frames and no samples still counts in the length of its batch.
void AudioEncodingTest::emptyChunksAreSkipped()
{
    QVERIFY(useExactEncoder());
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    auto privateObject = std::make_unique<RecorderAudioCapturePrivate>(QString());
    privateObject->chunks
        = {Chunk{QByteArray(40, 'x'), 0}, Chunk{QByteArray(40, 'x'), -10}, Chunk{QByteArray(), 960}};
    RecorderAudioCapturePrivate* const inside = privateObject.get();
    recorder->audioCapture() = std::make_unique<RecorderAudioCapture>(std::move(privateObject));
    QVERIFY(recorder.turn(30));
    QCOMPARE(recorder.log().countStartingWith(pcmLine), 0);
    QCOMPARE(recorder.present(), 30 * 48); // padded to the clock: chunks were taken

    inside->chunks = {Chunk{QByteArray(), 960}, chunkOf(testaudio::noise(0, 480))};
    QVERIFY(recorder.turn(100)); // begins at 70 ms, not at 90
    QCOMPARE(recorder.present(), 100 * 48);
    QCOMPARE(recorder.log().countStartingWith(pcmLine), 1);
    QVERIFY(recorder.finishAudio());
    std::vector<qint16> expected = silence(70 * 48);
    appendNoise(expected, 0, 480);
    QVERIFY(holdsThenSilence(exactSamples(recorder->outputPath()), expected));
}

void AudioEncodingTest::firstChunkIsLoggedOnce()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(recorder.turn(5));
    QCOMPARE(recorder.log().countStartingWith(pcmLine), 0);
    std::vector<qint16> samples = testaudio::constant(480, 100);
    samples[301] = -32768;
    QVERIFY(fakeplatform::deliverStereo(samples));
    QVERIFY(recorder.turn(10, testaudio::noise(0, 480)));
    QVERIFY(recorder.turn(20, testaudio::noise(0, 480)));
    QCOMPARE(recorder.log().countStartingWith(pcmLine), 1);
    QCOMPARE(
        recorder.log().count(QStringLiteral("Unix audio capture received PCM 1920 bytes 480 frames peak 32767")), 1);
    QVERIFY(recorder->audioPcmLogged());
}

void AudioEncodingTest::firstFrameIsAtZero()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QList<qint64> times;
    surroundings().afterReceivePacket = [&](AVPacket& packet) { times.append(packet.pts); };
    QVERIFY(recorder.turn(100, testaudio::noise(0, 4800)));
    QVERIFY(recorder.turn(200, testaudio::noise(0, 4800)));
    QVERIFY(recorder->drainAudioEncoder());
    const int priming = recorder->audioCodecContext()->initial_padding;
    QCOMPARE(times.size(), 11); // 9600 samples and the priming
    for (qsizetype i = 0; i < times.size(); ++i)
        QCOMPARE(times[i], i * 1024 - priming);
}

ORVANTIS_TEST(AudioEncodingTest)
#include "audioencoding_test.moc"

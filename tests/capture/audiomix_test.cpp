// The audio of several streams as one.
#include "audiomix.h"

#include "allocationfaults.h"
#include "testregistry.h"

#include <QTest>

#include <algorithm>
#include <cmath>
#include <functional>

using namespace pipewire;

namespace {

constexpr qint64 startMs = 5'000'000;
constexpr qint64 nsPerMs = 1'000'000;
constexpr qint64 seamFrames = 240;

/// A value that does not change, heard so many milliseconds after the start.
void push(BlockQueue& queue, qint64 atMs, qint64 ms, float value)
{
    const std::vector<float> samples(std::size_t(ms) * 96, value);
    const qint64 atNs = (startMs + atMs) * nsPerMs;
    QVERIFY(queue.push({atNs, atNs, ms * 48}, samples.data()));
}

constexpr qint64 blockMs = 20;

/// Blocks of 20 ms from one instant to the other, as they come while nobody reads. Returns how long those are that
/// found room.
qint64 pushUnread(BlockQueue& queue, qint64 fromMs, qint64 toMs, float value)
{
    const std::vector<float> samples(std::size_t(blockMs) * 96, value);
    qint64 keptMs = 0;
    for (qint64 ms = fromMs; ms < toMs; ms += blockMs) {
        const qint64 atNs = (startMs + ms) * nsPerMs;
        keptMs += queue.push({atNs, atNs, blockMs * 48}, samples.data()) ? blockMs : 0;
    }
    return keptMs;
}

/// All up to an instant, as the recorder asks for it: in turns, none of which is longer than 10 s. Nothing when one
/// of them delivers nothing.
std::optional<std::vector<float>> deliverAll(AudioMix& mix, const BlockQueues& queues, qint64 untilMs)
{
    std::vector<float> all;
    while (mix.deliveredMs() < startMs + untilMs) {
        const auto audio = mix.deliver(queues, startMs + untilMs, false);
        if (!audio || audio->size() > 10'000 * 96)
            return std::nullopt;
        all.insert(all.end(), audio->begin(), audio->end());
    }
    return all;
}

/// Nothing unless all frames from one to the other, seams left out, have that value.
std::optional<float> valueOf(const std::optional<std::vector<float>>& audio, qint64 from, qint64 to)
{
    if (!audio || qint64(audio->size()) < to * 2)
        return std::nullopt;
    const float value = (*audio)[std::size_t(from) * 2];
    const bool same = std::all_of(
        audio->begin() + from * 2, audio->begin() + to * 2, [value](float sample) { return sample == value; });
    return same ? std::optional(value) : std::nullopt;
}

}

class AudioMixTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void addsWhatIsHeardAtTheSameTime();
    void waitsForAll();
    void streamThatComesLaterFadesIn();
    void streamThatGoesIsHeardToTheEnd();
    void beginsAnew();
    void readerThatWasAway_data();
    void readerThatWasAway();
    void audioOnBothSidesOfAnAbsence();
    void turnWithoutMemoryIsTheOnlyLoss_data();
    void turnWithoutMemoryIsTheOnlyLoss();
    void nothingIsMissed_data();
    void nothingIsMissed();
};

void AudioMixTest::addsWhatIsHeardAtTheSameTime()
{
    const BlockQueues queues{std::make_shared<BlockQueue>(), std::make_shared<BlockQueue>()};
    AudioMix mix(0);
    mix.start(startMs);
    push(*queues[0], 0, 100, 0.25F);
    push(*queues[1], 50, 100, 0.5F); // it is heard later
    const auto audio = mix.deliver(queues, startMs + 90, false);
    QVERIFY(audio && audio->size() == 90 * 96);
    QCOMPARE(valueOf(audio, 0, 50 * 48), std::optional(0.25F));
    QCOMPARE(valueOf(audio, 50 * 48 + seamFrames, 90 * 48), std::optional(0.75F));
}

void AudioMixTest::waitsForAll()
{
    const BlockQueues queues{std::make_shared<BlockQueue>(), std::make_shared<BlockQueue>()};
    AudioMix mix(0);
    mix.start(startMs);
    push(*queues[0], 0, 100, 0.25F);
    push(*queues[1], 0, 20, 0.5F);
    QVERIFY(!mix.deliver(queues, startMs + 30, false));
    push(*queues[1], 20, 20, 0.5F);
    QCOMPARE(valueOf(mix.deliver(queues, startMs + 30, false), 0, 30 * 48), std::optional(0.75F));
    QVERIFY(!mix.deliver(queues, startMs + 30, false));
    const auto rest = mix.deliver(queues, startMs + 90, true);
    QVERIFY(rest && rest->size() == 60 * 96);
    QCOMPARE(valueOf(rest, 20 * 48, 60 * 48), std::optional(0.25F));
}

/// It is there in the middle of other audio, and its own.
void AudioMixTest::streamThatComesLaterFadesIn()
{
    BlockQueues queues{std::make_shared<BlockQueue>()};
    AudioMix mix(0);
    mix.start(startMs);
    push(*queues[0], 0, 200, 0.25F);
    QCOMPARE(valueOf(mix.deliver(queues, startMs + 50, false), 0, 50 * 48), std::optional(0.25F));
    queues.push_back(std::make_shared<BlockQueue>());
    push(*queues[1], 30, 100, 0.5F);
    const auto audio = mix.deliver(queues, startMs + 100, false);
    QVERIFY(audio && audio->size() == 50 * 96);
    QVERIFY((*audio)[0] < 0.26F);
    QCOMPARE(valueOf(audio, seamFrames, 50 * 48), std::optional(0.75F));
}

/// What it has captured can be heard later than its end; then it holds up nobody.
void AudioMixTest::streamThatGoesIsHeardToTheEnd()
{
    BlockQueues queues{std::make_shared<BlockQueue>(), std::make_shared<BlockQueue>()};
    const std::weak_ptr<BlockQueue> gone = queues[1];
    AudioMix mix(0);
    mix.start(startMs);
    push(*queues[0], 0, 400, 0.25F);
    push(*queues[1], 0, 200, 0.5F);
    QVERIFY(mix.deliver(queues, startMs + 50, false));
    queues.pop_back();
    QCOMPARE(valueOf(mix.deliver(queues, startMs + 190, false), 0, 140 * 48), std::optional(0.75F));
    QCOMPARE(valueOf(mix.deliver(queues, startMs + 300, false), 20 * 48, 110 * 48), std::optional(0.25F));
    QVERIFY(mix.deliver(queues, startMs + 350, false));
    QVERIFY(gone.expired());
}

void AudioMixTest::beginsAnew()
{
    const BlockQueues queues{std::make_shared<BlockQueue>()};
    AudioMix mix(0);
    mix.start(startMs);
    push(*queues[0], 0, 100, 0.25F);
    QVERIFY(mix.deliver(queues, startMs + 50, false));
    mix.start(startMs + 1000);
    push(*queues[0], 1000, 100, 0.5F);
    const auto audio = mix.deliver(queues, startMs + 1050, false);
    QVERIFY(audio && audio->size() == 50 * 96);
    QCOMPARE(valueOf(audio, 0, 50 * 48), std::optional(0.5F));
}

void AudioMixTest::readerThatWasAway_data()
{
    QTest::addColumn<int>("awayMs");
    QTest::newRow("longer than the queue holds") << 8000;
    QTest::newRow("longer than one delivery") << 12000;
    QTest::newRow("much longer") << 61000;
}

/// What found room is heard in its place, silence stands for the rest, and then it goes on.
void AudioMixTest::readerThatWasAway()
{
    QFETCH(const int, awayMs);
    const BlockQueues queues{std::make_shared<BlockQueue>()};
    AudioMix mix(0);
    mix.start(startMs);
    const qint64 keptMs = pushUnread(*queues[0], 0, awayMs, 0.25F);
    QVERIFY(keptMs > 5000 && keptMs < awayMs);
    const auto audio = deliverAll(mix, queues, awayMs);
    QVERIFY(audio && qint64(audio->size()) == awayMs * 96);
    QCOMPARE(valueOf(audio, 0, keptMs * 48), std::optional(0.25F));
    QCOMPARE(valueOf(audio, keptMs * 48 + seamFrames, awayMs * 48), std::optional(0.F));
    QVERIFY(mix.hasMissed());
    push(*queues[0], awayMs, 100, 0.5F);
    const auto next = deliverAll(mix, queues, awayMs + 90);
    QVERIFY(next && next->size() == 90 * 96);
    QCOMPARE(valueOf(next, seamFrames, 90 * 48), std::optional(0.5F));
}

/// A player that paused in the meantime: all of it is there.
void AudioMixTest::audioOnBothSidesOfAnAbsence()
{
    const BlockQueues queues{std::make_shared<BlockQueue>()};
    AudioMix mix(0);
    mix.start(startMs);
    QCOMPARE(pushUnread(*queues[0], 0, 1000, 0.25F), 1000);
    QCOMPARE(pushUnread(*queues[0], 14000, 15000, 0.5F), 1000);
    const auto audio = deliverAll(mix, queues, 14990);
    QVERIFY(audio && audio->size() == 14990 * 96);
    QCOMPARE(valueOf(audio, 0, 1000 * 48), std::optional(0.25F));
    QCOMPARE(valueOf(audio, 1000 * 48 + seamFrames, 14000 * 48), std::optional(0.F));
    QCOMPARE(valueOf(audio, 14000 * 48 + seamFrames, 14990 * 48), std::optional(0.5F));
    QVERIFY(!mix.hasMissed());
}

void AudioMixTest::turnWithoutMemoryIsTheOnlyLoss_data()
{
    QTest::addColumn<int>("stream");
    QTest::newRow("the first stream has none") << 0;
    QTest::newRow("the second stream has none") << 1;
}

/// After a long absence.
void AudioMixTest::turnWithoutMemoryIsTheOnlyLoss()
{
    QFETCH(const int, stream);
    const BlockQueues queues{std::make_shared<BlockQueue>(), std::make_shared<BlockQueue>()};
    AudioMix mix(0);
    mix.start(startMs);
    {
        const allocationfaults::RefusedOnce refused(stream, 1 << 20); // each takes 3.84 MB in ten seconds
        QVERIFY_THROWS_EXCEPTION(std::bad_alloc, mix.deliver(queues, startMs + 25'000, false));
    }
    QCOMPARE(mix.deliveredMs(), startMs + 10'000);
    QVERIFY(deliverAll(mix, queues, 25'000));
    push(*queues[0], 25'000, 100, 0.25F);
    push(*queues[1], 25'000, 100, 0.25F);
    const auto next = deliverAll(mix, queues, 25'090);
    QVERIFY(next && next->size() == 90 * 96);
    QCOMPARE(valueOf(next, seamFrames, 90 * 48), std::optional(0.5F));
}

void AudioMixTest::nothingIsMissed_data()
{
    using Happens = std::function<void(AudioMix&, BlockQueues&)>;
    QTest::addColumn<Happens>("happens"); // until 20 s after the start
    QTest::newRow("it was full before the start") << Happens([](AudioMix& mix, BlockQueues& queues) {
        pushUnread(*queues[0], -10'000, 0, 0.25F);
        mix.start(startMs);
    });
    QTest::newRow("it was full before it was started again") << Happens([](AudioMix& mix, BlockQueues& queues) {
        mix.start(startMs - 20'000);
        mix.deliver(queues, startMs - 19'000, false);
        pushUnread(*queues[0], -19'000, 0, 0.25F);
        mix.start(startMs);
    });
    QTest::newRow("the audio begins late") << Happens([](AudioMix& mix, BlockQueues& queues) {
        mix.start(startMs);
        deliverAll(mix, queues, 15'000);
        pushUnread(*queues[0], 15'000, 20'000, 0.25F);
    });
    QTest::newRow("the audio pauses") << Happens([](AudioMix& mix, BlockQueues& queues) {
        mix.start(startMs);
        pushUnread(*queues[0], 0, 2'000, 0.25F);
        deliverAll(mix, queues, 18'000);
        pushUnread(*queues[0], 18'000, 20'000, 0.25F);
    });
    QTest::newRow("another stream comes late") << Happens([](AudioMix& mix, BlockQueues& queues) {
        mix.start(startMs);
        pushUnread(*queues[0], 0, 1'000, 0.25F);
        deliverAll(mix, queues, 16'000);
        queues.push_back(std::make_shared<BlockQueue>());
        pushUnread(*queues[1], 16'000, 20'000, 0.25F);
    });
    QTest::newRow("the reader is away as long as the queue holds") << Happens([](AudioMix& mix, BlockQueues& queues) {
        mix.start(startMs);
        deliverAll(mix, queues, 15'000);
        pushUnread(*queues[0], 15'000, 20'000, 0.25F);
    });
    QTest::newRow("there is no stream") << Happens([](AudioMix& mix, BlockQueues& queues) {
        queues.clear();
        mix.start(startMs);
        mix.deliver(queues, startMs + 15'000, false);
    });
}

void AudioMixTest::nothingIsMissed()
{
    using Happens = std::function<void(AudioMix&, BlockQueues&)>;
    QFETCH(const Happens, happens);
    BlockQueues queues{std::make_shared<BlockQueue>()};
    AudioMix mix(0);
    happens(mix, queues);
    mix.deliver(queues, startMs + 20'000, false);
    QVERIFY(!mix.hasMissed());
}

ORVANTIS_TEST(AudioMixTest)

#include "audiomix_test.moc"

// The audio of several streams as one.
#include "audiomix.h"

#include "testregistry.h"

#include <QTest>

#include <algorithm>
#include <cmath>

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

ORVANTIS_TEST(AudioMixTest)

#include "audiomix_test.moc"

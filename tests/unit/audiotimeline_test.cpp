// Blocks of audio with time stamps, metered out by the millisecond.
#include "testregistry.h"
#include "timelinetest.h"

#include <QTest>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

using namespace timelinetest;

namespace {

/// Rises and falls by 1 in a millisecond, between 0 and 500.
double triangle(double ms)
{
    const double inPeriod = std::fmod(ms, 1000);
    return inPeriod < 500 ? inPeriod : 1000 - inPeriod;
}

}

class AudioTimelineTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void deliversWhatLiesBetweenTwoInstants();
    void keepsBothChannelsApart();
    void jitterMakesNoGap();
    void gapIsSilence();
    void overlapIsCut();
    void whatComesTooLateIsCut();
    void waitsForAudioOnItsWay();
    void doesNotWaitTheLastTime();
    void holdsBack();
    void silenceWhenNothingComes();
    void audioAfterAStallLiesAtItsTime();
    void stallLastsThreeBlocksAtLeast();
    void readerThatAlwaysComesTooEarlyIsHelpedOnce();
    void eachDeliveryEndsAtItsInstant_data();
    void eachDeliveryEndsAtItsInstant();
    void senselessBlocksAreLeftOut();
    void timeThatStandsOrRunsBackDeliversNothing();
    void longPauseOfTheReaderIsBounded();
    void audioFarAheadIsBounded();
    void hourOfAudioNeverPilesUp();
    void beginsAnew();
    void foreignClockIsFollowed_data();
    void foreignClockIsFollowed();
};

void AudioTimelineTest::deliversWhatLiesBetweenTwoInstants()
{
    AudioTimeline timeline = started();
    append(timeline, 0, 2000);
    QCOMPARE(left(timeline.deliver(startMs + 10)), range(1, 480));
    QCOMPARE(left(timeline.deliver(startMs + 11)), range(481, 48));
    QCOMPARE(left(timeline.deliver(startMs + 40)), range(529, 29 * 48));
}

void AudioTimelineTest::keepsBothChannelsApart()
{
    AudioTimeline timeline = started();
    append(timeline, 0, 480);
    const auto delivered = timeline.deliver(startMs + 5);
    QVERIFY(delivered);
    QCOMPARE(*delivered, numbered(1, 240));
}

void AudioTimelineTest::jitterMakesNoGap()
{
    AudioTimeline timeline = started();
    append(timeline, 0, quantum);
    appendAt(timeline, atFrame(quantum) + 11 * nsPerMs, quantum + 1, quantum);
    appendAt(timeline, atFrame(2 * quantum) - 11 * nsPerMs, 2 * quantum + 1, quantum);
    QCOMPARE(left(timeline.deliver(startMs + 60)), range(1, 60 * 48));
}

void AudioTimelineTest::gapIsSilence()
{
    AudioTimeline timeline = started();
    append(timeline, 0, 480);
    append(timeline, 480 + 20 * 48, 480);
    auto expected = joined(range(1, 480), std::vector<qint64>(20 * 48, 0));
    expected = joined(expected, range(480 + 20 * 48 + 1, 240));
    QCOMPARE(differenceButSeams(left(timeline.deliver(startMs + 35)), expected, {480, 480 + 20 * 48}), QString());
}

void AudioTimelineTest::overlapIsCut()
{
    AudioTimeline timeline = started();
    append(timeline, 0, 2000);
    append(timeline, 1000, 2000);
    QCOMPARE(differenceButSeams(left(timeline.deliver(startMs + 60)), range(1, 60 * 48), {2000}), QString());
}

void AudioTimelineTest::whatComesTooLateIsCut()
{
    AudioTimeline timeline = started();
    append(timeline, -100, 580); // the source ran before the start
    QCOMPARE(left(timeline.deliver(startMs + 9)), range(1, 9 * 48));
    append(timeline, 480 + 20 * 48, 48);
    append(timeline, -5000, 1000); // all of it is over
    append(timeline, 480 + 21 * 48, 480);
    std::vector<qint64> expected = joined(range(9 * 48 + 1, 48), std::vector<qint64>(20 * 48, 0));
    expected = joined(expected, range(480 + 20 * 48 + 1, 96 + 8 * 48));
    QCOMPARE(differenceButSeams(left(timeline.deliver(startMs + 40)), expected, {48, 21 * 48, 22 * 48}), QString());
}

void AudioTimelineTest::waitsForAudioOnItsWay()
{
    AudioTimeline timeline = started();
    QVERIFY(!timeline.deliver(startMs + 10));
    append(timeline, 0, quantum);
    QVERIFY(!timeline.deliver(startMs + 30));
    append(timeline, quantum, quantum);
    QCOMPARE(left(timeline.deliver(startMs + 40)), range(1, 40 * 48));
}

void AudioTimelineTest::doesNotWaitTheLastTime()
{
    AudioTimeline timeline = started();
    append(timeline, 0, quantum);
    QVERIFY(!timeline.deliver(startMs + 30));
    const auto expected = joined(range(1, quantum), std::vector<qint64>(30 * 48 - quantum, 0));
    QCOMPARE(differenceButSeams(left(timeline.deliver(startMs + 30, true)), expected, {quantum}), QString());
}

void AudioTimelineTest::holdsBack()
{
    AudioTimeline timeline = started(8);
    append(timeline, 0, 480);
    const auto expected = joined(std::vector<qint64>(8 * 48, 0), range(1, 9 * 48));
    QCOMPARE(differenceButSeams(left(timeline.deliver(startMs + 17)), expected, {8 * 48}), QString());
}

void AudioTimelineTest::silenceWhenNothingComes()
{
    AudioTimeline timeline = started();
    QVERIFY(!timeline.deliver(startMs + 300));
    QCOMPARE(left(timeline.deliver(startMs + 301)), std::vector<qint64>(301 * 48, 0));
    QCOMPARE(left(timeline.deliver(startMs + 311)), std::vector<qint64>(10 * 48, 0));
}

void AudioTimelineTest::audioAfterAStallLiesAtItsTime()
{
    AudioTimeline timeline = started();
    append(timeline, 0, 480);
    QVERIFY(!timeline.deliver(startMs + 20));
    const std::vector<qint64> stalled = left(timeline.deliver(startMs + 400));
    QCOMPARE(differenceButSeams(stalled, joined(range(1, 480), std::vector<qint64>(390 * 48, 0)), {480}), QString());
    // Within the tolerance of time stamps, and yet exactly placed: there is no block before it to follow.
    append(timeline, 405 * 48, quantum);
    const auto expected = joined(std::vector<qint64>(5 * 48, 0), range(405 * 48 + 1, 10 * 48));
    QCOMPARE(differenceButSeams(left(timeline.deliver(startMs + 415)), expected, {5 * 48}), QString());
}

void AudioTimelineTest::stallLastsThreeBlocksAtLeast()
{
    AudioTimeline timeline = started();
    append(timeline, 0, 9600); // 200 ms
    QVERIFY(!timeline.deliver(startMs + 600));
    const auto expected = joined(range(1, 9600), std::vector<qint64>(401 * 48, 0));
    QCOMPARE(differenceButSeams(left(timeline.deliver(startMs + 601)), expected, {9600}), QString());
}

/// Blocks of 20 ms become known 1 ms after their time; the reader comes every 20 ms, 10 ms after that.
void AudioTimelineTest::readerThatAlwaysComesTooEarlyIsHelpedOnce()
{
    AudioTimeline timeline = started(8);
    std::vector<qint64> all;
    qint64 turnsWithout = 0;
    for (qint64 ms = 20; ms <= 4000; ms += 20) {
        timeline.append(
            {(startMs + ms - 20) * nsPerMs, (startMs + ms + 1) * nsPerMs}, numbered((ms - 20) * 48 + 1, 20 * 48));
        const auto delivered = timeline.deliver(startMs + ms + 11);
        turnsWithout += delivered ? 0 : 1;
        all = joined(std::move(all), left(delivered));
    }
    QVERIFY2(turnsWithout <= 30, qPrintable(QString::number(turnsWithout))); // half a second, once

    // 8 ms of silence, the audio up to the discontinuity, 6 ms of silence (a bit more than 3 were missing; the echo
    // reaches 5 ms into them), the rest of the audio.
    const auto second = std::find(all.begin() + 9 * 48, all.end(), 0);
    QVERIFY(second != all.end());
    const qint64 gap = second - all.begin() - seamFrames;
    auto expected = joined(std::vector<qint64>(8 * 48, 0), range(1, gap - 8 * 48));
    expected = joined(expected, std::vector<qint64>(6 * 48, 0));
    expected = joined(expected, range(gap - 8 * 48 + 1, qint64(all.size()) - gap - 6 * 48));
    QCOMPARE(differenceButSeams(all, expected, {8 * 48, gap, gap + 6 * 48}), QString());
}

void AudioTimelineTest::eachDeliveryEndsAtItsInstant_data()
{
    QTest::addColumn<int>("blockFrames");
    QTest::addColumn<int>("holdBackMs");
    QTest::addColumn<int>("blockAgeMs"); // when its first sample becomes known
    for (const int frames : {64, 1024, 4096, 8192}) {
        QTest::addRow("%d, known ahead", frames) << frames << 0 << 1;
        QTest::addRow("%d, known at its end", frames) << frames << 8 << frames / 48 + 1;
    }
}

/// A reader whose turns are 1 to 40 ms apart: what it gets is the audio without gap, and always ends at its instant.
void AudioTimelineTest::eachDeliveryEndsAtItsInstant()
{
    QFETCH(int, blockFrames);
    QFETCH(int, holdBackMs);
    QFETCH(int, blockAgeMs);
    AudioTimeline timeline = started(holdBackMs);
    std::mt19937 random(1);
    std::uniform_int_distribution<int> pause(1, 40);
    qint64 appended = 0;
    std::vector<qint64> all;
    for (qint64 ms = 0; ms < 5000; ms += pause(random)) {
        for (; appended + blockAgeMs * 48 <= ms * 48; appended += blockFrames)
            timeline.append({atFrame(appended), (startMs + ms) * nsPerMs}, numbered(appended + 1, blockFrames));
        if (const auto delivered = timeline.deliver(startMs + ms)) {
            all = joined(std::move(all), left(delivered));
            QCOMPARE(qint64(all.size()), ms * 48);
        }
    }
    QVERIFY(all.size() > 3000 * 48);
    // Where the reader is helped, there is a gap between two seams.
    qint64 exact = 0;
    qint64 next = 1;
    for (size_t i = 1; i < all.size(); ++i) {
        if (all[i] != all[i - 1] + 1 || i + seamFrames >= all.size() || all[i + seamFrames] != all[i] + seamFrames)
            continue;
        QVERIFY2(all[i] >= next && all[i] <= next + 2 * seamFrames + 1, qPrintable(QString::number(all[i])));
        next = all[i] + 1;
        ++exact;
    }
    QVERIFY2(exact > qint64(all.size()) - 2500, qPrintable(QString::number(qint64(all.size()) - exact)));
}

void AudioTimelineTest::senselessBlocksAreLeftOut()
{
    AudioTimeline timeline = started();
    append(timeline, 0, 0);
    timeline.append({atFrame(3600 * 48000), atFrame(0)}, numbered(1, 480)); // in an hour
    append(timeline, 0, 480);
    append(timeline, -3600 * 48000, 480);
    append(timeline, 480, 48 * 11000); // longer than anything is kept
    append(timeline, 480, 480);
    QCOMPARE(left(timeline.deliver(startMs + 15)), range(1, 15 * 48));
}

void AudioTimelineTest::timeThatStandsOrRunsBackDeliversNothing()
{
    AudioTimeline timeline = started();
    append(timeline, 0, 4800);
    QVERIFY(!timeline.deliver(startMs));
    QVERIFY(!timeline.deliver(startMs - 1000));
    QCOMPARE(left(timeline.deliver(startMs + 20)), range(1, 20 * 48));
    QVERIFY(!timeline.deliver(startMs + 20));
    QVERIFY(!timeline.deliver(startMs + 19));
    QCOMPARE(left(timeline.deliver(startMs + 21)), range(20 * 48 + 1, 48));
}

/// It comes back in turns, and gets what is there, before and behind the silence.
void AudioTimelineTest::longPauseOfTheReaderIsBounded()
{
    constexpr qint64 pauseMs = 25000;
    AudioTimeline timeline = started();
    append(timeline, 0, 4800);
    append(timeline, pauseMs * 48, 960);
    append(timeline, pauseMs * 48 + 960, 960);
    std::vector<qint64> all;
    for (qint64 ms = 0; ms < pauseMs + 35;) {
        ms = AudioTimeline::turnEnd(ms, pauseMs + 35);
        const std::vector<qint64> turn = left(timeline.deliver(startMs + ms));
        QVERIFY(turn.size() <= 10000 * 48);
        all = joined(std::move(all), turn);
        QCOMPARE(qint64(all.size()), ms * 48);
    }
    auto expected = joined(range(1, 4800), std::vector<qint64>(pauseMs * 48 - 4800, 0));
    expected = joined(expected, range(pauseMs * 48 + 1, 35 * 48));
    QCOMPARE(differenceButSeams(all, expected, {4800, pauseMs * 48}), QString());
    QVERIFY(!timeline.hasMissed());
    QVERIFY(!timeline.deliver(startMs + pauseMs + 60, true)->empty());
    QVERIFY(timeline.isEmpty());
}

/// What lies ahead of that is bounded, too, and what is lost is told.
void AudioTimelineTest::audioFarAheadIsBounded()
{
    constexpr qint64 second = 48000;
    AudioTimeline timeline = started();
    const auto appendSecond = [&timeline](qint64 number) { append(timeline, number * second, second); };
    for (qint64 number = 12; number < 22; ++number)
        appendSecond(number);
    QVERIFY(!timeline.hasMissed());
    QVERIFY(!timeline.isEmpty());
    appendSecond(22);
    QVERIFY(timeline.hasMissed());
    std::vector<qint64> all;
    for (const qint64 ms : {10000, 20000, 23000})
        all = joined(std::move(all), left(timeline.deliver(startMs + ms, true)));
    auto expected = joined(std::vector<qint64>(12 * second, 0), range(12 * second + 1, 10 * second));
    expected = joined(expected, std::vector<qint64>(second, 0));
    QCOMPARE(differenceButSeams(all, expected, {12 * second, 22 * second}), QString());
    timeline.start(startMs);
    QVERIFY(!timeline.hasMissed());
}

/// A reader that comes every 10 to 100 ms, and once a minute only after 3 s.
void AudioTimelineTest::hourOfAudioNeverPilesUp()
{
    constexpr qint64 hourMs = 3600 * 1000;
    AudioTimeline timeline = started();
    std::mt19937 random(11);
    const Samples block(std::size_t(quantum) * 2, 0.25F);
    qint64 appended = 0; // frames
    qint64 delivered = 0;
    qint64 most = 0; // that waited at one time
    for (qint64 nowMs = 0; nowMs < hourMs;) {
        nowMs += nowMs % 60000 < 100 ? 3000 : 10 + qint64(random() % 90);
        for (; appended < nowMs * 48; appended += quantum) // each is there when its time begins
            timeline.append({atFrame(appended), atFrame(appended)}, block);
        most = std::max(most, appended - delivered);
        if (const auto audio = timeline.deliver(startMs + nowMs)) {
            delivered += qint64(audio->size() / 2);
            QCOMPARE(delivered, nowMs * 48);
            QVERIFY(std::all_of(audio->begin(), audio->end(), [](float sample) { return sample == 0.25F; }));
        }
    }
    QVERIFY(delivered > (hourMs - 4000) * 48);
    QVERIFY2(most <= 3100 * 48 + quantum, qPrintable(QString::number(most)));
}

void AudioTimelineTest::beginsAnew()
{
    AudioTimeline timeline = started();
    append(timeline, 0, 4800);
    QVERIFY(timeline.deliver(startMs + 50));
    timeline.start(startMs + 500);
    append(timeline, 490 * 48, 960); // 10 ms of it are from before the start
    QCOMPARE(left(timeline.deliver(startMs + 505)), range(500 * 48 + 1, 5 * 48));
}

void AudioTimelineTest::foreignClockIsFollowed_data()
{
    QTest::addColumn<double>("partsPerMillion");
    QTest::newRow("slow") << -300.0;
    QTest::newRow("slightly fast") << 40.0;
    QTest::newRow("fast") << 300.0;
}

/// Some minutes of a triangle wave whose value tells when it is meant to play, from a source whose clock has another
/// speed. The time stamps jitter by 5 ms.
void AudioTimelineTest::foreignClockIsFollowed()
{
    QFETCH(double, partsPerMillion);
    const double speed = 1 + partsPerMillion * 1e-6; // how fast the source's clock runs
    AudioTimeline timeline = started();
    std::mt19937 random(2);
    std::uniform_real_distribution<double> jitterMs(-5, 5);
    qint64 appended = 0;
    double largestErrorMs = 0;
    double largestJumpMs = 0;
    double last = 0;
    for (qint64 ms = 0; ms < 200000; ms += 10) {
        for (; double(appended) / 48 / speed <= double(ms); appended += quantum) {
            const double jitter = appended == 0 ? 0 : jitterMs(random);
            Samples ramp;
            for (qint64 i = 0; i < quantum; ++i)
                ramp.insert(ramp.end(), 2, float(triangle(double(appended + i) / 48 / speed)));
            const auto sinceStartNs = qint64((double(appended) / 48 / speed + jitter) * nsPerMs);
            timeline.append({startMs * nsPerMs + sinceStartNs, (startMs + ms) * nsPerMs}, ramp);
        }
        const auto delivered = timeline.deliver(startMs + ms);
        if (!delivered)
            continue;
        const auto frames = qint64(delivered->size() / 2);
        for (qint64 i = 0; i < frames; ++i) {
            const auto value = double((*delivered)[size_t(2 * i)]);
            const double time = double(ms) - double(frames - i) / 48;
            largestErrorMs = std::max(largestErrorMs, std::abs(value - triangle(time)));
            largestJumpMs = std::max(largestJumpMs, std::abs(value - last));
            last = value;
        }
    }
    QVERIFY2(largestErrorMs <= 3, qPrintable(QString::number(largestErrorMs)));
    // A frame is 0.0208, and the corners of the triangle ring; a frame too many or too few would be 0.0416.
    QVERIFY2(largestJumpMs <= 0.03, qPrintable(QString::number(largestJumpMs)));
}

ORVANTIS_TEST(AudioTimelineTest)
#include "audiotimeline_test.moc"

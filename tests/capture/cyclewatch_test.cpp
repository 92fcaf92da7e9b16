// What a player left out, told by the graph's clock alone.
#include "cyclewatch.h"
#include "testregistry.h"

#include <QTest>

#include <chrono>
#include <initializer_list>
#include <vector>

namespace {

constexpr int64_t cycleNs = 20'000'000;

int64_t nowNs()
{
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// A cycle of 960 frames at 48000 Hz that has just begun.
spa_io_clock cycle(uint64_t position, uint32_t clockId = 7)
{
    spa_io_clock clock{};
    clock.id = clockId;
    // In the near future: however long the test is held up, it is not late.
    clock.nsec = uint64_t(nowNs() + 3600'000'000'000);
    clock.rate = {1, 48000};
    clock.position = position;
    clock.duration = 960;
    return clock;
}

/// How many gaps it finds.
int gapsIn(CycleWatch& watch, std::initializer_list<spa_io_clock> cycles)
{
    int gaps = 0;
    for (const spa_io_clock& clock : cycles)
        gaps += watch.cycleDone(clock);
    return gaps;
}

}

class CycleWatchTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void continuousCycles();
    void missedCycles();
    void lateCycle();
    void restAndOtherClocks();
    void moreThanThereIsRoomFor();
};

void CycleWatchTest::continuousCycles()
{
    CycleWatch watch;
    QCOMPARE(gapsIn(watch, {cycle(48000), cycle(48960), cycle(49920)}), 0);
    QCOMPARE(gapsIn(watch, {spa_io_clock{}}), 0); // no clock yet
    QVERIFY(!watch.takeGap());
}

void CycleWatchTest::missedCycles()
{
    CycleWatch watch;
    const spa_io_clock after = cycle(960 * 4);
    QCOMPARE(gapsIn(watch, {cycle(0), cycle(960), after, cycle(960 * 5)}), 1);
    const auto gap = watch.takeGap();
    QVERIFY(gap);
    QCOMPARE(gap->lengthNs, 2 * cycleNs);
    QCOMPARE(gap->startNs, int64_t(after.nsec) - 2 * cycleNs);
    QVERIFY(!watch.takeGap());
}

/// The next one has begun when it is done.
void CycleWatchTest::lateCycle()
{
    CycleWatch watch;
    spa_io_clock late = cycle(960);
    late.nsec = uint64_t(nowNs() - cycleNs - 1'000'000);
    QCOMPARE(gapsIn(watch, {cycle(0), late, cycle(1920)}), 1);
    const auto gap = watch.takeGap();
    QVERIFY(gap);
    QCOMPARE(gap->startNs, int64_t(late.nsec));
    QCOMPARE(gap->lengthNs, cycleNs);
}

void CycleWatchTest::restAndOtherClocks()
{
    CycleWatch watch;
    QCOMPARE(gapsIn(watch, {cycle(0)}), 0);
    watch.restart();
    QCOMPARE(gapsIn(watch, {cycle(96000), cycle(96960)}), 0);
    QCOMPARE(gapsIn(watch, {cycle(5, 8), cycle(965, 8)}), 0); // of another driver
    QCOMPARE(gapsIn(watch, {cycle(0, 8)}), 0); // of one that began anew
}

void CycleWatchTest::moreThanThereIsRoomFor()
{
    CycleWatch watch;
    int found = 0;
    for (uint64_t i = 0; i < 3000; ++i)
        found += watch.cycleDone(cycle(i * 1920));
    int taken = 0;
    while (watch.takeGap())
        ++taken;
    QVERIFY(found >= 1000 && found < 2999);
    QCOMPARE(taken, found);
}

ORVANTIS_TEST(CycleWatchTest)
#include "cyclewatch_test.moc"

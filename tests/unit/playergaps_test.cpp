// What a player left out explains a fault of its recording, and nothing else does.
#include "playergaps.h"
#include "testregistry.h"

#include <QDateTime>
#include <QTest>

#include <chrono>
#include <cmath>

using audioanalysis::ToneFault;
using playergaps::Gap;

class PlayerGapsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void lines_data();
    void lines();
    void faults_data();
    void faults();
    void eachFaultNeedsItsGap();
    void wallClock();
};

void PlayerGapsTest::lines_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<bool>("right");
    QTest::newRow("gap") << QByteArray("gap 3001345.025688 85.333333\n") << true;
    for (const char* line : {"", "gap", "gap 1", "gap 1 2 3", "gap x 2", "gap 1 x", "gap 1 0", "gap 1 -2", "playing",
             "quantum 1024", "quantum 1024 2"})
        QTest::newRow(line) << QByteArray(line) << false;
}

void PlayerGapsTest::lines()
{
    QFETCH(const QByteArray, line);
    QFETCH(const bool, right);
    const std::optional<Gap> gap = playergaps::parse(line);
    QCOMPARE(gap.has_value(), right);
    if (right) {
        QCOMPARE(gap->atMs, 3001345.025688);
        QCOMPARE(gap->lengthMs, 85.333333);
    }
}

void PlayerGapsTest::faults_data()
{
    QTest::addColumn<double>("gapAtMs"); // in the recording
    QTest::addColumn<double>("gapLengthMs");
    QTest::addColumn<bool>("explained");
    QTest::newRow("at the same place") << 1000.0 << 21.0 << true;
    QTest::newRow("around it") << 900.0 << 300.0 << true;
    QTest::newRow("a cycle before it") << 940.0 << 21.0 << true;
    QTest::newRow("just behind it") << 1060.0 << 21.0 << true;
    QTest::newRow("long before it") << 800.0 << 21.0 << false;
    QTest::newRow("long behind it") << 1200.0 << 21.0 << false;
}

void PlayerGapsTest::faults()
{
    QFETCH(const double, gapAtMs);
    QFETCH(const double, gapLengthMs);
    QFETCH(const bool, explained);
    constexpr double originMs = 3'000'000.0;
    const auto rest
        = playergaps::unexplained({ToneFault{1000.0, 1020.0, 0.9}}, {Gap{originMs + gapAtMs, gapLengthMs}}, originMs);
    QCOMPARE(rest.empty(), explained);
    QVERIFY(!playergaps::unexplained({ToneFault{1000.0, 1020.0, 0.9}}, {}, originMs).empty());
}

void PlayerGapsTest::eachFaultNeedsItsGap()
{
    const auto rest = playergaps::unexplained(
        {ToneFault{1000.0, 1020.0, 0.9}, ToneFault{2000.0, 2020.0, 0.5}}, {Gap{1000.0, 21.0}}, 0.0);
    QCOMPARE(rest.size(), std::size_t(1));
    QCOMPARE(rest.front().fromMs, 2000.0);
}

void PlayerGapsTest::wallClock()
{
    const auto monotonic = std::chrono::steady_clock::now().time_since_epoch();
    const double wallMs
        = std::chrono::duration<double, std::milli>(monotonic).count() + playergaps::wallClockLeadMs();
    constexpr double minuteMs = 60'000.0; // the test may be held up
    QVERIFY(std::abs(wallMs - double(QDateTime::currentMSecsSinceEpoch())) < minuteMs);
}

ORVANTIS_TEST(PlayerGapsTest)
#include "playergaps_test.moc"

// When the next capture is due, and how long to sleep until then.
#include "pacing.h"
#include "testregistry.h"

#include <QTest>

using namespace pacing;

class PacingTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void nextDueIsOneIntervalOn_data();
    void nextDueIsOneIntervalOn();
    void stallSkipsTheMissedSlots_data();
    void stallSkipsTheMissedSlots();
    void sleepsUntilDueAndTenMillisecondsAtMost_data();
    void sleepsUntilDueAndTenMillisecondsAtMost();
    void queueHoldsMoreThanTheHoldTime();
};

void PacingTest::nextDueIsOneIntervalOn_data()
{
    QTest::addColumn<qint64>("dueMs");
    QTest::addColumn<qint64>("nowMs");
    QTest::addColumn<qint64>("expected");
    QTest::newRow("the first, at once") << qint64(0) << qint64(0) << qint64(41);
    QTest::newRow("on time") << qint64(410) << qint64(410) << qint64(451);
    QTest::newRow("a few milliseconds late: the plan does not drift") << qint64(410) << qint64(419) << qint64(451);
    QTest::newRow("an interval late: due at once") << qint64(410) << qint64(451) << qint64(451);
    QTest::newRow("exactly one interval behind") << qint64(410) << qint64(492) << qint64(451);
}

void PacingTest::nextDueIsOneIntervalOn()
{
    QFETCH(qint64, dueMs);
    QFETCH(qint64, nowMs);
    QTEST(nextDue(dueMs, nowMs), "expected");
}

void PacingTest::stallSkipsTheMissedSlots_data()
{
    QTest::addColumn<qint64>("dueMs");
    QTest::addColumn<qint64>("nowMs");
    QTest::addColumn<qint64>("expected");
    QTest::newRow("a millisecond more than one interval behind") << qint64(410) << qint64(493) << qint64(534);
    QTest::newRow("200 ms") << qint64(410) << qint64(610) << qint64(651);
    QTest::newRow("an hour") << qint64(410) << qint64(3600000) << qint64(3600041);
}

void PacingTest::stallSkipsTheMissedSlots()
{
    QFETCH(qint64, dueMs);
    QFETCH(qint64, nowMs);
    QTEST(nextDue(dueMs, nowMs), "expected");
}

void PacingTest::sleepsUntilDueAndTenMillisecondsAtMost_data()
{
    QTest::addColumn<qint64>("dueMs");
    QTest::addColumn<qint64>("nowMs");
    QTest::addColumn<qint64>("expected");
    QTest::newRow("due now") << qint64(41) << qint64(41) << qint64(0);
    QTest::newRow("overdue") << qint64(41) << qint64(300) << qint64(0);
    QTest::newRow("soon") << qint64(41) << qint64(38) << qint64(3);
    QTest::newRow("in ten") << qint64(41) << qint64(31) << qint64(10);
    QTest::newRow("later") << qint64(41) << qint64(0) << qint64(10);
}

void PacingTest::sleepsUntilDueAndTenMillisecondsAtMost()
{
    QFETCH(qint64, dueMs);
    QFETCH(qint64, nowMs);
    QTEST(idleSleep(dueMs, nowMs), "expected");
}

void PacingTest::queueHoldsMoreThanTheHoldTime()
{
    QCOMPARE(frameIntervalMs, qint64(41));
    QCOMPARE(holdMs, qint64(3000));
    QCOMPARE(queueReserve, 81);
    // A frame leaves only once it is older than the hold time, so there is one more than fits in.
    QVERIFY(queueReserve > holdMs / frameIntervalMs + 1);
}

ORVANTIS_TEST(PacingTest)
#include "pacing_test.moc"

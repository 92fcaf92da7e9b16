// How a click marker ages.
#include "clickmarker.h"
#include "testregistry.h"

#include <QTest>

using namespace clickmarker;

class ClickMarkerTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void livesForTwoSeconds_data();
    void livesForTwoSeconds();
    void shrinksAndFades_data();
    void shrinksAndFades();
    void alphaRoundsToTheNearest();
};

void ClickMarkerTest::livesForTwoSeconds_data()
{
    QTest::addColumn<qint64>("frameMs");
    QTest::addColumn<qint64>("keyMs");
    QTest::addColumn<bool>("over");
    QTest::newRow("fresh") << qint64(500) << qint64(500) << false;
    QTest::newRow("age 2000") << qint64(2500) << qint64(500) << false;
    QTest::newRow("age 2001") << qint64(2501) << qint64(500) << true;
    QTest::newRow("still to come") << qint64(0) << qint64(500) << false;
    QTest::newRow("far ahead") << qint64(0) << std::numeric_limits<qint64>::max() << false;
}

void ClickMarkerTest::livesForTwoSeconds()
{
    QFETCH(qint64, frameMs);
    QFETCH(qint64, keyMs);
    QTEST(expired(frameMs, keyMs), "over");
}

void ClickMarkerTest::shrinksAndFades_data()
{
    QTest::addColumn<qint64>("age");
    QTest::addColumn<double>("expectedRadius");
    QTest::addColumn<int>("expectedAlpha");
    QTest::newRow("fresh") << qint64(0) << 16.0 << 180;
    QTest::newRow("a quarter") << qint64(500) << 12.0 << 135;
    QTest::newRow("half") << qint64(1000) << 8.0 << 90;
    QTest::newRow("last alpha above the floor") << qint64(1327) << 5.384 << 61;
    QTest::newRow("first alpha on the floor") << qint64(1328) << 5.376 << 60;
    QTest::newRow("three quarters") << qint64(1500) << 4.0 << 60;
    QTest::newRow("radius reaches its floor") << qint64(1750) << 2.0 << 60;
    QTest::newRow("end") << qint64(2000) << 2.0 << 60;
    QTest::newRow("past the end") << qint64(5000) << 2.0 << 60;
}

void ClickMarkerTest::shrinksAndFades()
{
    QFETCH(qint64, age);
    QFETCH(double, expectedRadius);
    QCOMPARE(radius(fade(age)), expectedRadius);
    QTEST(alpha(fade(age)), "expectedAlpha");
}

void ClickMarkerTest::alphaRoundsToTheNearest()
{
    QCOMPARE(alpha(100.4 / 180.0), 100);
    QCOMPARE(alpha(100.5 / 180.0), 101);
    QCOMPARE(alpha(100.6 / 180.0), 101);
}

ORVANTIS_TEST(ClickMarkerTest)
#include "clickmarker_test.moc"

// The rounding of window rectangles.
#include "testregistry.h"
#include "windowbounds.h"

#include <QTest>

#include <limits>

using namespace windowbounds;

namespace {

constexpr int leastInt = std::numeric_limits<int>::min();
constexpr int mostInt = std::numeric_limits<int>::max();
constexpr double infinity = std::numeric_limits<double>::infinity();

}

class WindowBoundsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void roundsHalvesAwayFromZero_data();
    void roundsHalvesAwayFromZero();
    void roundsOriginAndSizeEachForItself_data();
    void roundsOriginAndSizeEachForItself();
    void rectangleThatCannotBeIsInvalid_data();
    void rectangleThatCannotBeIsInvalid();
    void imageRectangleStandsInForInvalidBounds();
};

void WindowBoundsTest::roundsHalvesAwayFromZero_data()
{
    QTest::addColumn<double>("value");
    QTest::addColumn<int>("expected");
    QTest::newRow("minus a half") << -0.5 << -1;
    QTest::newRow("a half") << 0.5 << 1;
    QTest::newRow("99.5") << 99.5 << 100;
    QTest::newRow("-99.5") << -99.5 << -100;
    QTest::newRow("below a half") << 0.4999 << 0;
    QTest::newRow("above minus a half") << -0.4999 << 0;
    QTest::newRow("zero") << 0.0 << 0;
    QTest::newRow("minus zero") << -0.0 << 0;
    QTest::newRow("whole") << -17.0 << -17;
    QTest::newRow("largest int") << double(mostInt) << mostInt;
    QTest::newRow("rounds past the largest int") << double(mostInt) + 0.5 << mostInt;
    QTest::newRow("smallest int") << double(leastInt) << leastInt;
    QTest::newRow("rounds past the smallest int") << double(leastInt) - 0.5 << leastInt;
    QTest::newRow("huge") << 1e308 << mostInt;
    QTest::newRow("hugely negative") << -1e308 << leastInt;
    QTest::newRow("infinity") << infinity << mostInt;
    QTest::newRow("minus infinity") << -infinity << leastInt;
    QTest::newRow("not a number") << std::numeric_limits<double>::quiet_NaN() << 0;
}

void WindowBoundsTest::roundsHalvesAwayFromZero()
{
    QFETCH(double, value);
    QTEST(roundHalfAwayFromZero(value), "expected");
}

void WindowBoundsTest::roundsOriginAndSizeEachForItself_data()
{
    QTest::addColumn<QRectF>("rect");
    QTest::addColumn<QRect>("expected");
    QTest::newRow("whole numbers") << QRectF(10, 20, 300, 200) << QRect(10, 20, 300, 200);
    QTest::newRow("halves") << QRectF(-0.5, 0.5, 99.5, 100.4) << QRect(-1, 1, 100, 100);
    QTest::newRow("the right edge does not round") << QRectF(0.4, 0.4, 10.4, 10.4) << QRect(0, 0, 10, 10);
    QTest::newRow("left of and above the main display") << QRectF(-1920, -30.2, 1, 1) << QRect(-1920, -30, 1, 1);
    QTest::newRow("one point") << QRectF(0, 0, 0.5, 0.5) << QRect(0, 0, 1, 1);
    QTest::newRow("as far right as an int goes")
        << QRectF(mostInt, mostInt, 1, 1) << QRect(QPoint(mostInt, mostInt), QPoint(mostInt, mostInt));
    QTest::newRow("as wide as an int goes")
        << QRectF(0, 0, mostInt, mostInt) << QRect(QPoint(0, 0), QPoint(mostInt - 1, mostInt - 1));
}

void WindowBoundsTest::roundsOriginAndSizeEachForItself()
{
    QFETCH(QRectF, rect);
    QTEST(roundedRect(rect), "expected");
}

void WindowBoundsTest::rectangleThatCannotBeIsInvalid_data()
{
    constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
    QTest::addColumn<QRectF>("rect");
    QTest::newRow("empty") << QRectF();
    QTest::newRow("no width") << QRectF(5, 5, 0.4, 10);
    QTest::newRow("no height") << QRectF(5, 5, 10, 0);
    QTest::newRow("negative width") << QRectF(5, 5, -10, 10);
    QTest::newRow("negative height") << QRectF(5, 5, 10, -10);
    QTest::newRow("size not a number") << QRectF(5, 5, notANumber, 10);
    QTest::newRow("the null rectangle of the system") << QRectF(infinity, infinity, 0, 0);
    QTest::newRow("right edge beyond int") << QRectF(2, 0, mostInt, 10);
    QTest::newRow("bottom edge beyond int") << QRectF(0, 2, 10, mostInt);
    QTest::newRow("infinite") << QRectF(2.0, 2.0, infinity, infinity);
}

void WindowBoundsTest::rectangleThatCannotBeIsInvalid()
{
    QFETCH(QRectF, rect);
    QCOMPARE(roundedRect(rect), QRect());
}

void WindowBoundsTest::imageRectangleStandsInForInvalidBounds()
{
    const QRect bounds(-4, 7, 30, 20);
    QCOMPARE(boundsOrImageRect(bounds, QSize(60, 40)), bounds);
    QCOMPARE(boundsOrImageRect(QRect(), QSize(60, 40)), QRect(0, 0, 60, 40));
    QCOMPARE(boundsOrImageRect(QRect(3, 3, 0, 5), QSize(60, 40)), QRect(0, 0, 60, 40));
}

ORVANTIS_TEST(WindowBoundsTest)
#include "windowbounds_test.moc"

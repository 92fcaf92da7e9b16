// Which part of a window its program has painted, from reports as X servers give them.
#include "linux/x11/unpaintedarea.h"
#include "testregistry.h"

#include <QTest>

using x11::UnpaintedArea;

namespace {

const UnpaintedArea::TimePoint start;
const QRect geometry(100, 80, 200, 150);

UnpaintedArea paintedWindow()
{
    UnpaintedArea area(geometry);
    area.begin(start);
    area.addDamage(QRect(0, 0, 200, 150), false);
    return area;
}

}

class UnpaintedAreaTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void whatIsPaintedCounts();
    void addedAreaIsReportedByTheServerFirst();
    void addedAreaIsPaintedAtOnceWithABackground();
    void addedAreaOutsideTheScreenIsNotReported();
    void oldPixelsAreForgotten();
    void keptPixelsStayMissing();
    void movedPixelsStayMissing();
    void onlyRestackedWindowIsPaintedAtOnce();
    void patienceEnds();
    void patienceIsNotBegunAnew();
    void manyPiecesAreEnough();
};

void UnpaintedAreaTest::whatIsPaintedCounts()
{
    UnpaintedArea area(geometry);
    area.begin(start);
    QCOMPARE(area.at(start), QRegion(0, 0, 200, 150));
    area.addDamage(QRect(0, 0, 200, 50), true);
    QCOMPARE(area.at(start), QRegion(0, 50, 200, 100));
    area.addDamage(QRect(0, 50, 200, 100), false);
    QVERIFY(area.at(start).isEmpty());
}

void UnpaintedAreaTest::addedAreaIsReportedByTheServerFirst()
{
    UnpaintedArea area = paintedWindow();
    area.configure(QRect(100, 80, 300, 250), true, start);
    area.addDamage(QRect(200, 0, 100, 150), true);
    area.addDamage(QRect(0, 150, 300, 100), false);
    QCOMPARE(area.at(start), QRegion(0, 0, 300, 250) - QRect(0, 0, 200, 150));
    area.addDamage(QRect(200, 0, 100, 250), false); // the program, in two steps
    area.addDamage(QRect(0, 150, 200, 100), false);
    QVERIFY(area.at(start).isEmpty());
}

void UnpaintedAreaTest::addedAreaIsPaintedAtOnceWithABackground()
{
    UnpaintedArea area = paintedWindow();
    area.configure(QRect(100, 80, 300, 150), false, start);
    area.addDamage(QRect(200, 0, 100, 150), false);
    area.addDamage(QRect(0, 0, 300, 150), false);
    QVERIFY(area.at(start).isEmpty());
}

/// What follows is then the background, or the program.
void UnpaintedAreaTest::addedAreaOutsideTheScreenIsNotReported()
{
    UnpaintedArea area = paintedWindow();
    area.configure(QRect(100, 80, 300, 150), false, start);
    area.addDamage(QRect(0, 0, 300, 150), false);
    QVERIFY(area.at(start).isEmpty());
}

void UnpaintedAreaTest::oldPixelsAreForgotten()
{
    UnpaintedArea area = paintedWindow();
    area.configure(QRect(100, 80, 100, 100), false, start);
    QCOMPARE(area.at(start), QRegion(0, 0, 100, 100));
    area.addDamage(QRect(0, 0, 100, 100), false);
    QVERIFY(area.at(start).isEmpty());
}

/// What the server keeps it reports, also what was never painted.
void UnpaintedAreaTest::keptPixelsStayMissing()
{
    UnpaintedArea area(geometry);
    area.begin(start);
    area.configure(QRect(100, 80, 300, 150), true, start);
    area.addDamage(QRect(200, 0, 100, 150), false);
    area.addDamage(QRect(0, 0, 200, 150), false);
    QCOMPARE(area.at(start), QRegion(0, 0, 300, 150));
    area.addDamage(QRect(0, 0, 300, 150), false);
    QVERIFY(area.at(start).isEmpty());
}

void UnpaintedAreaTest::movedPixelsStayMissing()
{
    UnpaintedArea area(geometry);
    area.begin(start);
    area.configure(geometry.translated(5, 0), false, start);
    area.addDamage(QRect(0, 0, 200, 150), false);
    QCOMPARE(area.at(start), QRegion(0, 0, 200, 150));
    area.addDamage(QRect(0, 0, 200, 150), false);
    QVERIFY(area.at(start).isEmpty());
}

void UnpaintedAreaTest::onlyRestackedWindowIsPaintedAtOnce()
{
    UnpaintedArea area(geometry);
    area.begin(start);
    area.configure(geometry, false, start);
    area.addDamage(QRect(0, 0, 200, 150), false);
    QVERIFY(area.at(start).isEmpty());
}

void UnpaintedAreaTest::patienceEnds()
{
    UnpaintedArea area(geometry);
    area.begin(start);
    QVERIFY(!area.at(start + UnpaintedArea::patience - std::chrono::milliseconds(1)).isEmpty());
    QVERIFY(area.at(start + UnpaintedArea::patience).isEmpty());
    area.begin(start + UnpaintedArea::patience); // from now on, and not from the first time
    QVERIFY(!area.at(start + UnpaintedArea::patience).isEmpty());
}

/// A window that never paints and changes its size all the time is to be seen, too.
void UnpaintedAreaTest::patienceIsNotBegunAnew()
{
    UnpaintedArea area(geometry);
    area.begin(start);
    area.configure(QRect(100, 80, 300, 150), true, start + UnpaintedArea::patience / 2);
    QVERIFY(!area.at(start + UnpaintedArea::patience / 2).isEmpty());
    QVERIFY(area.at(start + UnpaintedArea::patience).isEmpty());
}

void UnpaintedAreaTest::manyPiecesAreEnough()
{
    UnpaintedArea area(geometry);
    area.begin(start);
    for (int i = 0; i < 200 * 150 / 4; ++i)
        area.addDamage(QRect(i * 2 % 200, i * 2 / 200 * 2, 1, 1), false);
    QVERIFY(area.at(start).isEmpty());
}

ORVANTIS_TEST(UnpaintedAreaTest)
#include "unpaintedarea_test.moc"

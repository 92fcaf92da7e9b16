// Sets of rows.
#include "rowset.h"
#include "testregistry.h"

#include <QTest>

class RowSetTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void rangesAreJoined();
    void emptyRangesAreNone();
    void intersections();
};

void RowSetTest::rangesAreJoined()
{
    RowSet rows(10, 20);
    rows.add(40, 41);
    rows.add(20, 25); // touches
    rows.add(RowSet(5, 12));
    const std::vector<RowSet::Range> expected{{5, 25}, {40, 41}};
    QCOMPARE(rows.ranges(), expected);
    QCOMPARE(rows.count(), 21);
    QVERIFY(rows.contains(5));
    QVERIFY(rows.contains(24));
    QVERIFY(!rows.contains(25));
    QVERIFY(!rows.contains(4));
}

void RowSetTest::emptyRangesAreNone()
{
    RowSet rows(7, 7);
    rows.add(9, 3);
    QVERIFY(rows.isEmpty());
    QCOMPARE(rows.count(), 0);
    QVERIFY(rows.ranges().empty());
    QCOMPARE(rows, RowSet());
}

void RowSetTest::intersections()
{
    const RowSet rows(10, 20);
    QVERIFY(rows.intersects(19, 30));
    QVERIFY(!rows.intersects(20, 30));
    QVERIFY(!rows.intersects(0, 10));
    QVERIFY(!rows.intersects(15, 15));
}

ORVANTIS_TEST(RowSetTest)
#include "rowset_test.moc"

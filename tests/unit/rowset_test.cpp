// Sets of rows.
#include "rowset.h"
#include "testregistry.h"

#include <QRandomGenerator>
#include <QTest>

#include <array>

class RowSetTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void rangesAreJoined();
    void emptyRangesAreNone();
    void intersections();
    void partWithinRows();
    void likeASetOfSingleRows();
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

void RowSetTest::partWithinRows()
{
    RowSet rows(10, 20);
    rows.add(30, 40);
    const std::vector<RowSet::Range> expected{{15, 20}, {30, 35}};
    const RowSet part = rows.within(15, 35);
    QCOMPARE(part.ranges(), expected);
    QVERIFY(rows.within(20, 30).isEmpty());
    QVERIFY(rows.within(35, 15).isEmpty());
}

/// Ranges in every relation to those that are there, against one flag a row.
void RowSetTest::likeASetOfSingleRows()
{
    constexpr int height = 40;
    QRandomGenerator random(7);
    for (int round = 0; round < 500; ++round) {
        RowSet rows;
        std::array<bool, height> expected{};
        for (int i = 0; i < 8; ++i) {
            const int top = random.bounded(height);
            const int end = top + random.bounded(height - top + 1);
            rows.add(top, end);
            std::fill(expected.begin() + top, expected.begin() + end, true);
        }
        int before = -1;
        for (const RowSet::Range& range : rows.ranges()) {
            QVERIFY(range.top > before && range.count() > 0);
            before = range.end;
        }
        QCOMPARE(rows.count(), int(std::count(expected.begin(), expected.end(), true)));
        for (int row = 0; row < height; ++row)
            QCOMPARE(rows.contains(row), expected[std::size_t(row)]);
        RowSet twice = rows;
        twice.add(rows);
        QCOMPARE(twice, rows);
    }
}

ORVANTIS_TEST(RowSetTest)
#include "rowset_test.moc"

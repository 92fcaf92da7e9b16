// The free key of the click map, with its shortcut for floods, against the plain search.
#include "clickkeys.h"
#include "testregistry.h"

#include <QTest>

#include <random>

namespace {

/// The definition: from the wanted key on, the first that is not taken.
qint64 firstFreeKey(const QMap<qint64, int>& map, qint64 wanted)
{
    while (map.contains(wanted))
        ++wanted;
    return wanted;
}

}

class ClickKeysTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void freeKeyIsTakenAsItIs();
    void takenKeysAreSteppedOver();
    void runReachesIntoKeysThatWereTakenOtherwise();
    void forgetLetsErasedKeysBeUsedAgain();
    void keyThatIsGivenBackIsFree();
    void agreesWithThePlainSearch();
};

void ClickKeysTest::freeKeyIsTakenAsItIs()
{
    FreeKeyHint hint;
    const QMap<qint64, int> empty;
    QCOMPARE(hint.take(empty, 500), qint64(500));
    QCOMPARE(FreeKeyHint().take(empty, 0), qint64(0));
}

void ClickKeysTest::takenKeysAreSteppedOver()
{
    FreeKeyHint hint;
    QMap<qint64, int> map;
    for (int i = 0; i < 3; ++i) {
        const qint64 key = hint.take(map, 500);
        QCOMPARE(key, qint64(500 + i));
        map.insert(key, i);
    }
}

void ClickKeysTest::runReachesIntoKeysThatWereTakenOtherwise()
{
    FreeKeyHint hint;
    QMap<qint64, int> map{{11, 0}, {12, 0}, {14, 0}};
    for (const qint64 expected : {10, 13, 15}) {
        const qint64 key = hint.take(map, 10);
        QCOMPARE(key, expected);
        map.insert(key, 0);
    }
}

void ClickKeysTest::forgetLetsErasedKeysBeUsedAgain()
{
    FreeKeyHint hint;
    QMap<qint64, int> map;
    for (int i = 0; i < 5; ++i)
        map.insert(hint.take(map, 0), i);
    map.remove(2);
    hint.forget();
    QCOMPARE(hint.take(map, 0), qint64(2));
}

void ClickKeysTest::keyThatIsGivenBackIsFree()
{
    FreeKeyHint hint;
    QMap<qint64, int> map;
    for (int i = 0; i < 3; ++i)
        map.insert(hint.take(map, 7), i);
    for (int i = 0; i < 2; ++i) {
        QCOMPARE(hint.take(map, 7), qint64(10));
        hint.giveBack();
    }
    QCOMPARE(hint.take(map, 9), qint64(10));
}

void ClickKeysTest::agreesWithThePlainSearch()
{
    std::mt19937 random(20240607); // the same sequence in every run
    FreeKeyHint hint;
    QMap<qint64, int> map;
    for (int step = 0; step < 20000; ++step) {
        if (map.size() == 400) {
            map.removeIf([&random](const QMap<qint64, int>::iterator&) { return random() % 2 == 0; });
            hint.forget();
        }
        const qint64 wanted = qint64(random() % 300);
        const qint64 expected = firstFreeKey(map, wanted);
        const qint64 key = hint.take(map, wanted);
        QCOMPARE(key, expected);
        map.insert(key, 0);
    }
}

ORVANTIS_TEST(ClickKeysTest)
#include "clickkeys_test.moc"

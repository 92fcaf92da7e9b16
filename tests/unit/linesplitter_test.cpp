// The framing of the control channel.
#include "linesplitter.h"
#include "testregistry.h"

#include <QByteArrayList>
#include <QTest>

namespace {

/// Feeds chunks the way the socket does and keeps the lines.
struct Splitter {
    void feed(const QByteArray& chunk)
    {
        buffer += chunk;
        linesplitter::takeLines(buffer, discarding, [this](const QByteArray& line) { lines.append(line); });
    }

    QByteArray buffer;
    bool discarding = false;
    QByteArrayList lines;
};

}

class LineSplitterTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void splitsAtLineFeeds_data();
    void splitsAtLineFeeds();
    void halfLineWaits();
    void everyCutOfTheStreamGivesTheSameLines();
    void longestLineIsTaken();
    void longerLineIsDroppedAndTheNextIsTaken();
    void longerLineIsDroppedWhileItArrives();
    void endlessLineKeepsTheBufferEmpty();
    void restAfterADroppedLineWaits();
    void handlerFindsTheBufferEmpty();
};

void LineSplitterTest::splitsAtLineFeeds_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QByteArrayList>("lines");
    QTest::addColumn<QByteArray>("left");
    QTest::newRow("nothing") << QByteArray() << QByteArrayList() << QByteArray();
    QTest::newRow("one") << QByteArray("a\n") << QByteArrayList{"a"} << QByteArray();
    QTest::newRow("two") << QByteArray("a\nb\n") << QByteArrayList{"a", "b"} << QByteArray();
    QTest::newRow("no line feed") << QByteArray("a") << QByteArrayList() << QByteArray("a");
    QTest::newRow("a rest, kept as it is") << QByteArray("a\n b ") << QByteArrayList{"a"} << QByteArray(" b ");
    QTest::newRow("carriage return") << QByteArray("a\r\nb\r\n") << QByteArrayList{"a", "b"} << QByteArray();
    QTest::newRow("blanks around") << QByteArray(" \ta b\v \n") << QByteArrayList{"a b"} << QByteArray();
    QTest::newRow("empty lines") << QByteArray("\n\r\n  \na\n\n") << QByteArrayList{"a"} << QByteArray();
    QTest::newRow("zero bytes") << QByteArray("a\0b\n\0", 5) << QByteArrayList{QByteArray("a\0b", 3)}
                                << QByteArray("\0", 1);
}

void LineSplitterTest::splitsAtLineFeeds()
{
    QFETCH(QByteArray, input);
    Splitter splitter;
    splitter.feed(input);
    QTEST(splitter.lines, "lines");
    QTEST(splitter.buffer, "left");
    QVERIFY(!splitter.discarding);
}

void LineSplitterTest::halfLineWaits()
{
    Splitter splitter;
    splitter.feed("{\"action\":");
    QCOMPARE(splitter.lines, QByteArrayList());
    splitter.feed("\"stop\"}");
    QCOMPARE(splitter.lines, QByteArrayList());
    splitter.feed("\n");
    QCOMPARE(splitter.lines, QByteArrayList{"{\"action\":\"stop\"}"});
    QCOMPARE(splitter.buffer, QByteArray());
}

void LineSplitterTest::everyCutOfTheStreamGivesTheSameLines()
{
    const QByteArray stream = "one\n\n two \r\nthree\n|4|5\nrest";
    const QByteArrayList expected{"one", "two", "three", "|4|5"};
    for (qsizetype size = 1; size <= stream.size(); ++size) {
        Splitter splitter;
        for (qsizetype at = 0; at < stream.size(); at += size)
            splitter.feed(stream.mid(at, size));
        QCOMPARE(splitter.lines, expected);
        QCOMPARE(splitter.buffer, QByteArray("rest"));
    }
}

void LineSplitterTest::longestLineIsTaken()
{
    Splitter splitter;
    const QByteArray longest(linesplitter::longestLine, 'x');
    splitter.feed(longest);
    QCOMPARE(splitter.buffer.size(), longest.size());
    splitter.feed("\n");
    QCOMPARE(splitter.lines, QByteArrayList{longest});
}

void LineSplitterTest::longerLineIsDroppedAndTheNextIsTaken()
{
    Splitter splitter;
    splitter.feed("before\n" + QByteArray(linesplitter::longestLine + 1, 'x') + "\nafter\n");
    QCOMPARE(splitter.lines, (QByteArrayList{"before", "after"}));
    QCOMPARE(splitter.buffer, QByteArray());
    QVERIFY(!splitter.discarding);
}

void LineSplitterTest::longerLineIsDroppedWhileItArrives()
{
    Splitter splitter;
    splitter.feed(QByteArray(linesplitter::longestLine, 'x'));
    QVERIFY(!splitter.discarding);
    splitter.feed("x");
    QVERIFY(splitter.discarding);
    QCOMPARE(splitter.buffer, QByteArray());
    splitter.feed("the end of the long line\nafter\n");
    QCOMPARE(splitter.lines, QByteArrayList{"after"});
    QVERIFY(!splitter.discarding);
}

void LineSplitterTest::endlessLineKeepsTheBufferEmpty()
{
    Splitter splitter;
    const QByteArray chunk(300 * 1024, 'x');
    for (int i = 0; i < 20; ++i) {
        splitter.feed(chunk);
        QVERIFY(splitter.buffer.size() <= linesplitter::longestLine);
    }
    QVERIFY(splitter.discarding);
    QCOMPARE(splitter.buffer, QByteArray());
    QCOMPARE(splitter.lines, QByteArrayList());
}

void LineSplitterTest::restAfterADroppedLineWaits()
{
    Splitter splitter;
    splitter.feed(QByteArray(linesplitter::longestLine + 1, 'x'));
    splitter.feed("x\nhalf");
    QCOMPARE(splitter.buffer, QByteArray("half"));
    splitter.feed(" whole\n");
    QCOMPARE(splitter.lines, QByteArrayList{"half whole"});
}

void LineSplitterTest::handlerFindsTheBufferEmpty()
{
    QByteArray buffer = "a\nb\nrest";
    bool discarding = false;
    QList<qsizetype> sizes;
    linesplitter::takeLines(buffer, discarding, [&](const QByteArray&) { sizes.append(buffer.size()); });
    QCOMPARE(sizes, (QList<qsizetype>{0, 0}));
    QCOMPARE(buffer, QByteArray("rest"));
}

ORVANTIS_TEST(LineSplitterTest)
#include "linesplitter_test.moc"

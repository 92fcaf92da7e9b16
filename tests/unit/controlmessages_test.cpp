// The messages of the launcher: which lines are clicks and actions, and what they do.
#include "controlbench.h"
#include "privatetempdir.h"
#include "testregistry.h"

#include <QCoreApplication>
#include <QTimer>

namespace {

/// A literal with zero bytes in it.
template <std::size_t Size>
QByteArray bytes(const char (&literal)[Size])
{
    return QByteArray(literal, qsizetype(Size - 1));
}

}

class ControlMessagesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { bench_.emplace(); }
    void cleanup() { bench_.reset(); }

    void clickLine_data();
    void clickLine();
    void clickTimestamp_data();
    void clickTimestamp();
    void legacyList_data();
    void legacyList();
    void legacyListWithoutLineFeed_data();
    void legacyListWithoutLineFeed();
    void legacyListAfterALineNeedsNoLineFeed();

    void actionThatStops_data();
    void actionThatStops();
    void lineThatDoesNothing_data();
    void lineThatDoesNothing();
    void pauseAndUnpause();
    void exitEndsTheEventLoopAfterASecond();

private:
    RecorderProbe probe() { return bench_->probe(); }
    QString clicks() { return bench_->clicks(); }
    void tell(const QByteArray& lines) { bench_->tell(lines); }

    PrivateTempDir directory_;
    std::optional<ControlBench> bench_;
};

void ControlMessagesTest::clickLine_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QString>("expected");
    const QString ordinary = QStringLiteral("10.5 -20 0.5 0.25 1");
    QTest::newRow("four numbers") << QByteArray("click|10.5|-20|0.5|0.25\n") << ordinary;
    QTest::newRow("five numbers") << QByteArray("click|10.5|-20|0.5|0.25|1000500\n") << ordinary;
    QTest::newRow("more than five") << QByteArray("click|10.5|-20|0.5|0.25|1000500|7|x\n") << ordinary;
    QTest::newRow("three numbers") << QByteArray("click|10.5|-20|0.5\n") << QString();
    QTest::newRow("no numbers") << QByteArray("click|\n") << QString();
    QTest::newRow("empty fields are zero") << QByteArray("click||||\n") << QStringLiteral("0 0 0 0 1");
    QTest::newRow("no numbers in the fields") << QByteArray("click|a|1,5|b|c\n") << QStringLiteral("0 0 0 0 1");
    QTest::newRow("normalised out of range") << QByteArray("click|1|2|1.5|0.5\n") << QStringLiteral("1 2 0 0 0");
    QTest::newRow("1e308") << QByteArray("click|1e308|-1e308|0|0\n") << QStringLiteral("1e+308 -1e+308 0 0 1");
    QTest::newRow("not numbers") << QByteArray("click|nan|inf|nan|0.5\n") << QStringLiteral("nan inf 0 0 0");
    QTest::newRow("blanks around the line") << QByteArray("  click|10.5|-20|0.5|0.25 \r\n") << ordinary;
    QTest::newRow("blanks around the numbers") << QByteArray("click| 10.5 | -20|0.5 |0.25\n") << ordinary;
    QTest::newRow("capitals are no click line") << QByteArray("Click|10.5|-20|0.5|0.25\n") << QString();
    QTest::newRow("two lines") << QByteArray("click|10.5|-20|0.5|0.25\nclick|1|2|0|0\n")
                               << ordinary + QStringLiteral("; 1 2 0 0 1");
}

void ControlMessagesTest::clickLine()
{
    QFETCH(QByteArray, line);
    tell(line);
    QTEST(clicks(), "expected");
    QCOMPARE(probe().controlBuffer(), QByteArray());
}

void ControlMessagesTest::clickTimestamp_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QString>("timestamp");
    QTest::newRow("four numbers: unknown") << QByteArray("click|1|2|0|0\n") << QStringLiteral("0");
    QTest::newRow("five numbers") << QByteArray("click|1|2|0|0|1700000000123\n") << QStringLiteral("1700000000123");
    QTest::newRow("empty") << QByteArray("click|1|2|0|0|\n") << QStringLiteral("0");
    QTest::newRow("no number") << QByteArray("click|1|2|0|0|now\n") << QStringLiteral("0");
    QTest::newRow("fraction") << QByteArray("click|1|2|0|0|1000500.5\n") << QStringLiteral("0");
    QTest::newRow("negative") << QByteArray("click|1|2|0|0|-7\n") << QStringLiteral("-7");
    QTest::newRow("beyond 64 bits") << QByteArray("click|1|2|0|0|9223372036854775808\n") << QStringLiteral("0");
}

void ControlMessagesTest::clickTimestamp()
{
    QFETCH(QByteArray, line);
    QFETCH(QString, timestamp);
    tell(line);
    QCOMPARE(bench_->log.messages().size(), 1);
    const QString logged = bench_->log.messages().first();
    QVERIFY2(logged.contains(QStringLiteral(" timestamp %1 receive ").arg(timestamp)), qPrintable(logged));
}

void ControlMessagesTest::legacyList_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QString>("expected");
    const QString two = QStringLiteral("1 2 0 0 0; 3 4 0 0 0");
    QTest::newRow("two pairs") << QByteArray("|1|2|3|4\n") << two;
    QTest::newRow("a value without a partner") << QByteArray("|1|2|3|4|5\n") << two;
    QTest::newRow("one value") << QByteArray("|1\n") << QString();
    QTest::newRow("no value") << QByteArray("|\n") << QString();
    QTest::newRow("bad numbers are zero") << QByteArray("|x|2|3|\n") << QStringLiteral("0 2 0 0 0; 3 0 0 0 0");
    QTest::newRow("two lists") << QByteArray("|1|2\n|3|4\n") << two;
    QTest::newRow("blanks around") << QByteArray(" |1|2|3|4 \r\n") << two;
}

void ControlMessagesTest::legacyList()
{
    QFETCH(QByteArray, line);
    tell(line);
    QTEST(clicks(), "expected");
}

void ControlMessagesTest::legacyListWithoutLineFeed_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("expected");
    QTest::newRow("two pairs") << QByteArray("|1|2|3|4") << QStringLiteral("1 2 0 0 0; 3 4 0 0 0");
    QTest::newRow("one pair") << QByteArray("|1|2") << QStringLiteral("1 2 0 0 0");
    QTest::newRow("a value without a partner") << QByteArray("|1|2|3") << QStringLiteral("1 2 0 0 0");
    QTest::newRow("a blank at the end") << QByteArray("|1|2 ") << QStringLiteral("1 2 0 0 0");
}

void ControlMessagesTest::legacyListWithoutLineFeed()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, expected);
    QVERIFY(bench_->launcher.send(bytes));
    QTRY_COMPARE_WITH_TIMEOUT(clicks(), expected, patienceMs);
    QCOMPARE(probe().controlBuffer(), QByteArray());
    tell("click|9|9|-1|-1\n"); // the line after it starts afresh
    QCOMPARE(clicks(), expected + QStringLiteral("; 9 9 0 0 0"));
}

void ControlMessagesTest::legacyListAfterALineNeedsNoLineFeed()
{
    QVERIFY(bench_->launcher.send(pauseLine + "|1|2|3|4"));
    QTRY_COMPARE_WITH_TIMEOUT(clicks(), QStringLiteral("1 2 0 0 0; 3 4 0 0 0"), patienceMs);
    QVERIFY(probe().paused().load());
    QCOMPARE(probe().controlBuffer(), QByteArray());
}

void ControlMessagesTest::actionThatStops_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::newRow("plain") << QByteArray("{\"action\":\"stop\"}\n");
    QTest::newRow("blanks around") << QByteArray(" \t {\"action\":\"stop\"} \r\n");
    QTest::newRow("blanks inside") << QByteArray("{ \"action\" : \"stop\" }\n");
    QTest::newRow("other members") << QByteArray("{\"id\":7,\"action\":\"stop\",\"more\":{\"action\":\"no\"}}\n");
    QTest::newRow("escaped letter") << QByteArray("{\"action\":\"\\u0073top\"}\n");
}

void ControlMessagesTest::actionThatStops()
{
    QFETCH(QByteArray, line);
    tell(line);
    QVERIFY(probe().stopRequested().load());
    QVERIFY(bench_->launcher.waitForReceived(15, patienceMs));
    QCOMPARE(bench_->launcher.received(), QByteArray("{\"duration\":0}\n"));
}

void ControlMessagesTest::lineThatDoesNothing_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::newRow("capitals") << QByteArray("{\"action\":\"STOP\"}\n");
    QTest::newRow("mixed case") << QByteArray("{\"action\":\"Stop\"}\n");
    QTest::newRow("capital member") << QByteArray("{\"Action\":\"stop\"}\n");
    QTest::newRow("blank in the word") << QByteArray("{\"action\":\"stop \"}\n");
    QTest::newRow("unknown action") << QByteArray("{\"action\":\"resume\"}\n");
    QTest::newRow("no action") << QByteArray("{\"duration\":5}\n");
    QTest::newRow("number") << QByteArray("{\"action\":1}\n");
    QTest::newRow("null") << QByteArray("{\"action\":null}\n");
    QTest::newRow("list of actions") << QByteArray("{\"action\":[\"stop\"]}\n");
    QTest::newRow("nested object") << QByteArray("{\"action\":{\"action\":\"stop\"}}\n");
    QTest::newRow("nested one deeper") << QByteArray("{\"a\":{\"action\":\"stop\"}}\n");
    QTest::newRow("list of objects") << QByteArray("[{\"action\":\"stop\"}]\n");
    QTest::newRow("text") << QByteArray("\"stop\"\n");
    QTest::newRow("bare word") << QByteArray("stop\n");
    QTest::newRow("unfinished object") << QByteArray("{\"action\":\"stop\"\n");
    QTest::newRow("two objects in a line") << QByteArray("{\"action\":\"stop\"}{\"action\":\"stop\"}\n");
    QTest::newRow("deeply nested") << QByteArray(100000, '[') + QByteArray(100000, ']') + '\n';
    QTest::newRow("zero bytes") << bytes("{\"action\":\"stop\0\"}\n\0\0\n");
    QTest::newRow("binary") << bytes("\xff\xfe\x00\x80{\x1b[\x07}\xc3\x28\n");
    QTest::newRow("invalid utf-8") << QByteArray("{\"action\":\"stop\xc3\"}\n");
    QTest::newRow("empty lines") << QByteArray("\n\r\n  \n");
}

void ControlMessagesTest::lineThatDoesNothing()
{
    QFETCH(QByteArray, line);
    tell(line);
    QVERIFY(!probe().stopRequested().load());
    QCOMPARE(clicks(), QString());
    QCOMPARE(probe().controlBuffer(), QByteArray());
    QCOMPARE(bench_->log.messages(), QStringList());
    QCOMPARE(bench_->launcher.received(), QByteArray());
}

void ControlMessagesTest::pauseAndUnpause()
{
    QVERIFY(!probe().paused().load());
    QVERIFY(bench_->launcher.send(pauseLine));
    QTRY_VERIFY_WITH_TIMEOUT(probe().paused().load(), patienceMs);
    QVERIFY(bench_->launcher.send(unpauseLine));
    QTRY_VERIFY_WITH_TIMEOUT(!probe().paused().load(), patienceMs);
    QCOMPARE(bench_->launcher.received(), QByteArray());
    QVERIFY(!probe().stopRequested().load());
}

void ControlMessagesTest::exitEndsTheEventLoopAfterASecond()
{
    // Without a stop before it. A second one, sent 300 ms later, has its own timer.
    QTimer limit;
    connect(&limit, &QTimer::timeout, this, [] { QCoreApplication::exit(99); });
    limit.start(patienceMs);
    tell("{\"action\":\"exit\"}\n");
    QElapsedTimer time;
    time.start();
    QTimer::singleShot(300, this, [this] { bench_->launcher.send("{\"action\":\"exit\"}\n"); });
    // The timers of a loop fire in their order, however busy the machine is.
    QTimer::singleShot(1900, Qt::PreciseTimer, this, [] { QCoreApplication::exit(98); });
    QCOMPARE(QCoreApplication::exec(), 0);
    const qint64 firstMs = time.elapsed();
    QVERIFY2(firstMs >= 900, qPrintable(QString::number(firstMs)));
    QCOMPARE(QCoreApplication::exec(), 0);
    QVERIFY2(time.elapsed() >= 1290, qPrintable(QString::number(time.elapsed())));
    QVERIFY(!probe().stopRequested().load());
}

ORVANTIS_TEST(ControlMessagesTest)
#include "controlmessages_test.moc"

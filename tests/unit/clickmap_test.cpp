// The click map: keys, log line, pruning, and what a flood of clicks does to it.
#include "clickbench.h"
#include "privatetempdir.h"
#include "testregistry.h"

#include <QDateTime>
#include <QThread>

#include <limits>
#include <thread>

namespace {

constexpr int limit = 250000; // clicks that may wait
const QString limitWarning
    = QStringLiteral("Recorder drops the mouse clicks farthest ahead while as many are pending: 250000");

}

class ClickMapTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { bench_.emplace(); }
    void cleanup() { bench_.reset(); }

    void keyIsTheTimeSinceTheStart();
    void keyOfAClickBeforeTheStartIsZero();
    void keyWithoutATimestampIsTheTimeOfArrival();
    void keyWhileTheClockRunsWithoutAStartTime();
    void keyBeforeTheRecordingStartsIsZero_data();
    void keyBeforeTheRecordingStartsIsZero();
    void clockThatIsSetMovesNoClick_data();
    void clockThatIsSetMovesNoClick();
    void clockThatWasSetLongAgoMovesNoClick();
    void clockThatWasSetBackMovesNoClick();
    void clockThatDriftsIsFollowed();
    void clicksOfOneTimeGetFollowingKeys();
    void clicksBeforeTheStartGetFollowingKeys();
    void timestampThatFillsSixtyFourBits();
    void normalizedPairIsKeptWhenInRange_data();
    void normalizedPairIsKeptWhenInRange();
    void logLine_data();
    void logLine();
    void receiveDelay_data();
    void receiveDelay();
    void pruningWalksTheWholeMap();
    void neverDrawnClickIsPrunedByAge();
    void keyIsFreeAgainAfterPruning();
    void floodOfOneTimeGetsAllKeys();
    void pendingClicksAreLimited();
    void clickFarAheadGivesWay();
    void floodBeyondTheLimitIsCheap();
    void clicksArriveWhileFramesAreComposed();

private:
    RecorderProbe probe() { return bench_->probe(); }
    QList<qint64> keys() { return bench_->keys(); }
    /// Clicks at 0, 1, ... until so many wait.
    void fillUpTo(qsizetype count);
    void compose(long long timestampMs) { probe().composeFrame(blackFrame(), timestampMs); }

    PrivateTempDir directory_;
    std::optional<ClickBench> bench_;
};

void ClickMapTest::keyIsTheTimeSinceTheStart()
{
    bench_->startRecordingAt(1000000);
    bench_->recorder->addClick(10, 20, -1, -1, 1000500);
    QCOMPARE(keys(), QList<qint64>{500});
    const RecorderProbe::MouseClick click = probe().clicks().first();
    QCOMPARE(click.globalX, 10.0);
    QCOMPARE(click.globalY, 20.0);
}

void ClickMapTest::keyOfAClickBeforeTheStartIsZero()
{
    bench_->startRecordingAt(1000000);
    bench_->recorder->addClick(10, 20, -1, -1, 999000);
    QCOMPARE(keys(), QList<qint64>{0});
}

void ClickMapTest::keyWithoutATimestampIsTheTimeOfArrival()
{
    bench_->startRecordingAt(1000000);
    QThread::msleep(3);
    for (const long long unknown : {0LL, -1LL, std::numeric_limits<long long>::min()}) {
        probe().clicks().clear();
        const qint64 before = probe().recordingClock().elapsed();
        bench_->recorder->addClick(10, 20, -1, -1, unknown);
        const qint64 after = probe().recordingClock().elapsed();
        QCOMPARE(keys().size(), 1);
        QVERIFY(before <= keys().first());
        QVERIFY(keys().first() <= after + 2); // the keys of the rounds before may be stepped over
        QVERIFY(keys().first() >= 3);
    }
}

/// The worker starts the clock a moment before it says when.
void ClickMapTest::keyWhileTheClockRunsWithoutAStartTime()
{
    probe().recordingClock().start();
    QTest::qSleep(3);
    for (const qint64 timestampMs : {0, 1000500}) {
        probe().clicks().clear();
        bench_->recorder->addClick(10, 20, -1, -1, timestampMs);
        QCOMPARE(keys().size(), 1);
        QVERIFY(keys().first() >= 3);
        QVERIFY(keys().first() <= probe().recordingClock().elapsed() + 1);
    }
}

void ClickMapTest::keyBeforeTheRecordingStartsIsZero_data()
{
    QTest::addColumn<qint64>("timestampMs");
    QTest::newRow("no timestamp") << qint64(0);
    QTest::newRow("a timestamp, but no start to count from") << qint64(1000500);
}

void ClickMapTest::keyBeforeTheRecordingStartsIsZero()
{
    QFETCH(qint64, timestampMs);
    bench_->recorder->addClick(10, 20, -1, -1, timestampMs);
    QCOMPARE(keys(), QList<qint64>{0});
}

void ClickMapTest::clockThatIsSetMovesNoClick_data()
{
    QTest::addColumn<qint64>("byMs");
    QTest::addColumn<bool>("isNoticedFirst");
    constexpr qint64 hourMs = 3600000;
    for (const qint64 byMs : {hourMs, -hourMs, qint64(2000), qint64(-2000)}) {
        QTest::addRow("by %lld ms, a frame comes first", byMs) << byMs << true;
        QTest::addRow("by %lld ms, a click comes first", byMs) << byMs << false;
    }
}

void ClickMapTest::clockThatIsSetMovesNoClick()
{
    QFETCH(qint64, byMs);
    QFETCH(bool, isNoticedFirst);
    constexpr qint64 startedAtMs = 1700000000000;
    bench_->startRecordingAt(startedAtMs);
    probe().wallClock().start(startedAtMs);
    qint64 setByMs = 0;
    probe().wallClock().now = [&] { return startedAtMs + setByMs + probe().recordingClock().elapsed(); };
    QTest::qSleep(50);

    setByMs = byMs;
    if (isNoticedFirst)
        probe().followWallClock();
    bench_->recorder->addClick(10, 20, -1, -1, startedAtMs + byMs + 40);
    bench_->recorder->addClick(10, 20, -1, -1, startedAtMs + 30); // stamped before, and under way
    QCOMPARE(keys(), (QList<qint64>{30, 40}));
    QCOMPARE(bench_->log.countStartingWith(QStringLiteral("Wall clock was set, or the machine slept")), 1);
}

/// A click may be later than is promised, and fit the time before the jump.
void ClickMapTest::clockThatWasSetLongAgoMovesNoClick()
{
    constexpr qint64 startedAtMs = 1700000000000;
    constexpr qint64 byMs = 3000;
    WallClock clock;
    QElapsedTimer recordingClock;
    recordingClock.start();
    clock.start(startedAtMs);
    clock.now = [&] { return startedAtMs + byMs + recordingClock.elapsed(); };
    QCOMPARE(clock.follow(recordingClock), byMs);
    const qint64 elapsedMs = 600000;
    QCOMPARE(clock.correctionFor(startedAtMs + byMs + elapsedMs - 6000, elapsedMs), 0);
    QCOMPARE(clock.correctionFor(startedAtMs, 20), -byMs); // stamped before
}

/// By a launcher whose time does not follow: a browser adds what has passed to the time of its start.
void ClickMapTest::clockThatWasSetBackMovesNoClick()
{
    constexpr qint64 startedAtMs = 1700000000000;
    constexpr qint64 byMs = -2000;
    WallClock clock;
    QElapsedTimer recordingClock;
    recordingClock.start();
    clock.start(startedAtMs);
    clock.now = [&] { return startedAtMs + byMs + recordingClock.elapsed(); };
    QCOMPARE(clock.follow(recordingClock), byMs);
    constexpr qint64 elapsedMs = 60000;
    QCOMPARE(clock.correctionFor(startedAtMs + elapsedMs - 20, elapsedMs), -byMs);
    QCOMPARE(clock.correctionFor(startedAtMs + byMs + elapsedMs - 20, elapsedMs), 0); // in the new time
}

/// In steps that are too small to be corrected each.
void ClickMapTest::clockThatDriftsIsFollowed()
{
    constexpr qint64 startedAtMs = 1700000000000;
    bench_->startRecordingAt(startedAtMs);
    probe().wallClock().start(startedAtMs);
    qint64 setByMs = 0;
    probe().wallClock().now = [&] { return startedAtMs + setByMs + probe().recordingClock().elapsed(); };
    for (setByMs = 0; setByMs < 1000; setByMs += 10)
        probe().followWallClock();
    bench_->recorder->addClick(10, 20, -1, -1, startedAtMs + setByMs);
    QVERIFY2(keys().first() <= WallClock::toleranceMs, qPrintable(QString::number(keys().first())));
}

void ClickMapTest::clicksOfOneTimeGetFollowingKeys()
{
    bench_->startRecordingAt(1000000);
    for (int i = 0; i < 3; ++i)
        bench_->recorder->addClick(i, 20, -1, -1, 1000500);
    QCOMPARE(keys(), (QList<qint64>{500, 501, 502}));
    for (int i = 0; i < 3; ++i)
        QCOMPARE(probe().clicks().value(500 + i).globalX, double(i));
    bench_->recorder->addClick(7, 20, -1, -1, 1000501);
    QCOMPARE(keys().last(), qint64(503));
}

void ClickMapTest::clicksBeforeTheStartGetFollowingKeys()
{
    for (int i = 0; i < 3; ++i)
        bench_->recorder->addClick(i, 20, -1, -1, 0);
    QCOMPARE(keys(), (QList<qint64>{0, 1, 2}));
}

void ClickMapTest::timestampThatFillsSixtyFourBits()
{
    constexpr qint64 most = std::numeric_limits<qint64>::max();
    bench_->startRecordingAt(1000000);
    bench_->recorder->addClick(10, 20, -1, -1, most);
    QCOMPARE(keys(), QList<qint64>{most - 1000000});
    compose(0);
    QCOMPARE(keys().size(), 1);
}

void ClickMapTest::normalizedPairIsKeptWhenInRange_data()
{
    QTest::addColumn<QPointF>("pair");
    QTest::addColumn<bool>("kept");
    QTest::newRow("(1, 0)") << QPointF(1.0, 0.0) << true;
    QTest::newRow("(0, 1)") << QPointF(0.0, 1.0) << true;
    QTest::newRow("(0.25, 0.75)") << QPointF(0.25, 0.75) << true;
    QTest::newRow("x just above") << QPointF(1.0000001, 0.5) << false;
    QTest::newRow("y just above") << QPointF(0.5, 1.0000001) << false;
    QTest::newRow("x negative") << QPointF(-0.1, 0.5) << false;
    QTest::newRow("y negative") << QPointF(0.5, -0.1) << false;
    QTest::newRow("x not a number") << QPointF(notANumber, 0.5) << false;
    QTest::newRow("y not a number") << QPointF(0.5, notANumber) << false;
    QTest::newRow("infinite") << QPointF(qInf(), 0.5) << false;
    QTest::newRow("absent") << QPointF(-1.0, -1.0) << false;
}

void ClickMapTest::normalizedPairIsKeptWhenInRange()
{
    QFETCH(QPointF, pair);
    QFETCH(bool, kept);
    bench_->recorder->addClick(10, 20, pair.x(), pair.y(), 0);
    const RecorderProbe::MouseClick click = probe().clicks().first();
    QCOMPARE(click.hasNormalized, kept);
    QCOMPARE(click.normalizedX, kept ? pair.x() : 0.0);
    QCOMPARE(click.normalizedY, kept ? pair.y() : 0.0);
}

void ClickMapTest::logLine_data()
{
    QTest::addColumn<QPointF>("normalized");
    QTest::addColumn<int>("earlierClicks");
    QTest::addColumn<QString>("expected");
    QTest::newRow("with normalised position")
        << QPointF(0.5, 0.25) << 0
        << QStringLiteral("Recorder mouse click received global QPointF(10.5,-20) normalized QPointF(0.5,0.25) has "
                          "normalized true timestamp 0 receive delay ms 0 raw recording ms 0 overlay delay ms 0 "
                          "display recording ms 0");
    QTest::newRow("rejected pair is logged as zero")
        << QPointF(1.5, 0.25) << 0
        << QStringLiteral("Recorder mouse click received global QPointF(10.5,-20) normalized QPointF(0,0) has "
                          "normalized false timestamp 0 receive delay ms 0 raw recording ms 0 overlay delay ms 0 "
                          "display recording ms 0");
    QTest::newRow("third of one time")
        << QPointF(-1, -1) << 2
        << QStringLiteral("Recorder mouse click received global QPointF(10.5,-20) normalized QPointF(0,0) has "
                          "normalized false timestamp 0 receive delay ms 0 raw recording ms 0 overlay delay ms 0 "
                          "display recording ms 2");
}

void ClickMapTest::logLine()
{
    QFETCH(QPointF, normalized);
    QFETCH(int, earlierClicks);
    QFETCH(QString, expected);
    for (int i = 0; i < earlierClicks; ++i)
        bench_->recorder->addClick(0, 0, -1, -1, 0);
    bench_->log.clear();
    bench_->recorder->addClick(10.5, -20, normalized.x(), normalized.y(), 0);
    QCOMPARE(bench_->log.messages(QtDebugMsg), QStringList{expected});
    QCOMPARE(bench_->log.messages(), QStringList{expected});
}

void ClickMapTest::receiveDelay_data()
{
    QTest::addColumn<qint64>("startedAtMs");
    QTest::addColumn<qint64>("timestampMs");
    QTest::addColumn<QString>("raw");
    QTest::newRow("after the start") << qint64(1000000) << qint64(1000500) << QStringLiteral("500");
    QTest::newRow("before the start") << qint64(1000000) << qint64(999000) << QStringLiteral("0");
    QTest::newRow("no start yet") << qint64(0) << qint64(1000500) << QStringLiteral("0");
}

void ClickMapTest::receiveDelay()
{
    QFETCH(qint64, startedAtMs);
    QFETCH(qint64, timestampMs);
    QFETCH(QString, raw);
    if (startedAtMs > 0)
        bench_->startRecordingAt(startedAtMs);
    const qint64 beforeMs = QDateTime::currentMSecsSinceEpoch();
    bench_->recorder->addClick(1, 2, -1, -1, timestampMs);
    const qint64 afterMs = QDateTime::currentMSecsSinceEpoch();
    const QString opening
        = QStringLiteral("Recorder mouse click received global QPointF(1,2) normalized QPointF(0,0) "
                         "has normalized false timestamp %1 receive delay ms ")
              .arg(timestampMs);
    const QString ending = QStringLiteral(" raw recording ms %1 overlay delay ms 0 display recording ms %1").arg(raw);
    QCOMPARE(bench_->log.messages().size(), 1);
    const QString line = bench_->log.messages().first();
    QVERIFY2(line.startsWith(opening) && line.endsWith(ending), qPrintable(line));
    bool isNumber = false;
    const QString middle = line.mid(opening.size(), line.size() - opening.size() - ending.size());
    const qint64 delayMs = middle.toLongLong(&isNumber);
    QVERIFY(isNumber);
    QVERIFY(beforeMs - timestampMs <= delayMs && delayMs <= afterMs - timestampMs);
}

void ClickMapTest::pruningWalksTheWholeMap()
{
    bench_->startRecordingAt(1000000);
    for (const qint64 key : {0, 100, 2998, 2999, 3000, 5000, 9000})
        bench_->recorder->addClick(80, 48, -1, -1, 1000000 + key);
    compose(5000);
    QCOMPARE(keys(), (QList<qint64>{3000, 5000, 9000}));
}

void ClickMapTest::neverDrawnClickIsPrunedByAge()
{
    bench_->startRecordingAt(1000000);
    bench_->recorder->addClick(-500, -500, -1, -1, 1000500);
    compose(2500);
    QCOMPARE(keys(), QList<qint64>{500});
    compose(2501);
    QCOMPARE(keys(), QList<qint64>());
}

void ClickMapTest::keyIsFreeAgainAfterPruning()
{
    bench_->startRecordingAt(1000000);
    for (int i = 0; i < 4; ++i)
        bench_->recorder->addClick(80, 48, -1, -1, 1000500);
    compose(2502);
    QCOMPARE(keys(), (QList<qint64>{502, 503}));
    bench_->recorder->addClick(80, 48, -1, -1, 1000500);
    QCOMPARE(keys(), (QList<qint64>{500, 502, 503}));
    bench_->recorder->addClick(80, 48, -1, -1, 1000502);
    QCOMPARE(keys(), (QList<qint64>{500, 502, 503, 504}));
}

void ClickMapTest::floodOfOneTimeGetsAllKeys()
{
    constexpr int count = 100000;
    bench_->startRecordingAt(1000000);
    const QtMessageHandler before = qInstallMessageHandler(dropMessage);
    for (int i = 0; i < count; ++i)
        bench_->recorder->addClick(i, 0, -1, -1, 1000500);
    qInstallMessageHandler(before);
    const auto& clicks = probe().clicks();
    QCOMPARE(clicks.size(), count);
    int index = 0;
    for (auto entry = clicks.cbegin(); entry != clicks.cend(); ++entry, ++index) {
        QCOMPARE(entry.key(), qint64(500 + index));
        QCOMPARE(entry->globalX, double(index));
    }
}

void ClickMapTest::fillUpTo(qsizetype count)
{
    auto& clicks = probe().clicks();
    for (qint64 key = 0; clicks.size() < count; ++key)
        clicks.insert(clicks.cend(), key, RecorderProbe::MouseClick());
}

void ClickMapTest::pendingClicksAreLimited()
{
    bench_->startRecordingAt(1000000);
    fillUpTo(limit);
    auto& clicks = probe().clicks();
    for (int i = 0; i < 3; ++i)
        bench_->recorder->addClick(9, 9, -1, -1, 1000000 + limit + i); // further ahead than all that wait
    QCOMPARE(clicks.size(), limit);
    QCOMPARE(clicks.lastKey(), qint64(limit - 1));
    QCOMPARE(bench_->log.messages(), QStringList{limitWarning});
    QCOMPARE(bench_->log.messages(QtWarningMsg), QStringList{limitWarning});

    compose(900000); // prunes them all
    QCOMPARE(clicks.size(), 0);
    bench_->recorder->addClick(3, 4, -1, -1, 1900000);
    bench_->recorder->addClick(3, 4, -1, -1, 1900000);
    QCOMPARE(clicks.keys(), (QList<qint64>{900000, 900001}));
    QCOMPARE(bench_->log.messages(QtWarningMsg), QStringList{limitWarning});
}

/// Clicks of another century never meet their frames. They may not keep out those that do.
void ClickMapTest::clickFarAheadGivesWay()
{
    constexpr qint64 farAheadMs = 1'000'000'000'000;
    bench_->startRecordingAt(1000000);
    fillUpTo(limit - 2);
    for (int i = 0; i < 2; ++i)
        bench_->recorder->addClick(7, 7, -1, -1, 1000000 + farAheadMs);
    auto& clicks = probe().clicks();
    QCOMPARE(clicks.size(), limit);
    QCOMPARE(clicks.lastKey(), farAheadMs + 1);
    bench_->log.clear();

    const auto add = [this](qint64 keyMs) { bench_->recorder->addClick(1, 2, -1, -1, 1000000 + keyMs); };
    add(5000000);
    QCOMPARE(clicks.size(), limit);
    QCOMPARE(clicks.lastKey(), farAheadMs);
    QVERIFY(clicks.contains(5000000));
    add(5000000);
    QCOMPARE(clicks.lastKey(), qint64(5000001));
    add(5000000); // would be the farthest itself
    QCOMPARE(clicks.lastKey(), qint64(5000001));
    add(4000000);
    QCOMPARE(clicks.lastKey(), qint64(5000000));
    QVERIFY(clicks.contains(4000000));
    add(5000000); // at the key that has become free, behind nothing
    QCOMPARE(clicks.size(), limit);
    QCOMPARE(clicks.lastKey(), qint64(5000000));
    QCOMPARE(bench_->log.messages(QtWarningMsg), QStringList{limitWarning});
    QCOMPARE(bench_->log.countStartingWith(QStringLiteral("Recorder mouse click received ")), 3);
}

void ClickMapTest::floodBeyondTheLimitIsCheap()
{
    bench_->startRecordingAt(1000000);
    const QtMessageHandler before = qInstallMessageHandler(dropMessage);
    for (int i = 0; i < 2 * limit; ++i)
        bench_->recorder->addClick(i, 0, -1, -1, 1000500);
    qInstallMessageHandler(before);
    const auto& clicks = probe().clicks();
    QCOMPARE(clicks.size(), limit);
    QCOMPARE(clicks.firstKey(), qint64(500));
    QCOMPARE(clicks.lastKey(), qint64(500 + limit - 1));
}

void ClickMapTest::clicksArriveWhileFramesAreComposed()
{
    // The worker's part on another thread: every click is either pruned or still in the map, none is lost.
    bench_->startRecordingAt(1000000);
    constexpr int count = 3000;
    std::thread worker([this] {
        const RecorderProbe::CapturedFrame frame = blackFrame();
        for (int i = 0; i < 60; ++i)
            bench_->probe().composeFrame(frame, 0);
    });
    for (int i = 0; i < count; ++i)
        bench_->recorder->addClick(80, 48, -1, -1, 1000000 + i);
    worker.join();
    QCOMPARE(probe().clicks().size(), count);
    QCOMPARE(bench_->log.countStartingWith(QStringLiteral("Recorder mouse click received ")), count);
}

ORVANTIS_TEST(ClickMapTest)
#include "clickmap_test.moc"

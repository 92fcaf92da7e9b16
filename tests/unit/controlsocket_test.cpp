// The control channel: framing, floods, replies, and a launcher that goes.
#include "controlbench.h"
#include "linesplitter.h"
#include "privatetempdir.h"
#include "testregistry.h"

#include <QCoreApplication>
#include <QLocalSocket>
#include <QThread>
#include <QTimer>

class ControlSocketTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { bench_.emplace(); }
    void cleanup() { bench_.reset(); }

    void unfinishedInputStaysInTheBuffer_data();
    void unfinishedInputStaysInTheBuffer();

    void twoActionsInOneReadAreAppliedInOrder();
    void lineSplitOverTwoReads();
    void byteByByte();

    void tooLongLineIsDroppedAndTheNextObeyed();
    void endlessLineKeepsTheBufferBounded();
    void hundredThousandClickLinesAreAllStored();

    void noticeIsOneByte();
    void durationReply_data();
    void durationReply();
    void noticeComesBeforeTheDuration();
    void stopIsAnsweredOnce();
    void onlyAServerOfTheSameUserOrOfRootIsOurs();
    void onlyASocketIsRead();
    void lastLinesOfALauncherThatHangsUpAreObeyed();
    void linesBeforeTheReplyToALauncherThatIsGoneAreObeyed();
    void launcherGoneInMidRecording();

private:
    RecorderProbe probe() { return bench_->probe(); }
    QString clicks() { return bench_->clicks(); }
    void tell(const QByteArray& lines) { bench_->tell(lines); }

    PrivateTempDir directory_;
    std::optional<ControlBench> bench_;
};

void ControlSocketTest::unfinishedInputStaysInTheBuffer_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("legacy list of one value") << QByteArray("|5");
    QTest::newRow("bar alone") << QByteArray("|");
    QTest::newRow("legacy list after a blank") << QByteArray(" |1|2|3|4");
    QTest::newRow("click line") << QByteArray("click|1|2|0|0");
    QTest::newRow("action") << QByteArray("{\"action\":\"stop\"}");
}

void ControlSocketTest::unfinishedInputStaysInTheBuffer()
{
    QFETCH(QByteArray, bytes);
    QVERIFY(bench_->launcher.send(bytes));
    QTRY_COMPARE_WITH_TIMEOUT(probe().controlBuffer(), bytes, patienceMs);
    QCOMPARE(clicks(), QString());
    QVERIFY(!probe().stopRequested().load());
}

void ControlSocketTest::twoActionsInOneReadAreAppliedInOrder()
{
    QVERIFY(bench_->launcher.send(pauseLine + unpauseLine + "click|1|1|0|0\n"));
    QTRY_COMPARE_WITH_TIMEOUT(probe().clicks().size(), 1, patienceMs);
    QVERIFY(!probe().paused().load());
    QVERIFY(bench_->launcher.send(unpauseLine + pauseLine + "click|1|1|0|0\n"));
    QTRY_COMPARE_WITH_TIMEOUT(probe().clicks().size(), 2, patienceMs);
    QVERIFY(probe().paused().load());
}

void ControlSocketTest::lineSplitOverTwoReads()
{
    const QByteArray half = pauseLine.left(7);
    QVERIFY(bench_->launcher.send(half));
    QTRY_COMPARE_WITH_TIMEOUT(probe().controlBuffer(), half, patienceMs);
    QVERIFY(!probe().paused().load());
    QVERIFY(bench_->launcher.send(pauseLine.mid(7)));
    QTRY_VERIFY_WITH_TIMEOUT(probe().paused().load(), patienceMs);
    QCOMPARE(probe().controlBuffer(), QByteArray());
}

void ControlSocketTest::byteByByte()
{
    const QByteArray stream = "click|1|2|0.5|0.5\n" + pauseLine;
    for (qsizetype i = 0; i < stream.size(); ++i) {
        QVERIFY(bench_->launcher.send(stream.mid(i, 1)));
        QCoreApplication::processEvents();
    }
    QTRY_VERIFY_WITH_TIMEOUT(probe().paused().load(), patienceMs);
    QCOMPARE(clicks(), QStringLiteral("1 2 0.5 0.5 1"));
}

void ControlSocketTest::tooLongLineIsDroppedAndTheNextObeyed()
{
    tell("click|1|1|0|0\n" + QByteArray(linesplitter::longestLine, 'x') + "x\nclick|2|2|0|0\n");
    QCOMPARE(clicks(), QStringLiteral("1 1 0 0 1; 2 2 0 0 1"));
    tell("|" + QByteArray(linesplitter::longestLine, ' ') + "|1|2\nclick|3|3|0|0\n");
    QVERIFY(clicks().endsWith(QStringLiteral("3 3 0 0 1")));
}

void ControlSocketTest::endlessLineKeepsTheBufferBounded()
{
    qsizetype most = 0;
    QTimer watch;
    connect(&watch, &QTimer::timeout, this, [&] { most = std::max(most, probe().controlBuffer().size()); });
    watch.start(0);
    for (int i = 0; i < 20; ++i)
        QVERIFY(bench_->launcher.send(QByteArray(300 * 1024, 'x')));
    tell("click|1|1|0|0\nclick|2|2|0|0\n"); // the first line feed ends the endless line
    QVERIFY(most > 0);
    QVERIFY2(most <= linesplitter::longestLine, qPrintable(QString::number(most)));
    QCOMPARE(clicks(), QStringLiteral("2 2 0 0 1"));
}

void ControlSocketTest::hundredThousandClickLinesAreAllStored()
{
    constexpr int count = 100000;
    QByteArray lines;
    for (int i = 0; i < count; ++i)
        lines += "click|" + QByteArray::number(i) + "|2|0.5|0.5\n";
    const QtMessageHandler before = qInstallMessageHandler(dropMessage);
    tell(lines);
    qInstallMessageHandler(before);
    const auto& stored = probe().clicks();
    QCOMPARE(stored.size(), count);
    int index = 0;
    for (auto click = stored.cbegin(); click != stored.cend(); ++click, ++index) {
        QCOMPARE(click.key(), qint64(index));
        QCOMPARE(click->globalX, double(index));
    }
}

void ControlSocketTest::noticeIsOneByte()
{
    Q_EMIT bench_->recorder->frameCome();
    QVERIFY(bench_->launcher.waitForReceived(1, patienceMs));
    QCOMPARE(bench_->launcher.received(), QByteArray("1"));
    QCOMPARE(bench_->log.messages(QtDebugMsg), QStringList{QStringLiteral("sending frame come")});
}

void ControlSocketTest::durationReply_data()
{
    QTest::addColumn<quint32>("durationMs");
    QTest::addColumn<QByteArray>("reply");
    QTest::newRow("nothing") << 0u << QByteArray("{\"duration\":0}\n");
    QTest::newRow("12 s") << 12345u << QByteArray("{\"duration\":12345}\n");
    QTest::newRow("above a signed int") << 4294967295u << QByteArray("{\"duration\":4294967295}\n");
}

void ControlSocketTest::durationReply()
{
    QFETCH(quint32, durationMs);
    QFETCH(QByteArray, reply);
    probe().durationMs() = durationMs;
    bench_->recorder->stop();
    QVERIFY(bench_->launcher.waitForReceived(reply.size(), patienceMs));
    QCOMPARE(bench_->launcher.received(), reply);
    QCOMPARE(bench_->log.messages(QtDebugMsg),
        QStringList{QStringLiteral("FFmpeg recorder stopped, duration %1").arg(durationMs)});
}

void ControlSocketTest::noticeComesBeforeTheDuration()
{
    // Another thread announces the recording; before this thread's events are delivered the stop comes.
    const std::unique_ptr<QThread> worker(QThread::create([this] { Q_EMIT bench_->recorder->frameCome(); }));
    worker->start();
    QVERIFY(worker->wait());
    bench_->recorder->stop();
    QVERIFY(bench_->launcher.waitForReceived(16, patienceMs));
    QCOMPARE(bench_->launcher.received(), QByteArray("1{\"duration\":0}\n"));
    QCOMPARE(bench_->log.count(QStringLiteral("sending frame come")), 1);
}

void ControlSocketTest::stopIsAnsweredOnce()
{
    tell("{\"action\":\"stop\"}\n{\"action\":\"stop\"}\n");
    tell("{\"action\":\"stop\"}\n");
    Q_EMIT bench_->recorder->frameCome(); // what comes last shows that nothing else is on its way
    QVERIFY(bench_->launcher.waitForReceived(16, patienceMs));
    QCOMPARE(bench_->launcher.received(), QByteArray("{\"duration\":0}\n1"));
}

void ControlSocketTest::onlyAServerOfTheSameUserOrOfRootIsOurs()
{
    fakeplatform::state().ownUserId = 1000;
    fakeplatform::state().peerUserId = 1000;
    QVERIFY(probe().serverIsOurs());
    fakeplatform::state().peerUserId = 0;
    QVERIFY(probe().serverIsOurs());
    fakeplatform::state().peerUserId = 1001;
    QVERIFY(!probe().serverIsOurs());
    fakeplatform::state().peerUserId = std::nullopt; // it cannot be told
    QVERIFY(!probe().serverIsOurs());
    fakeplatform::state().ownUserId = 0; // also root obeys no other
    fakeplatform::state().peerUserId = 1000;
    QVERIFY(!probe().serverIsOurs());
}

void ControlSocketTest::onlyASocketIsRead()
{
    QVERIFY(bench_->launcher.send("half"));
    QTRY_COMPARE_WITH_TIMEOUT(probe().controlBuffer(), QByteArray("half"), patienceMs);
    probe().controlBuffer() = pauseLine;
    QVERIFY(QMetaObject::invokeMethod(bench_->recorder.get(), "proceessData")); // without a sender
    QTimer other;
    connect(&other, SIGNAL(timeout()), bench_->recorder.get(), SLOT(proceessData())); // with a sender of another kind
    other.start(0);
    QTest::qWait(5);
    QCOMPARE(probe().controlBuffer(), pauseLine);
    QVERIFY(!probe().paused().load());
}

void ControlSocketTest::lastLinesOfALauncherThatHangsUpAreObeyed()
{
    QVERIFY(bench_->launcher.send("click|1|1|0|0\n" + pauseLine + "{\"action\":\"stop\"}"));
    bench_->launcher.disconnectClient();
    QTRY_VERIFY_WITH_TIMEOUT(probe().paused().load(), patienceMs);
    QTRY_COMPARE_WITH_TIMEOUT(
        probe().controlSocket()->state(), QLocalSocket::LocalSocketState::UnconnectedState, patienceMs);
    QCOMPARE(clicks(), QStringLiteral("1 1 0 0 1"));
    QVERIFY(!probe().stopRequested().load()); // its line has no end
}

/// The main thread was busy with the stop while they came.
void ControlSocketTest::linesBeforeTheReplyToALauncherThatIsGoneAreObeyed()
{
    QVERIFY(bench_->launcher.send("click|1|1|0|0\n" + pauseLine));
    bench_->launcher.disconnectClient();
    bench_->recorder->stop();
    QVERIFY(probe().stopAcknowledged());
    QTRY_VERIFY_WITH_TIMEOUT(probe().paused().load(), patienceMs);
    QTRY_COMPARE_WITH_TIMEOUT(
        probe().controlSocket()->state(), QLocalSocket::LocalSocketState::UnconnectedState, patienceMs);
}

void ControlSocketTest::launcherGoneInMidRecording()
{
    bench_->recorder.reset();
    fakeplatform::state().image = [](int) { return fakeplatform::solidImage(160, 96, qRgb(9, 99, 9)); };
    RecorderArguments arguments;
    arguments.output = directory_.filePath(QStringLiteral("gone.mp4"));
    bench_->recorder = makeRecorder(arguments);
    QVERIFY(bench_->launcher.waitForReceived(1, patienceMs)); // readiness
    QTRY_VERIFY_WITH_TIMEOUT(probe().recordingStartedAtMs().load() > 0, patienceMs);
    bench_->launcher.disconnectClient();
    QTRY_COMPARE_WITH_TIMEOUT(
        probe().controlSocket()->state(), QLocalSocket::LocalSocketState::UnconnectedState, patienceMs);
    bench_->launcher.clearReceived();

    bench_->recorder->stop();
    QVERIFY(probe().finalized().load());
    QVERIFY(probe().encodedFrameCount() > 0);
    QCOMPARE(bench_->log.count(QStringLiteral("FFmpeg recorder stopped, duration %1").arg(probe().durationMs())), 1);
    Q_EMIT bench_->recorder->frameCome();
    QVERIFY(!bench_->launcher.waitForReceived(1, 50));
    QVERIFY(!bench_->launcher.isConnected()); // and no new connection is made
}

ORVANTIS_TEST(ControlSocketTest)
#include "controlsocket_test.moc"

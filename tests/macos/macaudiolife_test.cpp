// The life of an audio stream: start, stop, what never answers or answers late, and what is delivered meanwhile.
#include "macaudio.h"
#include "testregistry.h"

using macsim::answers;
using macsim::Call;
using macsim::When;

namespace {

const QString startedLine
    = QStringLiteral("macOS ScreenCaptureKit audio capture started sample rate 48000 channels 2");
const QString startTimedOutLine = QStringLiteral("macOS ScreenCaptureKit audio capture start timed out.");
const QString stoppedPrefix = QStringLiteral("macOS ScreenCaptureKit audio stream stopped: ");

}

class MacAudioLifeTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void startAndStop_data();
    void startAndStop();
    void startTwice();
    void startAfterStop();
    void stopWithoutStart();
    void destructionStops();
    void outputsKeptByTheStream();

    void startFails_data();
    void startFails();
    void startTimesOut();
    void startAnswersLate_data();
    void startAnswersLate();
    void startAnswersAfterDestruction_data();
    void startAnswersAfterDestruction();
    void startNeverAnswers();
    void secondTryAfterATimeOut();

    void stopFails_data();
    void stopFails();
    void stopTimesOut();
    void stopAnswersAfterDestruction();
    void samplesAfterDestruction();
    void endAfterDestruction();

    void streamEndsByItself_data();
    void streamEndsByItself();
    void frameIsIgnored();
    void chunksSurviveStop();

private:
    std::unique_ptr<RecorderAudioCapture> started() const { return startedCapture(*bench_); }

    std::optional<MacBench> bench_;
};

void MacAudioLifeTest::init()
{
    bench_.emplace();
}

void MacAudioLifeTest::cleanup()
{
    MAC_IS_CLEAN();
    bench_.reset();
}

// ---- in order ---------------------------------------------------------------------------------------------------

void MacAudioLifeTest::startAndStop_data()
{
    QTest::addColumn<int>("when");
    QTest::newRow("on another thread") << int(When::Soon);
    QTest::newRow("before the call returns") << int(When::AtOnce);
}

void MacAudioLifeTest::startAndStop()
{
    QFETCH(const int, when);
    answers().start = When(when);
    answers().stop = When(when);
    RecorderAudioCapture capture{QString()};
    bench_->log.clear();
    QVERIFY(capture.start());
    QCOMPARE(bench_->log.messages(), QStringList(startedLine));
    QCOMPARE(macsim::runningStreams(), 1);
    QVERIFY(macsim::deliver(loudAudio));
    QVERIFY(isHeard(capture));
    capture.stop();
    QCOMPARE(macsim::runningStreams(), 0);
    QVERIFY(!macsim::deliver(loudAudio));
    QCOMPARE(macsim::record().waits, (std::vector<std::int64_t>{fiveSecondsNs, fiveSecondsNs, twoSecondsNs}));
    QVERIFY(!isHeard(capture));
    QCOMPARE(bench_->log.messages(), QStringList(startedLine));
}

void MacAudioLifeTest::startTwice()
{
    const auto capture = started();
    QVERIFY(capture->start());
    QCOMPARE(macsim::record().starts, 1);
}

void MacAudioLifeTest::startAfterStop()
{
    const auto capture = started();
    capture->stop();
    QVERIFY(capture->start());
    QCOMPARE(macsim::record().starts, 2);
    QVERIFY(macsim::deliver(loudAudio));
    QVERIFY(isHeard(*capture));
}

void MacAudioLifeTest::stopWithoutStart()
{
    RecorderAudioCapture capture{QString()};
    capture.stop();
    QCOMPARE(macsim::record().stops, 0);
}

void MacAudioLifeTest::destructionStops()
{
    auto capture = started();
    capture.reset();
    QCOMPARE(macsim::record().stops, 1);
    QCOMPARE(macsim::runningStreams(), 0);
}

void MacAudioLifeTest::outputsKeptByTheStream()
{
    answers().streamKeepsOutputs = true;
    auto capture = started();
    QVERIFY(macsim::deliver(loudAudio));
    QVERIFY(isHeard(*capture));
    capture.reset();
    macsim::settle();
    QCOMPARE(macsim::live("SCStream"), 0);
}

// ---- start ------------------------------------------------------------------------------------------------------

void MacAudioLifeTest::startFails_data()
{
    QTest::addColumn<bool>("hasText");
    QTest::addColumn<QString>("quoted");
    QTest::newRow("with a text") << true << "\"not now\"";
    QTest::newRow("without a text") << false << "\"\"";
}

void MacAudioLifeTest::startFails()
{
    QFETCH(const bool, hasText);
    QFETCH(const QString, quoted);
    answers().startError = hasText ? macsim::Error("not now") : macsim::Error();
    RecorderAudioCapture capture{QString()};
    bench_->log.clear();
    QVERIFY(!capture.start());
    QCOMPARE(bench_->log.messages(),
        QStringList(QStringLiteral("macOS ScreenCaptureKit audio capture failed to start: ") + quoted));
    capture.stop();
    QCOMPARE(macsim::record().stops, 0);
}

void MacAudioLifeTest::startTimesOut()
{
    answers().start = When::Held;
    RecorderAudioCapture capture{QString()};
    bench_->log.clear();
    QVERIFY(!capture.start());
    QCOMPARE(bench_->log.messages(), QStringList(startTimedOutLine));
    QCOMPARE(macsim::record().waits.back(), fiveSecondsNs);
    macsim::forgetHeld();
}

void MacAudioLifeTest::startAnswersLate_data()
{
    QTest::addColumn<bool>("fails");
    QTest::newRow("with success") << false;
    QTest::newRow("with an error") << true;
}

void MacAudioLifeTest::startAnswersLate()
{
    QFETCH(const bool, fails);
    answers().start = When::Held;
    if (fails)
        answers().startError = macsim::Error("late");
    auto capture = std::make_unique<RecorderAudioCapture>(QString());
    QVERIFY(!capture->start());
    bench_->log.clear();
    QVERIFY(macsim::answerHeld(Call::Start));
    QCOMPARE(bench_->log.messages(), QStringList());
    capture.reset();
    macsim::settle();
    QCOMPARE(macsim::record().stops, fails ? 0 : 1);
    QCOMPARE(macsim::runningStreams(), 0);
}

void MacAudioLifeTest::startAnswersAfterDestruction_data()
{
    QTest::addColumn<bool>("fails");
    QTest::addColumn<bool>("kept");
    QTest::newRow("with success") << false << false;
    QTest::newRow("with success, outputs kept") << false << true;
    QTest::newRow("with an error") << true << false;
}

void MacAudioLifeTest::startAnswersAfterDestruction()
{
    QFETCH(const bool, fails);
    QFETCH(const bool, kept);
    answers().start = When::Held;
    answers().stop = When::Held;
    answers().streamKeepsOutputs = kept;
    if (fails)
        answers().startError = macsim::Error("late");
    {
        RecorderAudioCapture capture{QString()};
        QVERIFY(!capture.start());
    }
    bench_->log.clear();
    QVERIFY(macsim::answerHeld(Call::Start));
    QCOMPARE(macsim::record().stops, fails ? 0 : 1);
    QCOMPARE(macsim::deliver(loudAudio), !fails); // it still runs, and nobody hears it
    QCOMPARE(macsim::answerHeld(Call::Stop), !fails);
    QCOMPARE(bench_->log.messages(), QStringList());
}

void MacAudioLifeTest::startNeverAnswers()
{
    answers().start = When::Held;
    {
        RecorderAudioCapture capture{QString()};
        QVERIFY(!capture.start());
    }
    macsim::settle();
    QCOMPARE(macsim::record().stops, 0);
    QCOMPARE(macsim::heldAnswers(), 1);
    macsim::forgetHeld();
}

void MacAudioLifeTest::secondTryAfterATimeOut()
{
    answers().start = When::Held;
    RecorderAudioCapture capture{QString()};
    QVERIFY(!capture.start());
    answers().start = When::Soon;
    QVERIFY(capture.start());
    QVERIFY(macsim::deliver(loudAudio));
    QVERIFY(isHeard(capture));
    QVERIFY(macsim::answerHeld(Call::Start));
    capture.stop();
    QCOMPARE(macsim::runningStreams(), 0);
}

// ---- stop -------------------------------------------------------------------------------------------------------

void MacAudioLifeTest::stopFails_data()
{
    QTest::addColumn<bool>("hasText");
    QTest::addColumn<QString>("quoted");
    QTest::newRow("with a text") << true << "\"gone\"";
    QTest::newRow("without a text") << false << "\"\"";
}

void MacAudioLifeTest::stopFails()
{
    QFETCH(const bool, hasText);
    QFETCH(const QString, quoted);
    const auto capture = started();
    bench_->log.clear();
    answers().stopError = hasText ? macsim::Error("gone") : macsim::Error();
    capture->stop();
    QCOMPARE(bench_->log.messages(),
        QStringList(QStringLiteral("macOS ScreenCaptureKit audio capture stop error: ") + quoted));
}

void MacAudioLifeTest::stopTimesOut()
{
    const auto capture = started();
    bench_->log.clear();
    answers().stop = When::Held;
    capture->stop();
    QCOMPARE(bench_->log.messages(), QStringList());
    QCOMPARE(macsim::record().waits.back(), twoSecondsNs);
    answers().stopError = macsim::Error("late");
    QVERIFY(macsim::answerHeld(Call::Stop));
    QCOMPARE(bench_->log.messages(),
        QStringList(QStringLiteral("macOS ScreenCaptureKit audio capture stop error: \"late\"")));
}

void MacAudioLifeTest::stopAnswersAfterDestruction()
{
    auto capture = started();
    answers().stop = When::Held;
    capture.reset();
    QCOMPARE(macsim::record().stops, 1);
    QCOMPARE(macsim::live("SCStream"), 1); // the system's own reference
    QVERIFY(macsim::answerHeld(Call::Stop));
    QCOMPARE(macsim::record().stops, 1);
}

void MacAudioLifeTest::samplesAfterDestruction()
{
    auto capture = started();
    answers().stop = When::Held;
    capture.reset();
    const auto listCalls = macsim::record().listFlags.size();
    QVERIFY(macsim::deliver(loudAudio));
    QCOMPARE(macsim::record().listFlags.size(), listCalls); // nobody takes it
    QVERIFY(macsim::answerHeld(Call::Stop));
}

void MacAudioLifeTest::endAfterDestruction()
{
    auto capture = started();
    answers().stop = When::Held;
    capture.reset();
    bench_->log.clear();
    QVERIFY(macsim::endStreams(macsim::Error("gone")));
    QCOMPARE(bench_->log.messages(), QStringList());
    QVERIFY(macsim::answerHeld(Call::Stop));
}

// ---- while it runs ----------------------------------------------------------------------------------------------

void MacAudioLifeTest::streamEndsByItself_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<QStringList>("lines");
    QTest::newRow("with a text") << 0 << QStringList(stoppedPrefix + "\"gone\"");
    QTest::newRow("without a text") << 1 << QStringList(stoppedPrefix + "\"\"");
    QTest::newRow("without an error") << 2 << QStringList();
}

void MacAudioLifeTest::streamEndsByItself()
{
    QFETCH(const int, kind);
    QFETCH(const QStringList, lines);
    const std::vector<macsim::Outcome> outcomes{macsim::Error("gone"), macsim::Error(), std::nullopt};
    const auto capture = started();
    bench_->log.clear();
    QVERIFY(macsim::endStreams(outcomes[std::size_t(kind)]));
    QCOMPARE(bench_->log.messages(), lines);
    QVERIFY(!macsim::deliver(loudAudio));
    QVERIFY(capture->start()); // still started, for all it knows
    QCOMPARE(macsim::record().starts, 1);
}

void MacAudioLifeTest::frameIsIgnored()
{
    const auto capture = started();
    QVERIFY(macsim::deliver(loudAudio, macsim::screenOutput));
    QVERIFY(!isHeard(*capture));
    QVERIFY(macsim::record().listFlags.empty());
}

void MacAudioLifeTest::chunksSurviveStop()
{
    const auto capture = started();
    QVERIFY(macsim::deliver(loudAudio));
    capture->deliverUntil(std::numeric_limits<qint64>::max() / 2000000, true);
    capture->stop();
    const auto chunks = capture->readAvailable();
    QCOMPARE(chunks.size(), 1);
    QVERIFY(chunks[0].frames >= 960);
}

ORVANTIS_TEST(MacAudioLifeTest)
#include "macaudiolife_test.moc"

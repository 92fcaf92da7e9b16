// Whose audio it is, while the answer takes its time: nothing else waits for it, and nothing is heard before it.
#include "audiofixture.h"
#include "linux/pipewire/pipewirecapture.h"
#include "recorderaudiocapture.h"
#include "testregistry.h"
#include "x11fixture.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <semaphore>

using namespace audiotest;

namespace {

/// A question that hangs until the test has it answered.
struct HangingQuestion {
    std::counting_semaphore<> asked{0};
    std::counting_semaphore<> answered{0};
    std::atomic<int> returned = 0;
};

pipewire::ProcessFilter asking(const std::shared_ptr<HangingQuestion>& question, qint64 about)
{
    return [question, about](qint64 pid) -> pipewire::Verdict {
        if (pid != about)
            return false;
        return [question] {
            question->asked.release();
            question->answered.acquire();
            ++question->returned;
            return true;
        };
    };
}

/// True when the request is answered without an error.
bool isAnswered(pipewire::AudioCapture& capture, bool active)
{
    const auto answer = std::make_shared<std::binary_semaphore>(0);
    const auto failed = std::make_shared<std::atomic<bool>>(false);
    capture.setActive(active, [answer, failed](const std::optional<QString>& error) {
        *failed = error.has_value();
        answer->release();
    });
    return answer->try_acquire_for(std::chrono::milliseconds(limitMs)) && !*failed;
}

/// The loudest sample of what comes in.
float loudest(pipewire::AudioCapture& capture)
{
    std::vector<float> block;
    float most = 0;
    while (capture.takeBlock(block)) {
        for (const float sample : block)
            most = std::max(most, std::abs(sample));
    }
    return most;
}

qint64 monotonicMs()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

bool wait(std::counting_semaphore<>& semaphore)
{
    return semaphore.try_acquire_for(std::chrono::milliseconds(limitMs));
}

}

class AudioDecisionsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();

    void nothingWaitsForAQuestion();
    void answerAfterTheEnd();
    void stoppedXServer();
    void xServerThatIsStoppedFromTheStart();
    void processThatIsKnownLate_data();
    void processThatIsKnownLate();
    void programThatPretendsToBePulseAudio();

private:
    std::unique_ptr<ServerForTest> server_;
};

void AudioDecisionsTest::init()
{
    server_.reset();
    server_ = std::make_unique<ServerForTest>();
    QVERIFY2(server_->server.isRunning(), qPrintable(server_->server.errorString()));
}

void AudioDecisionsTest::nothingWaitsForAQuestion()
{
    const ToneProcess player(ToneProcess::tone(QStringLiteral("player"), tone));
    const auto question = std::make_shared<HangingQuestion>();
    pipewire::AudioCapture capture(asking(question, player.pid()), [](const QString&) {});
    QVERIFY2(!capture.error(), qPrintable(capture.error().value_or(QString())));
    QVERIFY(wait(question->asked));
    QVERIFY(isAnswered(capture, true));
    QVERIFY(isAnswered(capture, false));
    QVERIFY(isAnswered(capture, true));
    QCOMPARE(loudest(capture), 0.F);
    question->answered.release();
    QVERIFY(QTest::qWaitFor([&capture] { return loudest(capture) > 0.2F; }, limitMs));
}

void AudioDecisionsTest::answerAfterTheEnd()
{
    const ToneProcess player(ToneProcess::tone(QStringLiteral("player"), tone));
    const auto question = std::make_shared<HangingQuestion>();
    auto capture = std::make_unique<pipewire::AudioCapture>(asking(question, player.pid()), [](const QString&) {});
    QVERIFY(wait(question->asked));
    capture.reset(); // does not wait
    QCOMPARE(question->returned.load(), 0);
    question->answered.release();
    QTRY_COMPARE_WITH_TIMEOUT(question->returned.load(), 1, limitMs);
}

/// A player that appears takes a question to the X server. Stop and start do not wait for the answer, which is still
/// missing after them; neither does what is heard.
void AudioDecisionsTest::stoppedXServer()
{
    DisplayForTest display;
    QVERIFY2(display.server.isRunning(), qPrintable(display.server.errorString()));
    const ToneProcess wanted(ToneProcess::tone(QStringLiteral("wanted"), tone));
    AudioPuller puller(std::set<qint64>{wanted.pid()});
    QVERIFY(hears({&puller}, tone));
    ::kill(pid_t(display.server.pid()), SIGSTOP);
    const ToneProcess later(ToneProcess::tone(QStringLiteral("later"), otherTone));
    const bool stopped = puller.stopCapture();
    const bool startedAgain = puller.startCapture();
    const double laterDb = levelDb(side(puller.listen(200), 0), otherTone);
    const bool heard = hears({&puller}, tone);
    ::kill(pid_t(display.server.pid()), SIGCONT);
    QVERIFY(stopped && startedAgain && heard);
    QVERIFY2(laterDb < unheardDb, QByteArray::number(laterDb));
    QVERIFY(hears({&puller}, otherTone)); // when the question is answered
}

/// From the look-up on, within the limits of every wait.
void AudioDecisionsTest::xServerThatIsStoppedFromTheStart()
{
    DisplayForTest display;
    QVERIFY2(display.server.isRunning(), qPrintable(display.server.errorString()));
    const ToneProcess wanted(ToneProcess::tone(QStringLiteral("wanted"), tone));
    ::kill(pid_t(display.server.pid()), SIGSTOP);
    RecorderAudioCapture capture(QStringLiteral("app-pid:%1").arg(wanted.pid()));
    const ToneProcess later(ToneProcess::tone(QStringLiteral("later"), otherTone));
    const bool started = capture.start();
    const auto isHeard = [&capture] {
        capture.deliverUntil(monotonicMs());
        for (const RecorderAudioCapture::Chunk& chunk : capture.readAvailable()) {
            if (std::any_of(chunk.pcm.begin(), chunk.pcm.end(), [](char byte) { return byte != 0; }))
                return true;
        }
        return false;
    };
    const bool heard = started && QTest::qWaitFor(isHeard, limitMs);
    QElapsedTimer stopping;
    stopping.start();
    capture.stop();
    const qint64 stopMs = stopping.elapsed();
    ::kill(pid_t(display.server.pid()), SIGCONT);
    QVERIFY(started);
    QVERIFY(heard);
    constexpr qint64 stopLimitMs = 2000; // a wait that ran out
    QVERIFY2(stopMs < stopLimitMs, QByteArray::number(stopMs));
}

void AudioDecisionsTest::processThatIsKnownLate_data()
{
    QTest::addColumn<bool>("wanted");
    QTest::newRow("wanted") << true;
    QTest::newRow("excluded") << false;
}

/// Until it is known whose audio it is, it is not heard; then it is decided.
void AudioDecisionsTest::processThatIsKnownLate()
{
    QFETCH(bool, wanted);
    const OtherProcess other;
    const QTemporaryDir directory;
    const QString service = directory.filePath(QStringLiteral("pipewire-pulse")); // others are not believed
    QVERIFY(QFile::copy(ToneProcess::program(), service));
    const ToneProcess player(
        ToneProcess::tone(QStringLiteral("anonymous"), tone, {QStringLiteral("--anonymous"), QStringLiteral("1.5")}),
        service);
    AudioPuller puller(std::set<qint64>{wanted ? player.pid() : other.pid()});
    QVERIFY2(puller.isCapturing(), qPrintable(puller.errorString()));
    const auto isIntroduced = [&] {
        return server_->server.output(QStringLiteral("pw-dump"), {QStringLiteral("Client")})
            .value_or(QByteArray())
            .contains("\"application.process.id\": " + QByteArray::number(player.pid()));
    };
    bool silentBefore = true;
    bool introduced = false;
    for (int i = 0; i < 200 && !introduced; ++i) {
        const AudioPuller::Piece audio = puller.listen(50);
        introduced = isIntroduced();
        silentBefore = silentBefore && (introduced || isSilent(audio));
    }
    QVERIFY(introduced);
    QVERIFY(silentBefore);
    if (wanted)
        QVERIFY(hears({&puller}, tone));
    else
        QVERIFY(isSilent(puller.listen(500)));
}

/// Its audio stays its own, whatever it says about itself.
void AudioDecisionsTest::programThatPretendsToBePulseAudio()
{
    const ToneProcess player(
        ToneProcess::tone(QStringLiteral("anonymous"), tone, {QStringLiteral("--anonymous"), QStringLiteral("600")}));
    AudioPuller puller(std::set<qint64>{player.pid()});
    QVERIFY2(puller.isCapturing(), qPrintable(puller.errorString()));
    QVERIFY(hears({&puller}, tone));
}

ORVANTIS_TEST(AudioDecisionsTest)

#include "audiodecisions_test.moc"

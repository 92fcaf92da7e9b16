// Whose audio it is, while the answer takes its time: nothing else waits for it, and nothing is heard before it.
#include "allocationfaults.h"
#include "audiofixture.h"
#include "linux/pipewire/pipewirecapture.h"
#include "linux/x11/windowowners.h"
#include "testregistry.h"
#include "x11fixture.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <new>
#include <semaphore>

using namespace audiotest;

namespace {

constexpr int longerThanItIsAwaitedMs = 3000; ///< the X server

/// A question that hangs until the test has it answered.
struct HangingQuestion {
    std::counting_semaphore<> asked{0};
    std::counting_semaphore<> answered{0};
    std::atomic<int> returned = 0;
};

std::shared_ptr<HangingQuestion> hangingXServer; ///< for whoever asks for windows; null for the real one

pipewire::ProcessFilter asking(const std::shared_ptr<HangingQuestion>& question, qint64 about)
{
    return [question, about](qint64 pid) -> pipewire::Verdict {
        if (pid != about)
            return false;
        return [question] {
            question->asked.release();
            question->answered.acquire();
            ++question->returned;
            return std::optional(true);
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
    for (const auto& queue : capture.queues()) {
        while (queue->pop(block)) {
            for (const float sample : block)
                most = std::max(most, std::abs(sample));
        }
    }
    return most;
}

/// The player under a name of which it is believed that it speaks for other processes.
struct PulseService {
    PulseService() { QFile::copy(ToneProcess::program(), program); }

    QTemporaryDir directory;
    QString program = directory.filePath(QStringLiteral("pipewire-pulse"));
};

/// What the kernel gives at most.
qint64 largestProcessId()
{
    QFile limit(QStringLiteral("/proc/sys/kernel/pid_max"));
    return limit.open(QIODevice::ReadOnly) ? limit.readAll().trimmed().toLongLong() : 0;
}

bool wait(std::counting_semaphore<>& semaphore)
{
    return semaphore.try_acquire_for(std::chrono::milliseconds(limitMs));
}

}

// windowowners::find() under its name for the linker.
extern "C" {
using WindowOwners = std::optional<std::vector<windowowners::Owner>>;
WindowOwners __real__ZN12windowowners4findEv();
WindowOwners __wrap__ZN12windowowners4findEv();
WindowOwners __wrap__ZN12windowowners4findEv()
{
    if (const auto question = hangingXServer) {
        question->asked.release();
        wait(question->answered);
        ++question->returned;
    }
    return __real__ZN12windowowners4findEv();
}
}

class AudioDecisionsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();

    void nothingWaitsForAQuestion();
    void answerAfterTheEnd();
    void nothingWaitsForTheXServer();
    void stoppedXServer();
    void xServerThatIsStoppedFromTheStart();
    void processThatIsKnownLate_data();
    void processThatIsKnownLate();
    void processThatNobodyKnows();
    void programThatPretendsToBePulseAudio();
    void memoryForADecisionIsMissing();
    void memoryForTheLookUpIsMissing();

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

void AudioDecisionsTest::nothingWaitsForTheXServer()
{
    const ToneProcess wanted(ToneProcess::tone(QStringLiteral("wanted"), tone));
    AudioPuller puller(std::set<qint64>{wanted.pid()});
    QVERIFY(hears({&puller}, tone));
    const auto question = std::make_shared<HangingQuestion>();
    hangingXServer = question;
    const ToneProcess later(ToneProcess::tone(QStringLiteral("later"), otherTone));
    const bool asked = wait(question->asked);
    const bool stopped = puller.stopCapture();
    const bool startedAgain = puller.startCapture();
    const int answersBefore = question->returned;
    hangingXServer.reset();
    question->answered.release();
    QVERIFY(asked && stopped && startedAgain);
    QCOMPARE(answersBefore, 0);
    QVERIFY(hears({&puller}, otherTone)); // when the question is answered
}

/// A player that appears takes a question to the X server. Stop and start do not wait for the answer, which is still
/// missing after them; neither does what is heard. That there is no answer is none: the player is not heard.
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
    const AudioPuller::Piece whileItHangs = puller.listen(longerThanItIsAwaitedMs);
    const double laterDb = levelDb(side(whileItHangs, 0), otherTone);
    const bool heard = hears({&puller}, tone);
    ::kill(pid_t(display.server.pid()), SIGCONT);
    QVERIFY(stopped && startedAgain && heard);
    QVERIFY2(laterDb < unheardDb, QByteArray::number(laterDb));
    QVERIFY(hears({&puller}, otherTone)); // when the question is answered
}

/// From the look-up on, everything is answered.
void AudioDecisionsTest::xServerThatIsStoppedFromTheStart()
{
    DisplayForTest display;
    QVERIFY2(display.server.isRunning(), qPrintable(display.server.errorString()));
    const ToneProcess wanted(ToneProcess::tone(QStringLiteral("wanted"), tone));
    ::kill(pid_t(display.server.pid()), SIGSTOP);
    AudioPuller puller(std::set<qint64>{wanted.pid()});
    const ToneProcess later(ToneProcess::tone(QStringLiteral("later"), otherTone));
    const bool heard = puller.isCapturing() && hears({&puller}, tone);
    const bool stopped = puller.stopCapture();
    ::kill(pid_t(display.server.pid()), SIGCONT);
    QVERIFY(heard);
    QVERIFY(stopped);
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
    const PulseService service;
    const ToneProcess player(
        ToneProcess::tone(QStringLiteral("anonymous"), tone, {QStringLiteral("--anonymous"), QStringLiteral("1.5")}),
        service.program);
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

/// It could be that of a program that is left out. The audio of everything has it.
void AudioDecisionsTest::processThatNobodyKnows()
{
    const PulseService service;
    const ToneProcess wanted(ToneProcess::tone(QStringLiteral("wanted"), tone));
    const qint64 nobody = 1 + largestProcessId();
    const ToneProcess stranger(ToneProcess::tone(QStringLiteral("stranger"), otherTone,
                                   {QStringLiteral("--claim"), QString::number(nobody)}),
        service.program);
    AudioPuller everything;
    AudioPuller puller(std::set<qint64>{wanted.pid()});
    QVERIFY(hears({&everything, &puller}, tone));
    const std::vector<AudioPuller::Piece> pieces = AudioPuller::listen({&everything, &puller}, 500);
    QVERIFY(isFull(levelDb(side(pieces[0], 0), otherTone)));
    const double strangerDb = levelDb(side(pieces[1], 0), otherTone);
    QVERIFY2(strangerDb < unheardDb, QByteArray::number(strangerDb));
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

/// On PipeWire's thread, whose callers are no C++. What has not been decided is decided with the next change.
void AudioDecisionsTest::memoryForADecisionIsMissing()
{
    const ToneProcess player(ToneProcess::tone(QStringLiteral("player"), tone));
    std::atomic<bool> missing = true;
    std::atomic<int> asked = 0;
    pipewire::AudioCapture capture(
        [&](qint64) -> pipewire::Verdict {
            ++asked;
            if (missing)
                throw std::bad_alloc();
            return true;
        },
        [](const QString&) {});
    QVERIFY2(!capture.error(), qPrintable(capture.error().value_or(QString())));
    QVERIFY(QTest::qWaitFor([&] { return asked > 0; }, limitMs));
    missing = false;
    QVERIFY(isAnswered(capture, true));
    const ToneProcess later(ToneProcess::tone(QStringLiteral("later"), otherTone));
    QVERIFY(QTest::qWaitFor([&capture] { return loudest(capture) > 0.4F; }, limitMs)); // both
}

void AudioDecisionsTest::memoryForTheLookUpIsMissing()
{
    QString error;
    {
        const allocationfaults::Refusal refusal(sizeof(pipewire::GraphMirror));
        QVERIFY(!lookUpAudio(&error));
        QVERIFY(refusal.count() > 0);
    }
    QCOMPARE(error, QStringLiteral("std::bad_alloc"));
    QVERIFY(lookUpAudio(&error));
}

ORVANTIS_TEST(AudioDecisionsTest)

#include "audiodecisions_test.moc"

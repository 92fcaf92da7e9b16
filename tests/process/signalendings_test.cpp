// Signals that come one after another. What the end of a session sends must not cost the file; who repeats himself on
// purpose ends the process at once.
#include "privatexserver.h"
#include "recordedfile.h"
#include "recordingscene.h"
#include "testregistry.h"
#include "truthwindowprocess.h"

#include <QFile>
#include <QTest>

#include <csignal>

namespace {

const auto startingLine = QStringLiteral("FFmpeg recorder starting ");
const auto exitingLine = QStringLiteral("recorder exiting ");
const auto finalizedLine = QStringLiteral("FFmpeg recorder finalized output ");

/// Whether the process was sent a signal that no handler has got yet.
bool hasPendingSignal(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return false;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("ShdPnd:"))
            return line.mid(7).trimmed().toULongLong(nullptr, 16) != 0;
    }
    return false;
}

/// Sends a signal and waits until its handler has run.
bool deliver(const RecorderProcess& recorder, int number)
{
    recorder.send(number);
    return QTest::qWaitFor([&] { return !hasPendingSignal(recorder.pid()); }, hangLimitMs);
}

}

class SignalEndingsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void differentSignalsWaitForTheFile_data();
    void differentSignalsWaitForTheFile();
    void sameSignalWithinASecondWaits();
    void sameSignalLaterEndsAtOnce();
    void secondInterruptEndsAtOnce();
    void signalWhileConnecting();

private:
    /// A recorder that looks for its launcher, for 5 s: a time in which a signal is noted and nothing is done about
    /// it.
    bool startWithoutLauncher(RecordingScene& scene) const;

    PrivateXServer server_;
    std::unique_ptr<TruthWindowProcess> window_;
};

void SignalEndingsTest::initTestCase()
{
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    window_ = std::make_unique<TruthWindowProcess>(server_.display());
    QVERIFY2(window_->id() != 0, qPrintable(window_->errorString()));
}

bool SignalEndingsTest::startWithoutLauncher(RecordingScene& scene) const
{
    scene.recorder.setVariable(QStringLiteral("TMPDIR"), scene.command.logDirectory);
    return scene.recorder.start(scene.command.arguments()) && scene.waitForLine(startingLine);
}

void SignalEndingsTest::differentSignalsWaitForTheFile_data()
{
    QTest::addColumn<QList<int>>("numbers");
    QTest::newRow("end of a session") << QList<int>{SIGTERM, SIGHUP};
    QTest::newRow("SIGTERM and SIGINT") << QList<int>{SIGTERM, SIGINT};
    QTest::newRow("a terminal that goes") << QList<int>{SIGHUP, SIGINT, SIGTERM};
}

void SignalEndingsTest::differentSignalsWaitForTheFile()
{
    QFETCH(QList<int>, numbers);
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(300), scene.story());
    // While the process is stopped all become pending, so that none of its own work lies between them.
    scene.recorder.send(SIGSTOP);
    for (const int number : numbers)
        scene.recorder.send(number);
    scene.recorder.send(SIGCONT);
    QVERIFY2(scene.recorder.waitForEnd(), scene.story());
    const int exitCode = scene.recorder.exitCode();
    QVERIFY2(numbers.contains(exitCode - 128), scene.story()); // of the one that the kernel delivered first
    QCOMPARE(countLines(scene.log(), finalizedLine), 1);
    QCOMPARE(scene.log().last().text, exitingLine + QString::number(exitCode));
    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
    QVERIFY2(file.ptsMs.last() >= 200.0, file.description());
}

void SignalEndingsTest::sameSignalWithinASecondWaits()
{
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY2(startWithoutLauncher(scene), scene.story());
    QVERIFY(deliver(scene.recorder, SIGTERM));
    QVERIFY(deliver(scene.recorder, SIGTERM));
    QVERIFY2(scene.recorder.waitForEnd(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), 143);
    QCOMPARE(scene.log().last().text, exitingLine + QStringLiteral("143"));
}

void SignalEndingsTest::sameSignalLaterEndsAtOnce()
{
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY2(startWithoutLauncher(scene), scene.story());
    const auto hasEnded = [&] {
        scene.recorder.send(SIGTERM);
        return !scene.recorder.isRunning();
    };
    QVERIFY2(QTest::qWaitFor(hasEnded, hangLimitMs), scene.story());
    QCOMPARE(scene.recorder.exitCode(), 143);
    QCOMPARE(countLines(scene.log(), exitingLine), 0);
}

void SignalEndingsTest::secondInterruptEndsAtOnce()
{
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY2(startWithoutLauncher(scene), scene.story());
    QVERIFY(deliver(scene.recorder, SIGINT));
    QVERIFY(deliver(scene.recorder, SIGINT));
    QVERIFY2(scene.recorder.waitForEnd(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), 130);
    QCOMPARE(countLines(scene.log(), exitingLine), 0);
}

void SignalEndingsTest::signalWhileConnecting()
{
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY2(startWithoutLauncher(scene), scene.story());
    scene.recorder.send(SIGTERM);
    QVERIFY2(scene.recorder.waitForEnd(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), 143);
    QCOMPARE(scene.log().last().text, exitingLine + QStringLiteral("143"));
    const Playback file = playBack(scene.command.output);
    QVERIFY2(!QFile::exists(scene.command.output) || file.isWhole(), file.description());
}

ORVANTIS_TEST(SignalEndingsTest)
#include "signalendings_test.moc"

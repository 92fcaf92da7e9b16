// Audio sources that name nothing, and audio servers that are not there or go: the frame is recorded all the same.
#include "audioscene.h"
#include "privatexserver.h"
#include "recordedfile.h"
#include "testregistry.h"
#include "toneprocess.h"
#include "truthwindowprocess.h"

#include <QProcess>
#include <QTest>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <memory>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

constexpr double toneHz = 441.7;
constexpr double otherHz = 1250.0;
constexpr double playerDb = -12.04; // of a toneplayer

const auto candidateLine = QStringLiteral("Debug: macOS ScreenCaptureKit audio app candidate pid ");
const auto withoutAudio = QStringLiteral("Warning: Continuing video recording without audio.");

/// The lines of a log that speak of audio, with their levels.
QStringList audioLines(const QList<LogLine>& log)
{
    QStringList lines;
    for (const LogLine& line : log) {
        if (line.text.contains(QLatin1String("audio")) || line.text.contains(QLatin1String("ScreenCaptureKit")))
            lines << QString::fromLatin1(line.level) + QStringLiteral(": ") + line.text;
    }
    return lines;
}

/// A file of frames without an audio stream.
bool isVideoOnly(const QString& path)
{
    const MediaFile file(path);
    return playBack(path).isWhole() && file.videoStream() && !file.audioStream();
}

/// A process that neither plays nor shows anything, of the user given when root starts it.
class Idler {
public:
    explicit Idler(uid_t user)
    {
        process_.setChildProcessModifier([user] {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::geteuid() == 0 && ::setuid(user) != 0)
                ::_exit(1);
        });
        process_.start(QStringLiteral("sleep"), {QStringLiteral("600")});
        process_.waitForStarted(hangLimitMs);
    }
    ~Idler()
    {
        process_.kill();
        process_.waitForFinished(hangLimitMs);
    }
    Idler(const Idler&) = delete;
    Idler& operator=(const Idler&) = delete;

    qint64 pid() const { return process_.processId(); }

private:
    QProcess process_;
};

}

class AudioFaultsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void sourceThatIsNoProcess_data();
    void sourceThatIsNoProcess();
    void processOfSomebodyElse_data();
    void processOfSomebodyElse();
    void processWithoutAudio();
    void windowThatPlaysNothing();
    void lettersOfTheSource_data();
    void lettersOfTheSource();
    void noServer();
    void serverKilled();

private:
    PrivateAudioServer audio_;
    PrivateXServer server_;
    std::unique_ptr<TruthWindowProcess> window_;
    std::unique_ptr<ToneProcess> player_;
};

void AudioFaultsTest::initTestCase()
{
    QVERIFY2(audio_.isRunning(), qPrintable(audio_.errorString()));
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    audio_.apply();
    window_ = std::make_unique<TruthWindowProcess>(server_.display(), QRect(40, 30, 640, 360), 30);
    QVERIFY2(window_->id() != 0, qPrintable(window_->errorString()));
    player_ = std::make_unique<ToneProcess>(ToneProcess::tone(QStringLiteral("player"), toneHz));
    QVERIFY2(player_->isPlaying(), qPrintable(player_->errorString()));
}

void AudioFaultsTest::sourceThatIsNoProcess_data()
{
    QTest::addColumn<QString>("source");
    for (const char* const source :
        {"app-pid:0", "app-pid:-1", "app-pid:abc", "app-pid:", "app-pid:99999999999999999999"})
        QTest::newRow(source) << QString::fromLatin1(source);
}

void AudioFaultsTest::sourceThatIsNoProcess()
{
    QFETCH(const QString, source);
    AudioScene scene(server_.display(), window_->id(), audio_, source);
    QVERIFY2(scene.record(1000), scene.story());
    const QStringList expected{
        QStringLiteral("Warning: macOS app-only audio capture received an invalid app-pid device: \"%1\"")
            .arg(source),
        withoutAudio};
    QCOMPARE(audioLines(scene.log()), expected);
    QVERIFY(isVideoOnly(scene.command.output));
}

void AudioFaultsTest::processOfSomebodyElse_data()
{
    QTest::addColumn<bool>("first");
    QTest::newRow("the first process") << true;
    QTest::newRow("of another user") << false;
}

/// It is none of this user's applications, of which the first twelve stand in the log.
void AudioFaultsTest::processOfSomebodyElse()
{
    QFETCH(const bool, first);
    constexpr uid_t anotherUser = 65534;
    const Idler idler(anotherUser);
    // Only root can start one of another user; everybody else has the first process for that.
    const qint64 pid = first || ::geteuid() != 0 ? 1 : idler.pid();
    AudioScene scene(server_.display(), window_->id(), audio_, audioOf(pid));
    QVERIFY2(scene.record(1000), scene.story());
    const QStringList lines = audioLines(scene.log());
    const QString refusal
        = QStringLiteral("Warning: macOS ScreenCaptureKit could not find requested app for app-only "
                         "audio pid %1 requested device \"app-pid:%1\" candidates ")
              .arg(pid);
    QVERIFY2(lines.first().startsWith(refusal), qPrintable(lines.first()));
    const int candidates = lines.first().mid(refusal.size()).toInt();
    QVERIFY(candidates >= 2); // the window and the player
    QCOMPARE(lines.size(), 2 + std::min(candidates, 12));
    for (qsizetype i = 1; i + 1 < lines.size(); ++i)
        QVERIFY2(lines[i].startsWith(candidateLine), qPrintable(lines[i]));
    QCOMPARE(lines.last(), withoutAudio);
    QVERIFY(isVideoOnly(scene.command.output));
}

/// It may make some later; until then the recording has silence.
void AudioFaultsTest::processWithoutAudio()
{
    const Idler idler(::geteuid());
    AudioScene scene(server_.display(), window_->id(), audio_, audioOf(idler.pid()));
    QVERIFY2(scene.record(3000), scene.story());
    QCOMPARE(audioLines(scene.log()).filter(QStringLiteral("Warning: ")), QStringList());
    const Heard heard(scene.command.output);
    QVERIFY(heard.durationMs() > 2500.0);
    QVERIFY(heard.rmsDb(0.0, heard.durationMs()) < -90.0);
}

/// The application that shows the window may be silent: so is the recording.
void AudioFaultsTest::windowThatPlaysNothing()
{
    AudioScene scene(server_.display(), window_->id(), audio_, audioOf(window_->pid()));
    QVERIFY2(scene.record(3000), scene.story());
    QCOMPARE(audioLines(scene.log()).filter(QStringLiteral("Warning: ")), QStringList());
    const Heard heard(scene.command.output);
    QVERIFY(heard.durationMs() > 2500.0);
    QVERIFY(heard.rmsDb(0.0, heard.durationMs()) < -90.0);
}

void AudioFaultsTest::lettersOfTheSource_data()
{
    QTest::addColumn<QString>("form");
    QTest::addColumn<bool>("ofTheProcess");
    QTest::newRow("plain") << "app-pid:%1" << true;
    QTest::newRow("blanks around") << " \tapp-pid: %1 " << true;
    QTest::newRow("capitals") << "APP-PID:%1" << false;
    QTest::newRow("another word") << "pid:%1" << false;
    QTest::newRow("nothing") << QString() << false;
}

/// What does not name a process names the display.
void AudioFaultsTest::lettersOfTheSource()
{
    QFETCH(const QString, form);
    QFETCH(const bool, ofTheProcess);
    ToneProcess other(ToneProcess::tone(QStringLiteral("other"), otherHz));
    QVERIFY2(other.isPlaying(), qPrintable(other.errorString()));
    const QString source = form.isEmpty() ? form : form.arg(player_->pid());
    AudioScene scene(server_.display(), window_->id(), audio_, source);
    QVERIFY2(scene.record(3000), scene.story());
    const Heard heard(scene.command.output);
    const double endMs = heard.durationMs() - 500.0;
    QVERIFY(std::abs(heard.levelDb(toneHz, 500.0, endMs) - playerDb) < 0.5);
    const double otherDb = heard.levelDb(otherHz, 500.0, endMs);
    QVERIFY2(ofTheProcess ? otherDb < -60.0 : std::abs(otherDb - playerDb) < 0.5, QByteArray::number(otherDb));
}

void AudioFaultsTest::noServer()
{
    RecordingScene scene(server_.display(), window_->id()); // its runtime directory has no server
    QVERIFY2(scene.startRecording() && scene.waitUntilRecorded(1000) && scene.stopAndExit(), scene.story());
    const QStringList lines = audioLines(scene.log());
    QCOMPARE(lines.size(), 2);
    QVERIFY2(
        lines[0].startsWith(QStringLiteral("Warning: macOS ScreenCaptureKit shareable content lookup failed: \"")),
        qPrintable(lines[0]));
    QCOMPARE(lines[1], withoutAudio);
    QVERIFY(isVideoOnly(scene.command.output));
}

/// The end of the audio is not the end of the recording.
void AudioFaultsTest::serverKilled()
{
    PrivateAudioServer mortal;
    QVERIFY2(mortal.isRunning(), qPrintable(mortal.errorString()));
    AudioScene scene(server_.display(), window_->id(), mortal, QString());
    QVERIFY2(scene.startRecording() && scene.waitUntilRecorded(2000), scene.story());
    mortal.killDaemon();
    QVERIFY2(scene.waitUntilRecorded(5000) && scene.stopAndExit(), scene.story());
    const QStringList warnings = audioLines(scene.log()).filter(QStringLiteral("Warning: "));
    QCOMPARE(warnings.size(), 2); // at the loss, and when the capture is stopped
    QVERIFY2(warnings[0].startsWith(QStringLiteral("Warning: macOS ScreenCaptureKit audio stream stopped: \"")),
        qPrintable(warnings[0]));
    QVERIFY2(warnings[1].startsWith(QStringLiteral("Warning: macOS ScreenCaptureKit audio capture stop error: \"")),
        qPrintable(warnings[1]));
    const Playback frames = playBack(scene.command.output);
    QVERIFY2(frames.isWhole() && frames.ptsMs.last() > 4800.0, frames.description());
    const Heard heard(scene.command.output);
    QVERIFY2(std::abs(heard.durationMs() - frames.ptsMs.last()) < 100.0, QByteArray::number(heard.durationMs()));
}

ORVANTIS_TEST(AudioFaultsTest)
#include "audiofaults_test.moc"

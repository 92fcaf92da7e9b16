// The audio server that the audio tests run on, and the player.
#include "audioanalysis.h"
#include "linux/pipewire/processtable.h"
#include "privateaudioserver.h"
#include "testregistry.h"
#include "toneprocess.h"

#include <QDir>
#include <QProcess>
#include <QTest>

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int waitLimitMs = 20'000;

bool isAlive(qint64 pid)
{
    const std::optional<processtable::Process> process = processtable::read(pid);
    return process && !process->ended; // nobody may fetch the exit code of an orphan
}

constexpr double playedDb = -12.04; // amplitude 0.25

/// A quarter of a second of what the sink's monitor hears, interleaved; waits for that much.
std::vector<float> monitorAudio(PrivateAudioServer& server, const QByteArray& sink, int channels)
{
    const QString map = channels == 6 ? QStringLiteral("front-left,front-right,front-center,lfe,side-left,side-right")
                                      : QStringLiteral("front-left,front-right");
    QProcess reader;
    reader.setProcessEnvironment(server.environment());
    reader.start(QStringLiteral("parec"),
        {QStringLiteral("--raw"), QStringLiteral("--format=float32le"), QStringLiteral("--rate=48000"),
            QStringLiteral("--latency-msec=50"), QStringLiteral("--channels=%1").arg(channels),
            QStringLiteral("--channel-map=") + map,
            QStringLiteral("--device=%1.monitor").arg(QString::fromLatin1(sink))});
    const qsizetype skipped = 7200 * 4 * channels; // until the reader is linked it hears nothing
    const qsizetype wanted = 12000 * 4 * channels;
    QByteArray bytes;
    while (bytes.size() < skipped + wanted && reader.waitForReadyRead(waitLimitMs))
        bytes += reader.readAllStandardOutput();
    reader.kill();
    reader.waitForFinished();
    const qsizetype size = std::max<qsizetype>(std::min(bytes.size() - skipped, wanted), 0);
    std::vector<float> samples(std::size_t(size) / 4);
    std::memcpy(samples.data(), bytes.constData() + skipped, samples.size() * 4);
    return samples;
}

}

class AudioServerTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void startsAndNamesTheDefaultSink();
    void playsTones_data();
    void playsTones();
    void playerKnowsItsGaps();
    void playerKeepsItsSchedule();
    void changesTheDefaultSink();
    void runsAtItsQuantum();
    void dies();
    void stopsAndContinues();
    void leavesNothingBehind();
    void endsWithItsParent();
};

void AudioServerTest::startsAndNamesTheDefaultSink()
{
    PrivateAudioServer server;
    QVERIFY2(server.isRunning(), qPrintable(server.errorString()));
    QCOMPARE(server.defaultSink(), QByteArray("first-sink"));
    QCOMPARE(server.sinkNames(), QByteArrayList{"first-sink"});
    QVERIFY(server.environmentChanges().contains(
        QStringLiteral("XDG_RUNTIME_DIR=") + server.path() + QStringLiteral("/run")));
    QVERIFY(server.environmentChanges().contains(QStringLiteral("DBUS_SESSION_BUS_ADDRESS")));
}

void AudioServerTest::playsTones_data()
{
    QTest::addColumn<int>("channels");
    QTest::addColumn<int>("rate");
    QTest::newRow("stereo") << 2 << 48000;
    QTest::newRow("surround") << 6 << 48000;
    QTest::newRow("graph of 44100") << 2 << 44100;
}

/// One player of each kind, all at once, each another tone.
void AudioServerTest::playsTones()
{
    QFETCH(int, channels);
    QFETCH(int, rate);
    AudioServerOptions options;
    options.rate = rate;
    if (channels == 6)
        options.sinks[0].positions = {"FL", "FR", "FC", "LFE", "SL", "SR"};
    PrivateAudioServer server(options);
    QVERIFY2(server.isRunning(), qPrintable(server.errorString()));
    server.apply();

    std::vector<QStringList> kinds{{QStringLiteral("--channels"), QString::number(channels)}};
    if (channels == 2)
        kinds.insert(kinds.end(),
            {{QStringLiteral("--channels"), QStringLiteral("1")}, {QStringLiteral("--format"), QStringLiteral("s16")},
                {QStringLiteral("--format"), QStringLiteral("f32p")},
                {QStringLiteral("--rate"), QStringLiteral("44100")}});
    const auto toneOf = [](std::size_t kind) { return 600.0 + 300.0 * double(kind); };
    std::vector<std::unique_ptr<ToneProcess>> players;
    for (const QStringList& kind : kinds) {
        players.push_back(
            std::make_unique<ToneProcess>(ToneProcess::tone(QStringLiteral("player"), toneOf(players.size()), kind)));
        QVERIFY2(players.back()->isPlaying(), qPrintable(players.back()->errorString()));
    }
    const std::vector<float> samples = monitorAudio(server, "first-sink", channels);
    for (int channel = 0; channel < channels; ++channel) {
        const std::vector<float> audio = audioanalysis::channelOf(samples, channels, channel);
        for (std::size_t i = 0; i < kinds.size(); ++i)
            QVERIFY(std::abs(audioanalysis::levelDb(audio, 48000, toneOf(i)) - playedDb) < 0.2);
        QVERIFY(audioanalysis::levelDb(audio, 48000, 450) < -72);
    }
    for (const auto& player : players)
        QVERIFY(player->stop());
}

/// A stopped player is what a player is that gets no processor.
void AudioServerTest::playerKnowsItsGaps()
{
    PrivateAudioServer server;
    QVERIFY2(server.isRunning(), qPrintable(server.errorString()));
    server.apply();
    ToneProcess tone(ToneProcess::tone(QStringLiteral("player"), 600));
    QVERIFY2(tone.isPlaying(), qPrintable(tone.errorString()));
    tone.pause();
    QTest::qWait(150);
    tone.resume(); // a pause is no gap
    QTest::qWait(150);
    QVERIFY(tone.gaps().empty());
    const auto nowMs = [] {
        const auto now = std::chrono::steady_clock::now().time_since_epoch();
        return std::chrono::duration<double, std::milli>(now).count();
    };
    const double stoppedMs = nowMs();
    ::kill(pid_t(tone.pid()), SIGSTOP);
    QTest::qWait(200);
    ::kill(pid_t(tone.pid()), SIGCONT);
    const double continuedMs = nowMs();
    QTRY_VERIFY_WITH_TIMEOUT(!tone.gaps().empty(), waitLimitMs);
    QVERIFY(tone.isPlaying());
    constexpr double cycleMs = 1024.0 / 48.0;
    double lengthMs = 0;
    for (const playergaps::Gap& gap : tone.gaps())
        lengthMs += gap.lengthMs;
    QVERIFY2(lengthMs >= continuedMs - stoppedMs - 3 * cycleMs, QByteArray::number(lengthMs));
    QVERIFY(tone.gaps().front().atMs >= stoppedMs - 2 * cycleMs && tone.gaps().front().atMs <= continuedMs);
}

void AudioServerTest::playerKeepsItsSchedule()
{
    PrivateAudioServer server;
    QVERIFY2(server.isRunning(), qPrintable(server.errorString()));
    server.apply();
    ToneProcess tone(
        ToneProcess::tone(QStringLiteral("player"), 600, {QStringLiteral("--schedule"), QStringLiteral("0.2,600")}));
    QVERIFY2(tone.isPlaying(), qPrintable(tone.errorString()));
    const auto peak = [&server] { return audioanalysis::peakDb(monitorAudio(server, "first-sink", 2)); };
    QTRY_COMPARE_WITH_TIMEOUT(peak(), audioanalysis::silenceDb, waitLimitMs);
    QVERIFY(tone.isPlaying());
}

void AudioServerTest::changesTheDefaultSink()
{
    AudioServerOptions options;
    options.sinks.push_back(NullSink{"second-sink"});
    PrivateAudioServer server(options);
    QVERIFY2(server.isRunning(), qPrintable(server.errorString()));
    server.apply();
    ToneProcess tone(ToneProcess::tone(QStringLiteral("player"), 600));
    QVERIFY2(tone.isPlaying(), qPrintable(tone.errorString()));

    QVERIFY(server.setDefaultSink("second-sink"));
    QCOMPARE(server.defaultSink(), QByteArray("second-sink"));
    const auto levelDb = [&server](const char* sink) {
        return audioanalysis::levelDb(audioanalysis::channelOf(monitorAudio(server, sink, 2), 2, 0), 48000, 600);
    };
    QTRY_VERIFY_WITH_TIMEOUT(std::abs(levelDb("second-sink") - playedDb) < 0.2, waitLimitMs);
    QVERIFY(levelDb("first-sink") < -72);
}

void AudioServerTest::runsAtItsQuantum()
{
    AudioServerOptions options;
    options.quantum = 4096;
    PrivateAudioServer server(options);
    QVERIFY2(server.isRunning(), qPrintable(server.errorString()));
    server.apply();
    ToneProcess tone(ToneProcess::tone(QStringLiteral("player"), 600));
    QVERIFY2(tone.isPlaying(), qPrintable(tone.errorString()));
    QTRY_COMPARE_WITH_TIMEOUT(tone.quantum(), 4096, waitLimitMs);
}

void AudioServerTest::dies()
{
    PrivateAudioServer server;
    QVERIFY2(server.isRunning(), qPrintable(server.errorString()));
    server.apply();
    ToneProcess tone(ToneProcess::tone(QStringLiteral("player"), 600));
    QVERIFY2(tone.isPlaying(), qPrintable(tone.errorString()));
    server.killDaemon();
    QVERIFY(!server.isRunning());
    QTRY_VERIFY_WITH_TIMEOUT(!tone.isPlaying(), waitLimitMs);
    QVERIFY(!tone.stop()); // it says with its exit code that it did not end by itself
}

void AudioServerTest::stopsAndContinues()
{
    PrivateAudioServer server;
    QVERIFY2(server.isRunning(), qPrintable(server.errorString()));
    server.apply();
    QProcess tool;
    server.stopDaemon();
    tool.start(QStringLiteral("pw-cli"), {QStringLiteral("info"), QStringLiteral("0")});
    QVERIFY(!tool.waitForFinished(500));
    server.continueDaemon();
    QVERIFY(tool.waitForFinished(waitLimitMs));
    QCOMPARE(tool.exitCode(), 0);
    server.stopDaemon(); // the destructor ends the stopped one, too
}

void AudioServerTest::leavesNothingBehind()
{
    auto server = std::make_unique<PrivateAudioServer>();
    QVERIFY2(server->isRunning(), qPrintable(server->errorString()));
    const QString path = server->path();
    const std::vector<qint64> processes = server->processIds();
    QCOMPARE(processes.size(), std::size_t(3));
    QVERIFY(QDir(path).exists());
    server.reset();
    QVERIFY(!QDir(path).exists());
    for (const qint64 pid : processes)
        QVERIFY(!isAlive(pid));
}

void AudioServerTest::endsWithItsParent()
{
    int ends[2] = {-1, -1};
    QCOMPARE(::pipe(ends), 0);
    const pid_t owner = ::fork();
    if (owner == 0) {
        PrivateAudioServer server;
        QByteArray message = server.path().toLocal8Bit();
        for (const qint64 pid : server.processIds())
            message += ' ' + QByteArray::number(pid);
        message += '\n';
        if (::write(ends[1], message.constData(), std::size_t(message.size())) == message.size())
            ::pause();
        ::_exit(1);
    }
    ::close(ends[1]);
    QByteArray message;
    for (char byte = 0; byte != '\n' && ::read(ends[0], &byte, 1) == 1;)
        message += byte;
    ::close(ends[0]);
    ::kill(owner, SIGKILL);
    QCOMPARE(::waitpid(owner, nullptr, 0), owner);

    QByteArrayList parts = message.trimmed().split(' ');
    const QString directory = QString::fromLocal8Bit(parts.takeFirst());
    QCOMPARE(parts.size(), 3);
    for (const QByteArray& pid : parts)
        QTRY_VERIFY_WITH_TIMEOUT(!isAlive(pid.toLongLong()), waitLimitMs);
    QVERIFY(QDir(directory).removeRecursively()); // a killed owner cannot
}

ORVANTIS_TEST(AudioServerTest)

#include "audioserver_test.moc"

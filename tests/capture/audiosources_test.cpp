// Audio of players of all kinds, alone and with everything else.
#include "audiofixture.h"
#include "testregistry.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

#include <memory>

using namespace audiotest;

namespace {

enum class Source { Display, Application };

std::unique_ptr<AudioPuller> capture(Source source, qint64 pid)
{
    return source == Source::Display ? std::make_unique<AudioPuller>()
                                     : std::make_unique<AudioPuller>(std::set<qint64>{pid});
}

/// A sine as 16-bit stereo at 48000 Hz.
bool writeWave(const QString& path, double frequency, int seconds)
{
    const int frames = 48000 * seconds;
    QByteArray samples(frames * 4, 0);
    for (int i = 0; i < frames; ++i) {
        const auto value = qint16(std::lround(8191.75 * std::sin(2 * 3.14159265358979 * frequency * i / 48000)));
        qToLittleEndian(value, samples.data() + 4 * i);
        qToLittleEndian(value, samples.data() + 4 * i + 2);
    }
    QByteArray header("RIFF????WAVEfmt \x10\0\0\0\1\0\2\0\x80\xbb\0\0\0\xee\2\0\4\0\x10\0data????", 44);
    qToLittleEndian(quint32(36 + samples.size()), header.data() + 4);
    qToLittleEndian(quint32(samples.size()), header.data() + 40);
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(header + samples) == 44 + samples.size();
}

/// The first sample that is heard, by the monotonic clock, in milliseconds.
double onsetMs(const AudioPuller& puller, std::size_t fromFrame)
{
    const std::vector<float>& audio = puller.audio();
    for (std::size_t i = 2 * fromFrame; i < audio.size(); i += 2) {
        if (std::abs(audio[i]) > 0.02F)
            return double(puller.startMs()) + double(i) / 96;
    }
    return 0;
}

/// How much later the display's audio has a player's onset than the player's own audio; far off without an onset.
double displayLatenessMs()
{
    const ToneProcess player(ToneProcess::tone(
        QStringLiteral("wanted"), tone, {QStringLiteral("--schedule"), QStringLiteral("0.2,2,600")}));
    AudioPuller ofDisplay;
    AudioPuller ofApplication(std::set<qint64>{player.pid()});
    const bool silent = ofDisplay.isCapturing() && ofApplication.isCapturing() && hearsNothing(ofDisplay);
    AudioPuller::pullBoth(ofDisplay, ofApplication, 200);
    const std::size_t silentDisplay = ofDisplay.audio().size() / 2;
    const std::size_t silentApplication = ofApplication.audio().size() / 2;
    AudioPuller::pullBoth(ofDisplay, ofApplication, 2200);
    const double display = onsetMs(ofDisplay, silentDisplay);
    const double application = onsetMs(ofApplication, silentApplication);
    return silent && display > 0 && application > 0 ? display - application : 1e6;
}

}

class AudioSourcesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();

    void displayAudio();
    void applicationAudio();
    void twoApplications();
    void playersOfAllKinds_data();
    void playersOfAllKinds();
    void everyChannelReaches_data();
    void everyChannelReaches();
    void pulseClient();
    void pausedPlayer_data();
    void pausedPlayer();
    void nobodyPlays_data();
    void nobodyPlays();
    void playerPausesAndComesBack_data();
    void playerPausesAndComesBack();
    void wantedProcessExits();
    void captureStopsAndStartsAgain();
    void bothKindsAreInTime_data();
    void bothKindsAreInTime();

private:
    std::unique_ptr<ServerForTest> server_;
};

void AudioSourcesTest::init()
{
    server_.reset();
    server_ = std::make_unique<ServerForTest>();
    QVERIFY2(server_->server.isRunning(), qPrintable(server_->server.errorString()));
}

void AudioSourcesTest::displayAudio()
{
    const ToneProcess first(ToneProcess::tone(QStringLiteral("first"), tone));
    const ToneProcess second(ToneProcess::tone(QStringLiteral("second"), otherTone));
    AudioPuller puller;
    QVERIFY2(puller.isCapturing(), qPrintable(puller.errorString()));
    for (const int channel : {0, 1}) {
        const auto bothAreHeard = [&puller, channel] {
            const std::vector<float> side = puller.listen(500, channel);
            return isFull(levelDb(side, tone)) && isFull(levelDb(side, otherTone));
        };
        QVERIFY(comesTrue(bothAreHeard));
    }
}

void AudioSourcesTest::applicationAudio()
{
    const ToneProcess unwanted(ToneProcess::tone(QStringLiteral("unwanted"), otherTone));
    const ToneProcess wanted(ToneProcess::tone(QStringLiteral("wanted"), tone));
    AudioPuller puller(std::set<qint64>{wanted.pid()});
    QVERIFY2(puller.isCapturing(), qPrintable(puller.errorString()));
    QVERIFY(hears(puller, tone));
    const std::vector<float> audio = cleanAudio(puller, 1000, tone);
    for (const int channel : {0, 1}) {
        const std::vector<float> side = audioanalysis::channelOf(audio, 2, channel);
        QVERIFY(isFull(levelDb(side, tone)));
        QVERIFY(levelDb(side, otherTone) < unheardDb);
        const auto faults = audioanalysis::toneFaults(side, 48000, tone);
        QVERIFY2(faults.empty(), qPrintable(audioanalysis::describe(faults)));
    }
    QVERIFY(
        levelDb(audioanalysis::channelOf(puller.audio(), 2, 0), otherTone) < unheardDb); // not at the start either
}

void AudioSourcesTest::twoApplications()
{
    const ToneProcess first(ToneProcess::tone(QStringLiteral("first"), tone));
    const ToneProcess second(ToneProcess::tone(QStringLiteral("second"), otherTone));
    QString error;
    const auto content = lookUpAudio(&error);
    QVERIFY2(content, qPrintable(error));
    QCOMPARE(content->displays, std::size_t(1));
    const auto firstIndex = indexOf(*content, first.pid());
    const auto secondIndex = indexOf(*content, second.pid());
    QVERIFY(firstIndex && secondIndex);
    QCOMPARE(content->applications[*firstIndex].applicationName, QStringLiteral("first"));
    QCOMPARE(content->applications[*secondIndex].applicationName, QStringLiteral("second"));

    AudioPuller ofFirst(std::set<qint64>{first.pid()});
    AudioPuller ofSecond(std::set<qint64>{second.pid()});
    QVERIFY(hears(ofFirst, tone) && hears(ofSecond, otherTone));
    QVERIFY(levelDb(ofFirst.listen(500, 1), otherTone) < unheardDb);
    QVERIFY(levelDb(ofSecond.listen(500, 1), tone) < unheardDb);
}

void AudioSourcesTest::playersOfAllKinds_data()
{
    QTest::addColumn<QStringList>("player");
    QTest::addColumn<int>("graphRate");
    const QString channels = QStringLiteral("--channels");
    const QString format = QStringLiteral("--format");
    const QString rate = QStringLiteral("--rate");
    QTest::newRow("mono") << QStringList{channels, QStringLiteral("1")} << 48000;
    QTest::newRow("44100") << QStringList{rate, QStringLiteral("44100")} << 48000;
    QTest::newRow("16 bits") << QStringList{format, QStringLiteral("s16")} << 48000;
    QTest::newRow("planar") << QStringList{format, QStringLiteral("f32p")} << 48000;
    QTest::newRow("44100 in a graph of 44100") << QStringList{rate, QStringLiteral("44100")} << 44100;
    QTest::newRow("48000 in a graph of 44100") << QStringList() << 44100;
}

void AudioSourcesTest::playersOfAllKinds()
{
    QFETCH(QStringList, player);
    QFETCH(int, graphRate);
    AudioServerOptions options;
    options.rate = graphRate;
    server_.reset();
    server_ = std::make_unique<ServerForTest>(options);
    const ToneProcess wanted(ToneProcess::tone(QStringLiteral("wanted"), tone, player));
    for (const Source source : {Source::Display, Source::Application}) {
        const auto puller = capture(source, wanted.pid());
        QVERIFY2(puller->isCapturing(), qPrintable(puller->errorString()));
        QVERIFY(hears(*puller, tone));
        const std::vector<float> audio = cleanAudio(*puller, 500, tone);
        for (const int channel : {0, 1}) {
            const std::vector<float> side = audioanalysis::channelOf(audio, 2, channel);
            const auto faults = audioanalysis::toneFaults(side, 48000, tone);
            const QString text
                = QStringLiteral("%1 dB, %2").arg(levelDb(side, tone)).arg(audioanalysis::describe(faults));
            QVERIFY2(isFull(levelDb(side, tone)) && faults.empty(), qPrintable(text));
        }
    }
}

void AudioSourcesTest::everyChannelReaches_data()
{
    QTest::addColumn<bool>("ofDisplay");
    QTest::newRow("display") << true;
    QTest::newRow("application") << false;
}

void AudioSourcesTest::everyChannelReaches()
{
    QFETCH(bool, ofDisplay);
    AudioServerOptions options;
    options.sinks[0].positions = {"FL", "FR", "FC", "LFE", "SL", "SR"};
    server_.reset();
    server_ = std::make_unique<ServerForTest>(options);
    const ToneProcess wanted(ToneProcess::tone(QStringLiteral("wanted"), tone,
        {QStringLiteral("--channels"), QStringLiteral("6"), QStringLiteral("--spread"), QStringLiteral("1"),
            QStringLiteral("--amplitude"), QStringLiteral("0.1")}));
    const auto puller = capture(ofDisplay ? Source::Display : Source::Application, wanted.pid());
    QVERIFY2(puller->isCapturing(), qPrintable(puller->errorString()));
    const std::vector<std::vector<bool>> expected{
        {true, false, true, true, true, false}, {false, true, true, true, false, true}};
    for (const int side : {0, 1}) {
        std::vector<bool> heard;
        const auto listen = [&] {
            const std::vector<float> audio = puller->listen(500, side);
            heard.clear();
            for (int i = 1; i <= 6; ++i)
                heard.push_back(std::abs(levelDb(audio, i * tone) + 20) < 0.2);
            return heard == expected[std::size_t(side)];
        };
        QVERIFY(comesTrue(listen));
        const std::vector<float> audio = puller->listen(500, side);
        for (std::size_t i = 0; i < 6; ++i)
            QVERIFY(expected[std::size_t(side)][i] || levelDb(audio, double(i + 1) * tone) < -60);
    }
}

void AudioSourcesTest::pulseClient()
{
    QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("tone.wav"));
    QVERIFY(writeWave(path, tone, 30));
    const OtherProcess player(QStringLiteral("paplay"), {path});
    const auto isListed = [&player] {
        QString error;
        const auto content = lookUpAudio(&error);
        const auto index = content ? indexOf(*content, player.pid()) : std::nullopt;
        return index && content->applications[*index].applicationName == QStringLiteral("paplay");
    };
    QTRY_VERIFY_WITH_TIMEOUT(isListed(), limitMs);
    AudioPuller ofPlayer(std::set<qint64>{player.pid()});
    QVERIFY(hears(ofPlayer, tone));
    const std::vector<qint64> daemons = server_->server.processIds();
    AudioPuller ofDaemons(std::set<qint64>(daemons.begin(), daemons.end()));
    QVERIFY2(ofDaemons.isCapturing(), qPrintable(ofDaemons.errorString()));
    QVERIFY(isSilent(ofDaemons.listen(700)));
}

void AudioSourcesTest::pausedPlayer_data()
{
    everyChannelReaches_data();
}

void AudioSourcesTest::pausedPlayer()
{
    QFETCH(bool, ofDisplay);
    const ToneProcess player(
        ToneProcess::tone(QStringLiteral("wanted"), tone, {QStringLiteral("--schedule"), QStringLiteral("0.3,600")}));
    const auto puller = capture(ofDisplay ? Source::Display : Source::Application, player.pid());
    QVERIFY2(puller->isCapturing(), qPrintable(puller->errorString()));
    QVERIFY(hearsNothing(*puller));
    QVERIFY(isSilent(puller->listen(1000)));
    QCOMPARE(puller->surplusMs(), qint64(0));
}

void AudioSourcesTest::nobodyPlays_data()
{
    everyChannelReaches_data();
}

/// The sink sleeps by then, and no clock ticks.
void AudioSourcesTest::nobodyPlays()
{
    QFETCH(bool, ofDisplay);
    const auto puller = capture(ofDisplay ? Source::Display : Source::Application, ::getpid());
    QVERIFY2(puller->isCapturing(), qPrintable(puller->errorString()));
    QVERIFY(isSilent(puller->listen(1000)));
    QCOMPARE(puller->surplusMs(), qint64(0));
    const ToneProcess player(ToneProcess::tone(QStringLiteral("wanted"), tone));
    QVERIFY(hears(*puller, tone));
}

void AudioSourcesTest::playerPausesAndComesBack_data()
{
    everyChannelReaches_data();
}

void AudioSourcesTest::playerPausesAndComesBack()
{
    QFETCH(bool, ofDisplay);
    const ToneProcess player(ToneProcess::tone(
        QStringLiteral("wanted"), tone, {QStringLiteral("--schedule"), QStringLiteral("1.5,1.5,600")}));
    const auto puller = capture(ofDisplay ? Source::Display : Source::Application, player.pid());
    QVERIFY2(puller->isCapturing(), qPrintable(puller->errorString()));
    QVERIFY(hears(*puller, tone));
    QVERIFY(hearsNothing(*puller));
    QVERIFY(hears(*puller, tone));
    QCOMPARE(puller->timesStopped(), 0);
}

void AudioSourcesTest::wantedProcessExits()
{
    ToneProcess player(ToneProcess::tone(QStringLiteral("wanted"), tone));
    AudioPuller puller(std::set<qint64>{player.pid()});
    QVERIFY(hears(puller, tone));
    QVERIFY(player.stop());
    QVERIFY(hearsNothing(puller));
    QVERIFY(isSilent(puller.listen(300)));
    QCOMPARE(puller.timesStopped(), 0);
}

void AudioSourcesTest::captureStopsAndStartsAgain()
{
    const ToneProcess player(ToneProcess::tone(QStringLiteral("wanted"), tone));
    AudioPuller puller(std::set<qint64>{player.pid()});
    QVERIFY(hears(puller, tone));
    QVERIFY(puller.stopCapture());
    const std::size_t before = puller.audio().size();
    puller.pull(200);
    QCOMPARE(puller.audio().size(), before);
    QVERIFY(puller.startCapture());
    QVERIFY(hears(puller, tone));
}

void AudioSourcesTest::bothKindsAreInTime_data()
{
    QTest::addColumn<int>("quantum");
    QTest::newRow("1024") << 1024;
    QTest::newRow("4096") << 4096;
}

/// A sink's monitor runs a cycle behind the players (21 and 85 ms); what is left is what the capture of a sink holds
/// back by itself, 8 ms and a little more where the reader's turns are late.
void AudioSourcesTest::bothKindsAreInTime()
{
    QFETCH(int, quantum);
    AudioServerOptions options;
    options.quantum = quantum;
    server_.reset();
    server_ = std::make_unique<ServerForTest>(options);
    double late = 0;
    for (int attempt = 0; attempt < 4; ++attempt) { // a busy machine drops the odd cycle, and an onset with it
        late = displayLatenessMs();
        if (late > -2 && late < 20)
            break;
    }
    QVERIFY2(late > -2 && late < 20, qPrintable(QStringLiteral("%1 ms").arg(late)));
}

ORVANTIS_TEST(AudioSourcesTest)

#include "audiosources_test.moc"

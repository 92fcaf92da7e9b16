// A sink that is heard late: captured audio lies where it is heard, and players are told what they are told without a
// capture.
#include "audiofixture.h"
#include "latencysink.h"
#include "testregistry.h"

#include <QTest>

#include <cmath>
#include <memory>
#include <numbers>
#include <vector>

using namespace audiotest;

namespace {

const QStringList beat{QStringLiteral("--beat"), QStringLiteral("1")};

std::unique_ptr<AudioPuller> capture(bool ofDisplay, qint64 pid)
{
    return ofDisplay ? std::make_unique<AudioPuller>() : std::make_unique<AudioPuller>(std::set<qint64>{pid});
}

/// How much later than the beginning of a second of the monotonic clock each beat is heard. Milliseconds, within half
/// a second; from a frame of the audio on.
std::vector<double> beatsMs(const AudioPuller& puller, std::size_t fromFrame)
{
    const std::vector<float>& audio = puller.audio();
    constexpr std::size_t pause = 48 * 50; // frames of silence before a beat
    std::vector<double> beats;
    std::size_t silent = 0;
    for (std::size_t i = fromFrame; i < audio.size() / 2; ++i) {
        const bool heard = std::abs(audio[2 * i]) > 0.02F;
        if (heard && silent >= pause)
            beats.push_back(std::remainder(double(puller.startMs()) + double(i) / 48, 1000.0));
        silent = heard ? 0 : silent + 1;
    }
    return beats;
}

/// The audio of a sink is late by this, in milliseconds: what its capture holds back, and more where the reader's
/// turns are late.
bool isNear(double foundMs, int latencyMs, bool ofDisplay)
{
    const double late = foundMs - latencyMs;
    return ofDisplay ? late > 6 && late < 20 : std::abs(late) < 4;
}

/// Listens until the last beat is where it belongs.
bool beatComesTo(AudioPuller& puller, int latencyMs, bool ofDisplay)
{
    const std::size_t before = puller.audio().size() / 2;
    for (int waitedMs = 0; waitedMs < limitMs; waitedMs += 200) {
        puller.pull(200);
        const std::vector<double> beats = beatsMs(puller, before);
        if (!beats.empty() && isNear(beats.back(), latencyMs, ofDisplay))
            return true;
    }
    qWarning() << "wanted a beat at" << latencyMs << "ms, heard them at" << beatsMs(puller, before);
    return false;
}

/// Whether beats lie where they belong, and did not only come there in the course of time. A beat during which sinks
/// come or go does not count.
bool beatIsAt(AudioPuller& puller, int latencyMs, bool ofDisplay)
{
    puller.pull(1200 + latencyMs);
    const std::size_t before = puller.audio().size() / 2;
    puller.pull(1400);
    const std::vector<double> beats = beatsMs(puller, before);
    if (!beats.empty() && isNear(beats.front(), latencyMs, ofDisplay))
        return true;
    qWarning() << "wanted beats at" << latencyMs << "ms, heard them at" << beats;
    return false;
}

/// Whether beats come there, and nowhere else, in the end.
bool beatsComeTo(AudioPuller& puller, const std::vector<int>& latenciesMs, bool ofDisplay)
{
    std::vector<double> beats;
    for (int waitedMs = 0; waitedMs < limitMs; waitedMs += 1500) {
        const std::size_t before = puller.audio().size() / 2;
        puller.pull(1500);
        beats = beatsMs(puller, before);
        const auto isBeatAt = [&](int latencyMs) {
            return std::any_of(
                beats.begin(), beats.end(), [&](double at) { return isNear(at, latencyMs, ofDisplay); });
        };
        const auto isExpected = [&](double at) {
            return std::any_of(latenciesMs.begin(), latenciesMs.end(),
                [&](int latencyMs) { return isNear(at, latencyMs, ofDisplay); });
        };
        if (std::all_of(latenciesMs.begin(), latenciesMs.end(), isBeatAt)
            && std::all_of(beats.begin(), beats.end(), isExpected))
            return true;
    }
    qWarning() << "wanted beats at" << latenciesMs << "ms, heard them at" << beats;
    return false;
}

QStringList playingTo(const char* sink, const QStringList& more)
{
    return QStringList{QStringLiteral("--target"), QString::fromLatin1(sink)} + more;
}

double largestStep(const std::vector<float>& audio)
{
    double largest = 0;
    for (std::size_t i = 1; i < audio.size(); ++i)
        largest = std::max(largest, std::abs(double(audio[i]) - double(audio[i - 1])));
    return largest;
}

/// Waits until the player is told that.
bool isTold(ToneProcess& player, int latencyMs)
{
    return QTest::qWaitFor(
        [&] { return !player.latencies().empty() && player.latencies().back() == latencyMs; }, limitMs);
}

QByteArray text(const std::vector<int>& values)
{
    QByteArray joined;
    for (const int value : values)
        joined += QByteArray::number(value) + ' ';
    return joined;
}

}

class AudioLatencyTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();

    void audioLiesWhereItIsHeard_data();
    void audioLiesWhereItIsHeard();
    void changeLeavesNothingElse_data();
    void changeLeavesNothingElse();
    void playersAreToldTheSame_data();
    void playersAreToldTheSame();
    void playerThatStartsLaterIsToldTheSame();
    void recordersDoNotHoldEachOther();
    void headphonesComeAndGo_data();
    void headphonesComeAndGo();
    void eachSinkHasItsLatency_data();
    void eachSinkHasItsLatency();
    void othersHaveNoGapWhenPlayersComeAndGo();

private:
    /// Leaves in faults what is wrong with a steady tone while the latency goes up and down.
    void listenToChanges(bool ofDisplay, std::vector<audioanalysis::ToneFault>& faults);

    std::unique_ptr<ServerForTest> server_;
    std::unique_ptr<LatencySink> sink_;
};

void AudioLatencyTest::init()
{
    sink_.reset();
    server_.reset();
    server_ = std::make_unique<ServerForTest>();
    QVERIFY2(server_->server.isRunning(), qPrintable(server_->server.errorString()));
    sink_ = std::make_unique<LatencySink>(server_->server, 0);
    QVERIFY2(sink_->errorString().isEmpty(), qPrintable(sink_->errorString()));
}

void AudioLatencyTest::audioLiesWhereItIsHeard_data()
{
    QTest::addColumn<bool>("ofDisplay");
    QTest::newRow("application") << false;
    QTest::newRow("display") << true;
}

/// From the start on, and when it changes in mid-capture.
void AudioLatencyTest::audioLiesWhereItIsHeard()
{
    QFETCH(const bool, ofDisplay);
    QVERIFY(sink_->setLatency(200));
    ToneProcess player(ToneProcess::tone(QStringLiteral("player"), tone, beat));
    QVERIFY(isTold(player, 200));
    const auto puller = capture(ofDisplay, player.pid());
    QVERIFY2(puller->isCapturing(), qPrintable(puller->errorString()));
    for (const int latencyMs : {200, 400, 0}) {
        QVERIFY(sink_->setLatency(latencyMs));
        QVERIFY(beatComesTo(*puller, latencyMs, ofDisplay));
        QCOMPARE(puller->surplusMs(), qint64(0)); // nothing of later times has been delivered
    }
}

void AudioLatencyTest::changeLeavesNothingElse_data()
{
    audioLiesWhereItIsHeard_data();
}

void AudioLatencyTest::listenToChanges(bool ofDisplay, std::vector<audioanalysis::ToneFault>& faults)
{
    ToneProcess player(ToneProcess::tone(QStringLiteral("player"), tone));
    const auto puller = capture(ofDisplay, player.pid());
    QVERIFY2(puller->isCapturing(), qPrintable(puller->errorString()));
    QVERIFY(hears({puller.get()}, tone));
    const std::size_t begin = puller->audio().size();
    puller->pull(500);
    QVERIFY(sink_->setLatency(200));
    puller->pull(1000);
    QVERIFY(sink_->setLatency(0));
    puller->pull(1000);
    const std::vector<float> all(puller->audio().begin() + std::ptrdiff_t(begin), puller->audio().end());
    const std::vector<float> audio = audioanalysis::channelOf(all, 2, 0);
    faults = playergaps::unexplained(
        audioanalysis::toneFaults(audio, 48000, tone), player.gaps(), double(puller->startMs()) + double(begin) / 96);
    // No click, which would show even where it is not louder than what plays.
    const double toneStep = std::pow(10, playedDb / 20) * 2 * std::numbers::pi * tone / 48000;
    if (player.gaps().empty())
        QVERIFY2(largestStep(audio) < 1.3 * toneStep, QByteArray::number(largestStep(audio) / toneStep));
}

/// 200 ms of silence where it rises, and a seam where it falls.
void AudioLatencyTest::changeLeavesNothingElse()
{
    QFETCH(const bool, ofDisplay);
    std::vector<audioanalysis::ToneFault> faults;
    listenToChanges(ofDisplay, faults);
    if (QTest::currentTestFailed())
        return;
    const bool isRight
        = faults.size() == 2 && faults[0].toMs - faults[0].fromMs < 260 && faults[1].toMs - faults[1].fromMs < 60;
    QVERIFY2(isRight, qPrintable(audioanalysis::describe(faults)));
}

void AudioLatencyTest::playersAreToldTheSame_data()
{
    audioLiesWhereItIsHeard_data();
}

/// Before, during and after a capture.
void AudioLatencyTest::playersAreToldTheSame()
{
    QFETCH(const bool, ofDisplay);
    QVERIFY(sink_->setLatency(200));
    ToneProcess player(ToneProcess::tone(QStringLiteral("player"), tone));
    QVERIFY(isTold(player, 200));
    const std::size_t before = player.latencies().size();
    {
        const auto puller = capture(ofDisplay, player.pid());
        QVERIFY(hears({puller.get()}, tone));
        puller->pull(300);
        QVERIFY2(player.latencies().size() == before, text(player.latencies()));
        for (const int latencyMs : {50, 400}) {
            QVERIFY(sink_->setLatency(latencyMs));
            QVERIFY2(isTold(player, latencyMs), text(player.latencies()));
            puller->pull(300);
            QCOMPARE(player.latencies().back(), latencyMs);
        }
        QVERIFY(puller->stopCapture());
        QCOMPARE(player.latencies().back(), 400);
    }
    QTest::qWait(300);
    QVERIFY2(player.latencies().back() == 400, text(player.latencies()));
}

void AudioLatencyTest::playerThatStartsLaterIsToldTheSame()
{
    QVERIFY(sink_->setLatency(200));
    const OtherProcess wanted;
    AudioPuller puller(std::set<qint64>{wanted.pid()});
    QVERIFY2(puller.isCapturing(), qPrintable(puller.errorString()));
    ToneProcess player(ToneProcess::tone(QStringLiteral("later"), tone));
    QVERIFY(hears({&puller}, tone));
    QVERIFY2(isTold(player, 200), text(player.latencies()));
    for (const int latency : player.latencies())
        QVERIFY2(latency == 0 || latency == 200, text(player.latencies())); // 0: not linked yet
}

void AudioLatencyTest::recordersDoNotHoldEachOther()
{
    QVERIFY(sink_->setLatency(200));
    ToneProcess player(ToneProcess::tone(QStringLiteral("player"), tone));
    const AudioPuller first(std::set<qint64>{player.pid()});
    AudioPuller second(std::set<qint64>{player.pid()});
    QVERIFY(hears({&second}, tone));
    QVERIFY2(isTold(player, 200), text(player.latencies()));
    QVERIFY(sink_->setLatency(0));
    QVERIFY2(isTold(player, 0), text(player.latencies()));
}

void AudioLatencyTest::headphonesComeAndGo_data()
{
    audioLiesWhereItIsHeard_data();
}

/// Another sink becomes the default, players move to it, and it disappears. The latencies differ so little that time
/// stamps could be that wrong.
void AudioLatencyTest::headphonesComeAndGo()
{
    QFETCH(const bool, ofDisplay);
    ToneProcess player(ToneProcess::tone(QStringLiteral("player"), tone, beat));
    const auto puller = capture(ofDisplay, player.pid());
    QVERIFY(beatComesTo(*puller, 0, ofDisplay));
    {
        const LatencySink headphones(server_->server, 11, "headphones");
        QVERIFY2(headphones.errorString().isEmpty(), qPrintable(headphones.errorString()));
        QVERIFY2(isTold(player, 11), text(player.latencies()));
        QVERIFY(beatIsAt(*puller, 11, ofDisplay));
    }
    QVERIFY2(isTold(player, 0), text(player.latencies()));
    QVERIFY(beatIsAt(*puller, 0, ofDisplay));
    QCOMPARE(puller->surplusMs(), qint64(0));
}

void AudioLatencyTest::eachSinkHasItsLatency_data()
{
    audioLiesWhereItIsHeard_data();
}

/// Players of two sinks: each is told its own sink's latency, before, during and after a capture, and lies where it
/// is heard. The audio of the display is that of the second one, which is the default.
void AudioLatencyTest::eachSinkHasItsLatency()
{
    QFETCH(const bool, ofDisplay);
    LatencySink headphones(server_->server, 200, "headphones");
    QVERIFY2(headphones.errorString().isEmpty(), qPrintable(headphones.errorString()));
    ToneProcess first(ToneProcess::tone(QStringLiteral("first"), tone, playingTo("latency-sink", beat)));
    ToneProcess second(ToneProcess::tone(QStringLiteral("second"), otherTone, playingTo("headphones", beat)));
    QVERIFY(isTold(second, 200));
    const std::vector<int> toldFirst = first.latencies();
    const std::vector<int> toldSecond = second.latencies();
    QVERIFY2(toldFirst == std::vector<int>{0} || toldFirst.empty(), text(toldFirst));
    {
        const auto puller = ofDisplay ? std::make_unique<AudioPuller>()
                                      : std::make_unique<AudioPuller>(std::set<qint64>{first.pid(), second.pid()});
        QVERIFY2(puller->isCapturing(), qPrintable(puller->errorString()));
        QVERIFY(beatsComeTo(*puller, ofDisplay ? std::vector{200} : std::vector{0, 200}, ofDisplay));
        QVERIFY2(second.latencies() == toldSecond, text(second.latencies()));
        QVERIFY(headphones.setLatency(400));
        QVERIFY(isTold(second, 400));
        QVERIFY(beatsComeTo(*puller, ofDisplay ? std::vector{400} : std::vector{0, 400}, ofDisplay));
        QCOMPARE(puller->surplusMs(), qint64(0));
    }
    QTest::qWait(300);
    QVERIFY2(first.latencies() == toldFirst, text(first.latencies()));
    // Until the recorder has followed the sink, the server may tell the middle of both.
    std::vector<int> change = second.latencies();
    change.erase(change.begin(), change.begin() + std::ptrdiff_t(toldSecond.size()));
    QVERIFY2((change == std::vector{400} || change == std::vector{300, 400}), text(second.latencies()));
}

/// A player to another sink takes another stream of the recorder's.
void AudioLatencyTest::othersHaveNoGapWhenPlayersComeAndGo()
{
    const LatencySink headphones(server_->server, 200, "headphones");
    QVERIFY2(headphones.errorString().isEmpty(), qPrintable(headphones.errorString()));
    ToneProcess player(ToneProcess::tone(QStringLiteral("player"), tone, playingTo("latency-sink", {})));
    AudioPuller puller(std::set<qint64>{player.pid()});
    QVERIFY(hears({&puller}, tone));
    const std::size_t begin = puller.audio().size();
    for (int i = 0; i < 3; ++i) {
        ToneProcess silent(ToneProcess::tone(QStringLiteral("silent"), otherTone,
            playingTo("headphones", {QStringLiteral("--amplitude"), QStringLiteral("0")})));
        QVERIFY(isTold(silent, 200));
        puller.pull(400);
        QVERIFY2(silent.latencies().back() == 200, text(silent.latencies()));
        QVERIFY(silent.stop());
        puller.pull(300);
    }
    const AudioPuller::Piece piece{{puller.audio().begin() + std::ptrdiff_t(begin), puller.audio().end()},
        double(puller.startMs()) + double(begin) / 96};
    QCOMPARE(faultsOf(piece, tone, player), QString());
    QCOMPARE(player.latencies().back(), 0);
}

ORVANTIS_TEST(AudioLatencyTest)

#include "audiolatency_test.moc"

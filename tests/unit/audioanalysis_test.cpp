// The analysis of audio: it finds what was put into a signal and nothing else, also after AAC.
#include "audioanalysis.h"
#include "clipwriter.h"
#include "mediafile.h"
#include "privatetempdir.h"
#include "testregistry.h"

#include <QTest>

#include <algorithm>
#include <cmath>
#include <functional>
#include <numbers>

using namespace audioanalysis;

namespace {

constexpr int rate = 48000;
constexpr double toneHz = 441.7;
constexpr float quarter = 0.25f;

using Audio = std::vector<float>;

/// The frequency may wander by so many millionths up and down, once in ten seconds.
Audio tone(double seconds, double frequency = toneHz, double amplitude = 0.25, double wanderPpm = 0.0)
{
    Audio audio;
    double turns = 0.0;
    for (int i = 0; i < int(seconds * rate); ++i) {
        audio.push_back(float(amplitude * std::sin(2.0 * std::numbers::pi * turns)));
        const double wander = wanderPpm * 1e-6 * std::sin(2.0 * std::numbers::pi * i / (10.0 * rate));
        turns += frequency * (1.0 + wander) / rate;
    }
    return audio;
}

Audio withBeeps(double seconds, const std::vector<double>& onsetsMs, const Beep& beep)
{
    Audio audio(std::size_t(seconds * rate));
    for (const double onsetMs : onsetsMs) {
        for (std::size_t i = 0; i < audio.size(); ++i)
            audio[i] += quarter * float(beepSample(beep, double(i) * 1000.0 / rate - onsetMs));
    }
    return audio;
}

/// Through an AAC encoder at 128 kbit/s and back, as a recording's audio; what the encoder put before it is cut off.
Audio throughAac(const Audio& audio)
{
    const PrivateTempDir directory;
    const QString path = directory.filePath(QStringLiteral("audio.mp4"));
    ClipOptions options;
    options.withAudio = true;
    QImage frame(320, 240, QImage::Format_RGB32);
    frame.fill(Qt::black);
    ClipWriter clip(path, frame.size(), options);
    if (!clip.add(frame, 0) || !clip.addAudio(audio) || !clip.finish())
        return {};
    MediaFile written(path);
    const std::optional<MediaAudio> read = written.audio();
    const QList<MediaFrame> frames = written.frames();
    if (!read || read->sampleRate != rate || read->channels.size() != 2 || frames.size() != 1)
        return {};
    const auto lead = std::ptrdiff_t(std::lround((frames.first().ptsMs - read->startMs) * rate / 1000.0));
    return {read->channels[0].begin() + lead, read->channels[0].end()};
}

/// An edit of a tone: what happens at a sample.
using Edit = std::function<void(Audio&, std::ptrdiff_t at)>;

Edit without(std::ptrdiff_t samples)
{
    return
        [samples](Audio& audio, std::ptrdiff_t at) { audio.erase(audio.begin() + at, audio.begin() + at + samples); };
}

Edit twice(std::ptrdiff_t samples)
{
    return [samples](Audio& audio, std::ptrdiff_t at) {
        const Audio part(audio.begin() + at, audio.begin() + at + samples);
        audio.insert(audio.begin() + at, part.begin(), part.end());
    };
}

Edit silent(std::ptrdiff_t samples)
{
    return [samples](Audio& audio, std::ptrdiff_t at) { std::fill_n(audio.begin() + at, samples, 0.0f); };
}

Edit inserted(std::ptrdiff_t zeros)
{
    return [zeros](Audio& audio, std::ptrdiff_t at) { audio.insert(audio.begin() + at, std::size_t(zeros), 0.0f); };
}

Edit raised(std::ptrdiff_t samples, float by)
{
    return [samples, by](Audio& audio, std::ptrdiff_t at) {
        for (std::ptrdiff_t i = at; i < at + samples; ++i)
            audio[std::size_t(i)] += by;
    };
}

Edit scaled(std::ptrdiff_t samples, float by)
{
    return [samples, by](Audio& audio, std::ptrdiff_t at) {
        std::for_each(audio.begin() + at, audio.begin() + at + samples, [by](float& sample) { sample *= by; });
    };
}

}

class AudioAnalysisTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void levels();
    void levelsOfSilence();
    void usualLevels();
    void toneBesideAnother();
    void zeroRuns_data();
    void zeroRuns();
    void parts();
    void conversions();

    void beepOnsets_data();
    void beepOnsets();
    void beepsThatAreNone();

    void cleanTone_data();
    void cleanTone();
    void faultyTone_data();
    void faultyTone();
    void faultsKeepTheirPlaces();
    void noTone();
};

void AudioAnalysisTest::levels()
{
    for (const double amplitude : {1.0, 0.25, 0.001}) {
        const Audio audio = tone(0.5, toneHz, amplitude);
        const double expectedDb = 20.0 * std::log10(amplitude);
        QVERIFY(std::abs(levelDb(audio, rate, toneHz) - expectedDb) < 0.01);
        QVERIFY(std::abs(rmsDb(audio) - (expectedDb - 3.01)) < 0.02);
        QVERIFY(std::abs(peakDb(audio) - expectedDb) < 0.01);
    }
}

void AudioAnalysisTest::levelsOfSilence()
{
    for (const Audio& audio : {Audio(), Audio(4800)}) {
        QCOMPARE(levelDb(audio, rate, toneHz), silenceDb);
        QCOMPARE(rmsDb(audio), silenceDb);
        QCOMPARE(peakDb(audio), silenceDb);
    }
}

/// A loud tone does not hide that another one is missing.
/// A few holes do not make a tone quieter; being quieter does.
void AudioAnalysisTest::usualLevels()
{
    Audio audio = tone(2.0);
    const double full = levelDb(audio, rate, toneHz);
    QVERIFY(std::abs(usualLevelDb(audio, rate, toneHz) - full) < 0.01);
    for (const double holeMs : {300.0, 1100.0, 1555.0})
        std::fill_n(audio.begin() + std::ptrdiff_t(holeMs * rate / 1000.0), rate / 10, 0.0f);
    QVERIFY(levelDb(audio, rate, toneHz) < full - 0.5);
    QVERIFY(std::abs(usualLevelDb(audio, rate, toneHz) - full) < 0.01);
    QVERIFY(std::abs(usualLevelDb(tone(2.0, toneHz, 0.125), rate, toneHz) - (full - 6.02)) < 0.01);
    QVERIFY(usualLevelDb(audio, rate, 880.0) < -80.0);
    QCOMPARE(usualLevelDb(Audio(48000), rate, toneHz), silenceDb);
    QCOMPARE(usualLevelDb(tone(0.05), rate, toneHz), silenceDb); // too short to tell
}

void AudioAnalysisTest::toneBesideAnother()
{
    Audio audio = tone(1.0, 440.0, 0.5);
    QVERIFY(levelDb(audio, rate, 880.0) < -110.0);
    const Audio faint = tone(1.0, 880.0, 0.0005);
    for (std::size_t i = 0; i < audio.size(); ++i)
        audio[i] += faint[i];
    QVERIFY(std::abs(levelDb(audio, rate, 880.0) - 20.0 * std::log10(0.0005)) < 0.1);
}

void AudioAnalysisTest::zeroRuns_data()
{
    QTest::addColumn<Audio>("audio");
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("length");
    QTest::newRow("no sample") << Audio() << 0 << 0;
    QTest::newRow("no zero") << Audio{0.1f, -0.1f} << 0 << 0;
    QTest::newRow("all zeros") << Audio(7) << 0 << 7;
    QTest::newRow("at the end") << Audio{0.0f, 1e-9f, 0.0f, 0.0f} << 2 << 2;
    QTest::newRow("the first of two") << Audio{1.0f, 0.0f, 0.0f, 1.0f, 0.0f, 0.0f} << 1 << 2;
    QTest::newRow("negative zero") << Audio{1.0f, -0.0f, 0.0f, 1.0f} << 1 << 2;
}

void AudioAnalysisTest::zeroRuns()
{
    QFETCH(const Audio, audio);
    QFETCH(const int, first);
    QFETCH(const int, length);
    const Run run = longestZeroRun(audio);
    QCOMPARE(int(run.first), first);
    QCOMPARE(int(run.length), length);
}

void AudioAnalysisTest::parts()
{
    const Audio audio = tone(1.0);
    const Samples part = between(audio, rate, 250.0, 500.0);
    QCOMPARE(part.data(), audio.data() + 12000);
    QCOMPARE(part.size(), std::size_t(12000));
    QCOMPARE(between(audio, rate, -5.0, 1e9).size(), audio.size());
    QVERIFY(between(audio, rate, 500.0, 250.0).empty());
    QVERIFY(between(audio, rate, 2000.0, 3000.0).empty());
}

void AudioAnalysisTest::conversions()
{
    const std::vector<qint16> integers{0, 16384, -32768, 32767};
    QCOMPARE(fromInt16(integers), (Audio{0.0f, 0.5f, -1.0f, 32767.0f / 32768.0f}));
    QCOMPARE(channelOf(Audio{1, 2, 3, 4, 5, 6}, 2, 1), (Audio{2, 4, 6}));
    QCOMPARE(channelOf(Audio{1, 2, 3, 4, 5, 6}, 3, 0), (Audio{1, 4}));
}

void AudioAnalysisTest::beepOnsets_data()
{
    QTest::addColumn<double>("frequency");
    QTest::addColumn<bool>("encoded");
    QTest::addColumn<double>("toleranceMs");
    QTest::newRow("1 kHz") << 1000.0 << false << 0.05;
    QTest::newRow("1.7 kHz") << 1700.0 << false << 0.05;
    QTest::newRow("1 kHz after AAC") << 1000.0 << true << 0.3;
    QTest::newRow("1.7 kHz after AAC") << 1700.0 << true << 0.3;
}

/// Forty beeps, at every place within an encoder's block of 21.3 ms and between two samples.
void AudioAnalysisTest::beepOnsets()
{
    QFETCH(const double, frequency);
    QFETCH(const bool, encoded);
    QFETCH(const double, toleranceMs);
    Beep beep;
    beep.frequency = frequency;
    std::vector<double> expected;
    for (int i = 0; i < 40; ++i)
        expected.push_back(200.0 + i * 251.377);
    const Audio plain = withBeeps(10.5, expected, beep);
    const std::vector<double> found = beepOnsetsMs(encoded ? throughAac(plain) : plain, rate, beep);
    QCOMPARE(found.size(), expected.size());
    double worstMs = 0.0;
    for (std::size_t i = 0; i < found.size(); ++i)
        worstMs = std::max(worstMs, std::abs(found[i] - expected[i]));
    qInfo("worst error %.4f ms", worstMs);
    QVERIFY2(worstMs <= toleranceMs, qPrintable(QString::number(worstMs)));
}

void AudioAnalysisTest::beepsThatAreNone()
{
    const Beep beep;
    QVERIFY(beepOnsetsMs({}, rate, beep).empty());
    QVERIFY(beepOnsetsMs(Audio(rate), rate, beep).empty());
    // A tone that never starts, or only once and does not end.
    QVERIFY(beepOnsetsMs(tone(1.0, beep.frequency), rate, beep).empty());
    Audio late = tone(1.0, beep.frequency);
    std::fill_n(late.begin(), rate / 2, 0.0f);
    QVERIFY(beepOnsetsMs(late, rate, beep).empty());
    // Cut off by the start and by the end of the samples; too short; too long; too faint.
    Beep brief = beep;
    brief.lengthMs = 20.0;
    Beep lengthy = beep;
    lengthy.lengthMs = 100.0;
    Audio audio = withBeeps(3.0, {-30.0, 500.0, 2970.0}, beep);
    const Audio briefly = withBeeps(3.0, {1000.0}, brief);
    const Audio lengthily = withBeeps(3.0, {1500.0}, lengthy);
    const Audio faintly = withBeeps(3.0, {2000.0}, beep);
    for (std::size_t i = 0; i < audio.size(); ++i)
        audio[i] += briefly[i] + lengthily[i] + 0.1f * faintly[i];
    const std::vector<double> found = beepOnsetsMs(audio, rate, beep);
    QCOMPARE(found.size(), std::size_t(1));
    QVERIFY(std::abs(found[0] - 500.0) < 0.05);
}

void AudioAnalysisTest::cleanTone_data()
{
    QTest::addColumn<double>("frequency");
    QTest::addColumn<double>("wanderPpm");
    QTest::addColumn<bool>("encoded");
    for (const bool encoded : {false, true}) {
        const char* const suffix = encoded ? " after AAC" : "";
        QTest::addRow("441.7 Hz%s", suffix) << toneHz << 0.0 << encoded;
        QTest::addRow("997 Hz%s", suffix) << 997.0 << 0.0 << encoded;
        QTest::addRow("441.7 Hz that wanders%s", suffix) << toneHz << 300.0 << encoded;
    }
}

void AudioAnalysisTest::cleanTone()
{
    QFETCH(const double, frequency);
    QFETCH(const double, wanderPpm);
    QFETCH(const bool, encoded);
    Audio audio = tone(10.0, frequency, 0.25, wanderPpm); // a whole turn of the wandering
    if (encoded) {
        audio = throughAac(audio);
        QVERIFY(!audio.empty());
    }
    // The encoder starts and ends with silence.
    const std::vector<ToneFault> faults = toneFaults(between(audio, rate, 100.0, 9900.0), rate, frequency);
    QVERIFY2(faults.empty(), qPrintable(describe(faults)));
}

void AudioAnalysisTest::faultyTone_data()
{
    QTest::addColumn<Edit>("edit");
    QTest::newRow("two samples missing") << without(2);
    QTest::newRow("1 ms missing") << without(48);
    QTest::newRow("1 ms twice") << twice(48);
    QTest::newRow("1 ms of silence in place of audio") << silent(48);
    QTest::newRow("1 ms of silence put in") << inserted(48);
    QTest::newRow("10 ms missing") << without(480);
    QTest::newRow("10 ms twice") << twice(480);
    QTest::newRow("64 samples missing") << without(64);
    QTest::newRow("512 samples twice") << twice(512);
    QTest::newRow("1024 samples missing") << without(1024);
    QTest::newRow("1024 samples twice") << twice(1024);
    QTest::newRow("4096 samples twice") << twice(4096);
    QTest::newRow("1024 samples of silence") << silent(1024);
    QTest::newRow("a second of silence") << silent(rate);
    QTest::newRow("silence of a period's length") << silent(109);
    QTest::newRow("click of a sample") << raised(1, quarter);
    QTest::newRow("click of a quarter of a millisecond") << raised(12, quarter / 4);
    QTest::newRow("half as loud for 0.2 s") << scaled(9600, 0.5f);
    QTest::newRow("a fifth louder for 0.2 s") << scaled(9600, 1.2f);
    QTest::newRow("fades over a period's length") << scaled(109, 0.8f);
}

/// At three phases of the tone, and once with an encoder behind it.
void AudioAnalysisTest::faultyTone()
{
    QFETCH(const Edit, edit);
    const Audio clean = tone(3.0);
    for (int i = 0; i < 3; ++i) {
        const std::ptrdiff_t at = rate + i * 36;
        Audio audio = clean;
        edit(audio, at);
        for (const Audio& heard : i == 0 ? std::vector<Audio>{audio, throughAac(audio)} : std::vector<Audio>{audio}) {
            const std::vector<ToneFault> faults
                = toneFaults(between(heard, rate, 100.0, double(heard.size()) * 1000.0 / rate - 100.0), rate, toneHz);
            const double madeAtMs = double(at) * 1000.0 / rate - 100.0;
            const QByteArray text = QStringLiteral("%1; made at %2 ms").arg(describe(faults)).arg(madeAtMs).toUtf8();
            QVERIFY2(faults.size() == 1 || (heard != audio && !faults.empty()), text);
            // What is there twice is at fault where its second copy begins.
            const double growthMs = std::max(double(audio.size()) - double(clean.size()), 0.0) * 1000.0 / rate;
            QVERIFY2(faults.front().fromMs > madeAtMs - 25.0, text);
            QVERIFY2(faults.front().fromMs < madeAtMs + growthMs + 25.0, text);
        }
    }
}

void AudioAnalysisTest::faultsKeepTheirPlaces()
{
    Audio audio = tone(10.0);
    for (const int second : {8, 5, 2})
        without(48)(audio, second * rate);
    const std::vector<ToneFault> faults = toneFaults(throughAac(audio), rate, toneHz);
    int inside = 0;
    for (const ToneFault& fault : faults) {
        if (fault.fromMs < 100.0 || fault.fromMs > 9900.0)
            continue; // the encoder starts and ends with silence
        const double madeAtMs = 2000.0 + 3000.0 * inside++;
        QVERIFY2(std::abs(fault.fromMs - madeAtMs) < 25.0 && std::abs(fault.toMs - madeAtMs) < 25.0,
            qPrintable(describe(faults)));
    }
    QCOMPARE(inside, 3);
}

void AudioAnalysisTest::noTone()
{
    QCOMPARE(toneFaults({}, rate, toneHz).size(), std::size_t(1));
    const std::vector<ToneFault> silence = toneFaults(Audio(rate), rate, toneHz);
    QCOMPARE(silence.size(), std::size_t(1));
    QCOMPARE(silence[0].toMs, 1000.0);
    QVERIFY(!toneFaults(tone(1.0, 500.0), rate, toneHz).empty());
}

ORVANTIS_TEST(AudioAnalysisTest)
#include "audioanalysis_test.moc"

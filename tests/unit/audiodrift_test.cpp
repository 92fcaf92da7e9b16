// Audio at a slightly different speed, and the choice of the speed.
#include "audiodrift.h"
#include "testregistry.h"

#include <QTest>

#include <cmath>
#include <numbers>
#include <random>
#include <vector>

namespace {

using Samples = std::vector<float>;

constexpr double amplitude = 0.5;

/// Left a sine of this frequency (hertz), right its cosine.
Samples tone(double frequency, qint64 frames)
{
    Samples samples;
    for (qint64 i = 0; i < frames; ++i) {
        const double phase = 2 * std::numbers::pi * frequency * double(i) / 48000;
        samples.push_back(float(amplitude * std::sin(phase)));
        samples.push_back(float(amplitude * std::cos(phase)));
    }
    return samples;
}

Samples stretched(const Samples& input, size_t blockFrames, double step)
{
    VariableResampler stretch;
    Samples output;
    for (size_t i = 0; i < input.size(); i += blockFrames * 2)
        stretch.process(std::span(input).subspan(i, std::min(blockFrames * 2, input.size() - i)), step, output);
    stretch.flush(output);
    return output;
}

/// How far three neighbours, at most, are from lying on a sine of that frequency; in parts of the amplitude.
double impurity(const Samples& samples, double frequency, size_t firstFrame, size_t lastFrame)
{
    const double turn = 2 * std::cos(2 * std::numbers::pi * frequency / 48000);
    double worst = 0;
    for (size_t i = firstFrame + 1; i < lastFrame; ++i) {
        for (size_t channel = 0; channel < 2; ++channel) {
            const double neighbours = double(samples[2 * i - 2 + channel]) + double(samples[2 * i + 2 + channel]);
            worst = std::max(worst, std::abs(neighbours - turn * double(samples[2 * i + channel])));
        }
    }
    return worst / amplitude;
}

}

class AudioDriftTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void speedOfOneKeepsEveryBit_data();
    void speedOfOneKeepsEveryBit();
    void otherSpeedsKeepTheAudio_data();
    void otherSpeedsKeepTheAudio();
    void changesOfSpeedMakeNoClick();
    void returnsToTheSamplesThemselves();
    void tellsHowMuchIsHeld();

    void exactClockIsLeftAlone();
    void driftIsHeldNearZero_data();
    void driftIsHeldNearZero();
    void correctionEndsWithTheError();
    void correctionIsInaudible();
};

void AudioDriftTest::speedOfOneKeepsEveryBit_data()
{
    QTest::addColumn<int>("blockFrames");
    for (const int frames : {1, 7, 64, 1024})
        QTest::addRow("%d", frames) << frames;
}

void AudioDriftTest::speedOfOneKeepsEveryBit()
{
    QFETCH(int, blockFrames);
    const Samples input = tone(997, 5000);
    QCOMPARE(stretched(input, size_t(blockFrames), 1), input);
}

void AudioDriftTest::otherSpeedsKeepTheAudio_data()
{
    QTest::addColumn<double>("frequency");
    QTest::addColumn<double>("step");
    QTest::addColumn<double>("most");
    for (const double step : {1 - 3e-4, 1 + 3e-4, 1 + 1e-3}) {
        QTest::addRow("997 Hz, %.4f", step) << 997.0 << step << 1e-4;
        QTest::addRow("10 kHz, %.4f", step) << 10000.0 << step << 2e-3;
    }
}

void AudioDriftTest::otherSpeedsKeepTheAudio()
{
    QFETCH(double, frequency);
    QFETCH(double, step);
    QFETCH(double, most);
    const Samples output = stretched(tone(frequency, 96000), 1024, step);
    const auto frames = double(output.size() / 2);
    QVERIFY2(std::abs(frames - 96000 / step) <= 1, qPrintable(QString::number(frames)));
    const double found = impurity(output, frequency * step, 100, output.size() / 2 - 100);
    QVERIFY2(found <= most, qPrintable(QString::number(found)));
}

void AudioDriftTest::changesOfSpeedMakeNoClick()
{
    const Samples input = tone(997, 96000);
    VariableResampler stretch;
    Samples output;
    size_t block = 0;
    for (const double step : {1.0, 1 + 1e-3, 1 - 1e-3, 1.0, 1 + 3e-4, 1.0, 1.0, 1.0}) {
        stretch.process(std::span(input).subspan(block * 24000, 24000), step, output);
        ++block;
    }
    stretch.flush(output);
    // A jump by a tenth of a frame would be 1e-2.
    const double found = impurity(output, 997, 100, output.size() / 2 - 100);
    QVERIFY2(found <= 5e-4, qPrintable(QString::number(found)));
}

void AudioDriftTest::returnsToTheSamplesThemselves()
{
    Samples input; // numbers that float holds exactly
    for (int i = 0; i < 48000; ++i)
        input.insert(input.end(), 2, float(i));
    VariableResampler stretch;
    Samples output;
    const auto part = [&](size_t from, size_t to) { return std::span(input).subspan(from * 2, (to - from) * 2); };
    stretch.process(part(0, 12400), 1 + 1e-4, output); // now about a quarter of a frame off
    stretch.process(part(12400, 36000), 1, output);
    output.clear();
    stretch.process(part(36000, 48000), 1, output);
    QVERIFY(output.size() > 20000);
    for (size_t i = 2; i < output.size(); i += 2)
        QCOMPARE(output[i], output[i - 2] + 1);
    QCOMPARE(output[0], std::floor(output[0]));
}

void AudioDriftTest::tellsHowMuchIsHeld()
{
    for (const double step : {1.0, 1 + 1e-3, 1 - 1e-3}) {
        VariableResampler stretch;
        Samples output;
        QCOMPARE(stretch.heldFrames(), 0.0);
        stretch.process(tone(440, 10000), step, output);
        const double made = double(output.size() / 2) * step + stretch.heldFrames();
        QVERIFY2(std::abs(made - 10000) < 1e-6, qPrintable(QString::number(made)));
        stretch.reset();
        QCOMPARE(stretch.heldFrames(), 0.0);
    }
}

void AudioDriftTest::exactClockIsLeftAlone()
{
    DriftController control;
    std::mt19937 random(3);
    std::uniform_real_distribution<double> jitterMs(-5, 5);
    const double blockMs = 1024.0 / 48;
    for (double time = 0; time < 600000; time += blockMs)
        QCOMPARE(control.step(jitterMs(random), blockMs), 1.0);
}

void AudioDriftTest::driftIsHeldNearZero_data()
{
    QTest::addColumn<double>("partsPerMillion");
    QTest::addColumn<double>("blockMs");
    for (const double blockMs : {1.0, 21.3, 170.0}) {
        for (const double drift : {-300.0, -30.0, 30.0, 300.0})
            QTest::addRow("%.0f ppm, blocks of %.1f ms", drift, blockMs) << drift << blockMs;
    }
}

void AudioDriftTest::driftIsHeldNearZero()
{
    QFETCH(double, partsPerMillion);
    QFETCH(double, blockMs);
    DriftController control;
    double errorMs = 0;
    double worst = 0;
    for (double time = 0; time < 600000; time += blockMs) {
        const double step = control.step(errorMs, blockMs);
        errorMs += blockMs * (partsPerMillion * 1e-6 - (1 / step - 1));
        worst = std::max(worst, std::abs(errorMs));
    }
    QVERIFY2(worst > 1.5 && worst <= 3, qPrintable(QString::number(worst)));
    QVERIFY2(std::abs(errorMs) <= 1.6, qPrintable(QString::number(errorMs)));
}

void AudioDriftTest::correctionEndsWithTheError()
{
    DriftController control;
    const double blockMs = 20;
    double errorMs = 10; // once
    int blocks = 0;
    bool corrected = false;
    for (; blocks < 10000; ++blocks) {
        const double step = control.step(errorMs, blockMs);
        errorMs -= blockMs * (1 / step - 1);
        corrected = corrected || step != 1;
        if (corrected && step == 1)
            break;
    }
    QVERIFY(corrected);
    QVERIFY2(blocks < 10000, qPrintable(QString::number(errorMs)));
    QVERIFY2(std::abs(errorMs) < 0.5, qPrintable(QString::number(errorMs)));
}

void AudioDriftTest::correctionIsInaudible()
{
    DriftController control;
    for (int block = 0; block < 1000; ++block) {
        const double step = control.step(block % 2 == 0 ? 1e6 : 0.0, 20);
        QVERIFY2(std::abs(1 / step - 1) <= 1.001e-3, qPrintable(QString::number(step)));
    }
}

ORVANTIS_TEST(AudioDriftTest)
#include "audiodrift_test.moc"

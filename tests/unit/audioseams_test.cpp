// Where audio ends or other audio begins: by its time, and without a click.
#include "testregistry.h"
#include "timelinetest.h"

#include <QTest>

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

using namespace timelinetest;

namespace {

constexpr double toneAmplitude = 0.25;
constexpr double toneStep = toneAmplitude * 2 * 3.14159265358979 * 441.7 / 48000; ///< at most, from frame to frame

/// A steady tone that is always there.
Samples tone(qint64 first, qint64 frames)
{
    Samples samples;
    for (qint64 i = first; i < first + frames; ++i) {
        const auto value = float(toneAmplitude * std::sin(toneStep / toneAmplitude * double(i)));
        samples.push_back(value);
        samples.push_back(-value);
    }
    return samples;
}

/// The source plays the tone; it is heard so many frames later.
void appendTone(AudioTimeline& timeline, qint64 first, qint64 last, qint64 latency = 0)
{
    for (qint64 frame = first; frame < last; frame += 480)
        timeline.append({atFrame(frame + latency), atFrame(frame)}, tone(frame, std::min<qint64>(480, last - frame)));
}

}

class AudioSeamsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void blockThatContinuesNothingIsPlacedByItsTime_data();
    void blockThatContinuesNothingIsPlacedByItsTime();
    void seamsMakeNoClick_data();
    void seamsMakeNoClick();
    void nothingButSeamsIsChanged();
    void holdsWhatIsHeardLater();
    void latencyThatRisesAndFalls();
};

void AudioSeamsTest::blockThatContinuesNothingIsPlacedByItsTime_data()
{
    QTest::addColumn<int>("errorMs");
    QTest::newRow("later") << 11;
    QTest::newRow("earlier") << -11;
    QTest::newRow("at the same time") << 0;
}

/// However close that is.
void AudioSeamsTest::blockThatContinuesNothingIsPlacedByItsTime()
{
    QFETCH(int, errorMs);
    AudioTimeline timeline = started();
    append(timeline, 0, 4800);
    const qint64 begin = 4800 + 48 * errorMs;
    timeline.append({atFrame(begin), atFrame(4800), true}, numbered(100'001, 4800));
    const std::vector<qint64> heard = left(timeline.deliver(startMs + 180));
    QCOMPARE(heard.size(), std::size_t(180 * 48));
    QVERIFY(std::equal(heard.begin(), heard.begin() + 4800, range(1, 4800).begin()));
    const qint64 exact = std::max<qint64>(begin, 4800) + seamFrames;
    const std::vector<qint64> rest(heard.begin() + exact, heard.end());
    QCOMPARE(rest, range(100'001 + exact - begin, qint64(rest.size())));
}

void AudioSeamsTest::seamsMakeNoClick_data()
{
    QTest::addColumn<std::function<void(AudioTimeline&, Samples&)>>("play");
    using Play = std::function<void(AudioTimeline&, Samples&)>;
    const auto take = [](AudioTimeline& timeline, Samples& audio, qint64 ms, bool last = false) {
        if (const auto delivered = timeline.deliver(startMs + ms, last))
            audio.insert(audio.end(), delivered->begin(), delivered->end());
    };
    for (const int latencyMs : {1, 4, 15, 100, -1, -4, -15, -100}) {
        QTest::addRow("latency changes by %d ms", latencyMs) << Play([=](AudioTimeline& timeline, Samples& audio) {
            appendTone(timeline, 0, 9640);
            timeline.append({atFrame(9640 + latencyMs * 48), atFrame(9640), true}, tone(9640, 440));
            appendTone(timeline, 10080, 19200, latencyMs * 48);
            take(timeline, audio, 290);
        });
        QTest::addRow("latency changes by %d ms, all has been taken", latencyMs)
            << Play([=](AudioTimeline& timeline, Samples& audio) {
                   appendTone(timeline, 0, 9640);
                   take(timeline, audio, 200);
                   timeline.append({atFrame(9640 + latencyMs * 48), atFrame(9640), true}, tone(9640, 440));
                   appendTone(timeline, 10080, 19200, latencyMs * 48);
                   take(timeline, audio, 290);
               });
    }
    QTest::newRow("nothing comes, and then it goes on") << Play([=](AudioTimeline& timeline, Samples& audio) {
        appendTone(timeline, 0, 9640);
        take(timeline, audio, 200);
        take(timeline, audio, 600);
        take(timeline, audio, 605);
        appendTone(timeline, 28000, 38400);
        take(timeline, audio, 790);
    });
    QTest::newRow("runs that are shorter than a seam") << Play([=](AudioTimeline& timeline, Samples& audio) {
        appendTone(timeline, 0, 4840);
        for (qint64 frame = 4840; frame < 9600; frame += 100)
            timeline.append({atFrame(frame + frame % 7), atFrame(frame), true}, tone(2 * frame, 100));
        timeline.append({atFrame(9650), atFrame(9650), true}, tone(9650, 430));
        appendTone(timeline, 10080, 19200);
        take(timeline, audio, 390);
    });
    QTest::newRow("begins in the middle") << Play([=](AudioTimeline& timeline, Samples& audio) {
        appendTone(timeline, 1000, 9640);
        take(timeline, audio, 190);
    });
    QTest::newRow("ends in the middle") << Play([=](AudioTimeline& timeline, Samples& audio) {
        appendTone(timeline, 0, 9640);
        take(timeline, audio, 300, true);
    });
    QTest::newRow("the reader is helped") << Play([=](AudioTimeline& timeline, Samples& audio) {
        for (qint64 ms = 20; ms <= 2000; ms += 20) {
            timeline.append({(startMs + ms - 20) * nsPerMs, (startMs + ms + 1) * nsPerMs}, tone((ms - 20) * 48, 960));
            take(timeline, audio, ms + 11);
        }
    });
}

/// Wherever audio ends and other audio begins: no step that the tone itself does not make.
void AudioSeamsTest::seamsMakeNoClick()
{
    using Play = std::function<void(AudioTimeline&, Samples&)>;
    QFETCH(Play, play);
    AudioTimeline timeline = started();
    Samples audio;
    play(timeline, audio);
    QVERIFY(audio.size() > 2 * 48 * 150);
    double largest = 0;
    double peak = 0;
    for (size_t i = 2; i < audio.size(); ++i) {
        largest = std::max(largest, std::abs(double(audio[i]) - double(audio[i - 2])));
        peak = std::max(peak, std::abs(double(audio[i])));
    }
    QVERIFY2(largest < 1.3 * toneStep, qPrintable(QString::number(largest / toneStep)));
    QVERIFY(peak < 1.001 * toneAmplitude);
}

/// Bit for bit.
void AudioSeamsTest::nothingButSeamsIsChanged()
{
    AudioTimeline timeline = started();
    appendTone(timeline, 0, 9600);
    appendTone(timeline, 9600, 19200, 4800); // 4800 frames of silence
    appendTone(timeline, 19200, 28800);
    const auto audio = timeline.deliver(startMs + 590);
    QVERIFY(audio);
    const auto lies = [&audio](qint64 at, qint64 frames, const Samples& expected) {
        return std::equal(expected.begin(), expected.begin() + frames * 2, audio->begin() + at * 2);
    };
    QVERIFY(lies(0, 9600, tone(0, 9600)));
    QVERIFY(lies(9600 + seamFrames, 4800 - seamFrames, Samples(9600)));
    QVERIFY(lies(14400 + seamFrames, 9600 - seamFrames, tone(9600 + seamFrames, 9600)));
    QVERIFY(lies(24000 + seamFrames, 4000 - seamFrames, tone(24000 + seamFrames, 4800)));
}

/// Audio that is heard 200 ms after it became known; the last 200 ms are not heard any more.
void AudioSeamsTest::holdsWhatIsHeardLater()
{
    AudioTimeline timeline = started();
    for (qint64 frame = 0; frame < 48 * quantum; frame += quantum)
        timeline.append({atFrame(frame + 200 * 48), atFrame(frame)}, numbered(frame + 1, quantum));
    QCOMPARE(left(timeline.deliver(startMs + 199)), std::vector<qint64>(199 * 48, 0));
    const auto expected = joined(std::vector<qint64>(48, 0), range(1, 10 * 48));
    QCOMPARE(differenceButSeams(left(timeline.deliver(startMs + 210)), expected, {48}), QString());
    QCOMPARE(left(timeline.deliver(startMs + 1000, true)), range(10 * 48 + 1, 790 * 48));
}

/// Silence as long as what it rises by; what it falls by is left out.
void AudioSeamsTest::latencyThatRisesAndFalls()
{
    AudioTimeline timeline = started();
    constexpr qint64 rise = 100 * 48;
    const auto appendAll = [&timeline](qint64 first, qint64 last, qint64 latency) {
        for (qint64 frame = first; frame < last; frame += 480)
            timeline.append({atFrame(frame + latency), atFrame(frame)}, numbered(frame + 1, 480));
    };
    appendAll(0, 9600, 0);
    appendAll(9600, 19200, rise);
    appendAll(19200, 28800, 0);
    const std::vector<qint64> heard = left(timeline.deliver(startMs + 599)); // the resampler holds a few frames
    std::vector<qint64> expected = joined(range(1, 9600), std::vector<qint64>(rise, 0));
    expected = joined(expected, range(9601, 9600));
    expected = joined(expected, range(19201 + rise, 9600 - rise - 48));
    QCOMPARE(differenceButSeams(heard, expected, {9600, 9600 + rise, 19200 + rise}), QString());
}

ORVANTIS_TEST(AudioSeamsTest)
#include "audioseams_test.moc"

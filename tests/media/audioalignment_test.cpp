// Where captured audio belongs on the recording clock: the arithmetic, row by row, and over an hour.
#include "audioalignment.h"
#include "testregistry.h"

#include <QTest>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <limits>
#include <vector>

using namespace audioalignment;

namespace {

constexpr qint64 int32Max = 2147483647;
constexpr qint64 int64Max = std::numeric_limits<qint64>::max();

/// What the encoding does with one batch, in numbers alone.
struct Queue {
    explicit Queue(int sampleRate) : rate(sampleRate) { }

    void pad(qint64 elapsedMs)
    {
        const qint64 missing = std::max<qint64>(missingSamples(elapsedMs, present, rate), 0);
        padded += missing;
        present += missing;
    }

    /// One chunk that ends now.
    void take(qint64 elapsedMs, qint64 chunkMs, int converted)
    {
        const qint64 start = batchStartMs(elapsedMs, chunkMs);
        pad(start);
        const Part part = usedPart(start, converted, present, rate);
        dropped += part.drop;
        cut += converted - part.drop - part.keep;
        present += part.keep;
        pad(elapsedMs);
    }

    int rate;
    qint64 present = 0;
    qint64 padded = 0;
    qint64 dropped = 0;
    qint64 cut = 0;
};

}

class AudioAlignmentTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void conversions_data();
    void conversions();
    void batchStart_data();
    void batchStart();
    void missing_data();
    void missing();
    void sampleCounts_data();
    void sampleCounts();
    void grownSizes_data();
    void grownSizes();
    void parts_data();
    void parts();
    void partsNeverOverlapNorRunAhead();
    void peaks_data();
    void peaks();
    void hourOfExactChunks_data();
    void hourOfExactChunks();
    void hourAtTheReadersPace();
    void hourOfRatesThatDoNotDivide();
};

void AudioAlignmentTest::conversions_data()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<qint64>("ms");
    QTest::addColumn<qint64>("samples"); // of that time
    QTest::addColumn<qint64>("back"); // the time of one sample more than that
    const auto row = [](int rate, qint64 ms, qint64 samples, qint64 back) {
        QTest::addRow("%lld ms at %d", ms, rate) << rate << ms << samples << back;
    };
    row(48000, 0, 0, 0);
    row(48000, 1, 48, 1);
    row(48000, 10, 480, 10);
    row(48000, -249, -11952, -249);
    row(48000, 86400000, 4147200000, 86400000); // a day
    row(44100, 1, 44, 1); // of 44.1
    row(44100, 5, 221, 5); // of 220.5: halves go up
    row(44100, -5, -221, -5); // or down
    row(44100, 10, 441, 10);
    row(32000, 10, 320, 10);
    row(22050, 1, 22, 1); // of 22.05
    row(22050, 10, 221, 10); // of 220.5
    row(8000, 1, 8, 1);
}

void AudioAlignmentTest::conversions()
{
    QFETCH(const int, rate);
    QFETCH(const qint64, ms);
    QFETCH(const qint64, samples);
    QCOMPARE(samplesFromMs(ms, rate), samples);
    QTEST(msFromSamples(samples + 1, rate), "back");
    QCOMPARE(msFromSamples(512, 48000), 11); // 10.67
    QCOMPARE(msFromSamples(24, 48000), 1); // a half
    QCOMPARE(msFromSamples(23, 48000), 0);
    QCOMPARE(msFromSamples(-24, 48000), -1);
}

void AudioAlignmentTest::batchStart_data()
{
    QTest::addColumn<qint64>("elapsed");
    QTest::addColumn<qint64>("length");
    QTest::addColumn<qint64>("start");
    QTest::newRow("nothing") << qint64(0) << qint64(0) << qint64(0);
    QTest::newRow("ends now") << qint64(1000) << qint64(10) << qint64(990);
    QTest::newRow("exactly as long as the recording") << qint64(300) << qint64(300) << qint64(0);
    QTest::newRow("longer than the recording") << qint64(299) << qint64(300) << qint64(0);
    QTest::newRow("clock below zero") << qint64(-5) << qint64(10) << qint64(0);
    QTest::newRow("a day") << qint64(86400000) << qint64(20) << qint64(86399980);
}

void AudioAlignmentTest::batchStart()
{
    QFETCH(const qint64, elapsed);
    QFETCH(const qint64, length);
    QTEST(batchStartMs(elapsed, length), "start");
}

void AudioAlignmentTest::missing_data()
{
    QTest::addColumn<qint64>("elapsed");
    QTest::addColumn<qint64>("present");
    QTest::addColumn<int>("rate");
    QTest::addColumn<qint64>("missing");
    QTest::newRow("clock at zero") << qint64(0) << qint64(0) << 48000 << qint64(0);
    QTest::newRow("clock below zero") << qint64(-10) << qint64(0) << 48000 << qint64(0);
    QTest::newRow("first millisecond") << qint64(1) << qint64(0) << 48000 << qint64(48);
    QTest::newRow("a gap") << qint64(100) << qint64(4000) << 48000 << qint64(800);
    QTest::newRow("one sample") << qint64(100) << qint64(4799) << 48000 << qint64(1);
    QTest::newRow("level") << qint64(100) << qint64(4800) << 48000 << qint64(0);
    QTest::newRow("ahead") << qint64(100) << qint64(4801) << 48000 << qint64(-1);
    QTest::newRow("rounded at 44100") << qint64(5) << qint64(0) << 44100 << qint64(221);
    QTest::newRow("largest that fits") << qint64(44739243) << qint64(17) << 48000 << int32Max;
    QTest::newRow("one more") << qint64(44739243) << qint64(16) << 48000 << int32Max + 1;
}

void AudioAlignmentTest::missing()
{
    QFETCH(const qint64, elapsed);
    QFETCH(const qint64, present);
    QFETCH(const int, rate);
    QTEST(missingSamples(elapsed, present, rate), "missing");
}

void AudioAlignmentTest::sampleCounts_data()
{
    QTest::addColumn<qint64>("samples");
    QTest::addColumn<bool>("fits");
    QTest::newRow("one") << qint64(1) << true;
    QTest::newRow("largest") << int32Max << true;
    QTest::newRow("one more") << int32Max + 1 << false;
    QTest::newRow("as large as can be") << int64Max << false;
}

void AudioAlignmentTest::sampleCounts()
{
    QFETCH(const qint64, samples);
    QFETCH(const bool, fits);
    const std::optional<int> count = asSampleCount(samples);
    QCOMPARE(count.has_value(), fits);
    if (fits)
        QCOMPARE(qint64(*count), samples);
}

void AudioAlignmentTest::grownSizes_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("added");
    QTest::addColumn<int>("grown");
    const int largest = int(int32Max);
    QTest::newRow("empty") << 0 << 480 << 480;
    QTest::newRow("some") << 1000 << 480 << 1480;
    QTest::newRow("just fits") << largest - 480 << 480 << largest;
    QTest::newRow("one too many") << largest - 479 << 480 << largest;
    QTest::newRow("both large") << largest << largest << largest;
}

void AudioAlignmentTest::grownSizes()
{
    QFETCH(const int, size);
    QFETCH(const int, added);
    QTEST(grownSize(size, added), "grown");
}

void AudioAlignmentTest::parts_data()
{
    QTest::addColumn<qint64>("start"); // ms
    QTest::addColumn<int>("converted");
    QTest::addColumn<qint64>("present");
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("drop");
    QTest::addColumn<int>("keep");
    const auto row = [](const char* name, qint64 start, int converted, qint64 present, int rate, int drop, int keep) {
        QTest::newRow(name) << start << converted << present << rate << drop << keep;
    };
    row("level", 100, 480, 4800, 48000, 0, 480);
    row("behind: padding comes before", 100, 480, 4000, 48000, 0, 480);
    row("one sample overlaps", 100, 480, 4801, 48000, 1, 479);
    row("half overlaps", 100, 480, 5040, 48000, 240, 240);
    row("all but one overlaps", 100, 480, 5279, 48000, 479, 1);
    row("all overlaps", 100, 480, 5280, 48000, 480, 0);
    row("overlaps by more than its length", 100, 480, 9000, 48000, 480, 0);
    row("at the origin", 0, 480, 0, 48000, 0, 480);
    row("at the origin, overlapping", 0, 480, 100, 48000, 100, 380);
    row("first millisecond", 1, 480, 48, 48000, 0, 480);
    row("overlap rounds at 44100", 5, 441, 222, 44100, 1, 440);
    row("at 32000", 100, 320, 3300, 32000, 100, 220);
    row("at 22050", 10, 220, 221, 22050, 0, 220);

    // The limit is that of the chunk's end. Converted samples last at most their rounded length, so it cuts only
    // when the audio that is there reaches beyond it, and then the overlap has taken everything already.
    row("far ahead", 100, 480, 200000, 48000, 480, 0);
    row("a chunk of a minute", 0, 2880000, 0, 48000, 0, 2880000);

    // Starts below zero: the front counts as the origin, the end as it is.
    row("end just after the limit's own zero", -259, 480, 0, 48000, 0, 48); // ends at -249: 1 ms is left
    row("end at the limit's zero", -260, 480, 0, 48000, 0, 0); // ends at -250
    row("end far below", -5000, 480, 0, 48000, 0, 0);
    row("below zero with overlap", -255, 480, 100, 48000, 100, 140); // ends at -245: 240 samples
    row("largest chunk", 0, int(int32Max), 0, 48000, 0, int(int32Max));
    row("present as large as can be", 0, 480, int64Max - 480, 48000, 480, 0);
}

void AudioAlignmentTest::parts()
{
    QFETCH(const qint64, start);
    QFETCH(const int, converted);
    QFETCH(const qint64, present);
    QFETCH(const int, rate);
    const Part part = usedPart(start, converted, present, rate);
    QTEST(part.drop, "drop");
    QTEST(part.keep, "keep");
}

/// Whatever the numbers: nothing overlaps, nothing lies beyond the limit, and the part lies within the chunk.
void AudioAlignmentTest::partsNeverOverlapNorRunAhead()
{
    quint32 state = 1;
    const auto next = [&](int bound) {
        state = state * 1664525u + 1013904223u;
        return int((state >> 8) % quint32(bound));
    };
    constexpr std::array rates{48000, 44100, 32000, 22050, 8000};
    for (int i = 0; i < 200000; ++i) {
        const int rate = rates[std::size_t(next(int(rates.size())))];
        const qint64 start = next(3000) - 600;
        const int converted = 1 + next(rate);
        const qint64 present = next(4 * rate);
        const Part part = usedPart(start, converted, present, rate);
        QVERIFY(part.drop >= 0 && part.keep >= 0 && part.drop + part.keep <= converted);
        const qint64 chunkAt = start > 0 ? samplesFromMs(start, rate) : 0;
        if (part.keep > 0)
            QVERIFY(chunkAt + part.drop >= present);
        const qint64 limit = samplesFromMs(start + msFromSamples(converted, rate) + lookaheadMs, rate);
        QVERIFY(part.keep == 0 || present + part.keep <= limit);
        // Nothing is left out without need.
        QVERIFY(part.drop == 0 || chunkAt + part.drop <= present);
        QVERIFY(part.drop + part.keep == converted || present + part.keep >= limit);
    }
}

void AudioAlignmentTest::peaks_data()
{
    QTest::addColumn<std::vector<qint16>>("samples");
    QTest::addColumn<int>("highest");
    QTest::newRow("nothing") << std::vector<qint16>() << 0;
    QTest::newRow("silence") << std::vector<qint16>{0, 0} << 0;
    QTest::newRow("left") << std::vector<qint16>{300, 5, -299, 7} << 300;
    QTest::newRow("right, below zero") << std::vector<qint16>{300, -1000, 299, 7} << 1000;
    QTest::newRow("highest") << std::vector<qint16>{0, 32767} << 32767;
    QTest::newRow("lowest but one") << std::vector<qint16>{-32767, 0} << 32767;
    QTest::newRow("lowest") << std::vector<qint16>{0, -32768} << 32767;
    QTest::newRow("last sample") << std::vector<qint16>{1, 2, 3, 4} << 4;
}

void AudioAlignmentTest::peaks()
{
    QFETCH(const std::vector<qint16>, samples);
    const QByteArrayView pcm(reinterpret_cast<const char*>(samples.data()), qsizetype(samples.size() * 2));
    QTEST(peak(pcm), "highest");
    const QByteArray halfSample = pcm.toByteArray() + char(0x7f);
    QTEST(peak(halfSample), "highest");
}

void AudioAlignmentTest::hourOfExactChunks_data()
{
    QTest::addColumn<int>("rate");
    for (const int rate : {48000, 44100, 32000})
        QTest::addRow("%d", rate) << rate;
}

/// A chunk of 10 ms every 10 ms: neither a sample of silence nor one cut, and it ends where the clock is.
void AudioAlignmentTest::hourOfExactChunks()
{
    QFETCH(const int, rate);
    Queue queue(rate);
    for (qint64 elapsed = 10; elapsed <= 3600000; elapsed += 10) {
        queue.take(elapsed, 10, rate / 100);
        QCOMPARE(queue.present, elapsed * rate / 1000);
    }
    QCOMPARE(queue.padded, 0);
    QCOMPARE(queue.dropped, 0);
    QCOMPARE(queue.cut, 0);
}

/// Audio that the reader's clock meters out is continuous, however irregular the reader is.
void AudioAlignmentTest::hourAtTheReadersPace()
{
    Queue queue(48000);
    quint32 state = 7;
    qint64 before = 0;
    while (before < 3600000) {
        state = state * 1664525u + 1013904223u;
        const qint64 now = before + 1 + ((state >> 8) % 60);
        queue.take(now, now - before, int(now - before) * 48);
        QCOMPARE(queue.present, now * 48);
        before = now;
    }
    QCOMPARE(queue.padded, 0);
    QCOMPARE(queue.dropped, 0);
    QCOMPARE(queue.cut, 0);
}

/// Where a millisecond is no whole number of samples, the end never strays from the clock by more than a sample.
void AudioAlignmentTest::hourOfRatesThatDoNotDivide()
{
    Queue queue(22050);
    for (qint64 elapsed = 10; elapsed <= 3600000; elapsed += 10) {
        const qint64 end = elapsed * 22050 / 1000;
        const qint64 begin = (elapsed - 10) * 22050 / 1000;
        queue.take(elapsed, 10, int(end - begin));
        QVERIFY(std::abs(queue.present - samplesFromMs(elapsed, 22050)) <= 1);
    }
    QVERIFY(queue.padded + queue.dropped <= 3600000 / 10);
    QCOMPARE(queue.cut, 0);
}

ORVANTIS_TEST(AudioAlignmentTest)
#include "audioalignment_test.moc"

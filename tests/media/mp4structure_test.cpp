// How the MP4 file is built: header, a fragment a second, index.
#include "idlerecorder.h"
#include "mediafile.h"
#include "mp4boxes.h"
#include "testregistry.h"

#include <QFileInfo>
#include <QTest>

#include <algorithm>
#include <iterator>

namespace {

/// The muxer counts in sixteenths of a millisecond.
constexpr qint64 ticksPerMs = 16;

QList<Mp4Box> fragmentsOf(const QList<Mp4Box>& boxes)
{
    QList<Mp4Box> fragments;
    std::copy_if(boxes.cbegin(), boxes.cend(), std::back_inserter(fragments),
        [](const Mp4Box& box) { return box.type == "moof"; });
    return fragments;
}

/// The time at which a fragment's first frame is shown, in milliseconds.
qint64 startMs(const Mp4Box& fragment)
{
    const Mp4Box* const time = mp4boxes::find(fragment.children, "traf/tfdt");
    const bool wide = time && mp4boxes::number32(*time, 0) >> 24 == 1;
    if (!time)
        return -1;
    return qint64(wide ? mp4boxes::number64(*time, 4) : mp4boxes::number32(*time, 4)) / ticksPerMs;
}

QList<qint64> startsMs(const QString& path)
{
    QList<qint64> starts;
    for (const Mp4Box& fragment : fragmentsOf(mp4boxes::parseFile(path)))
        starts.append(startMs(fragment));
    return starts;
}

QList<qint64> keyTimesMs(MediaFile& file)
{
    QList<qint64> times;
    for (const MediaPacket& packet : file.packets()) {
        if (packet.key)
            times.append(qint64(packet.ptsMs));
    }
    return times;
}

}

class Mp4StructureTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void colourBoxStatesTheColours();
    void decoderSetupIsInTheHeader();
    void boxesAreHeaderFragmentsAndIndex();
    void indexPointsAtEveryFragment();
    void keyFrameEverySecond();
    void fragmentASecond();
    void fragmentASecondWithFewFrames();
    void fragmentAtEveryNewScene();
};

void Mp4StructureTest::colourBoxStatesTheColours()
{
    IdleRecorder recorder;
    QVERIFY(recorder.record({0}));
    const QList<Mp4Box> boxes = mp4boxes::parseFile(recorder->outputPath());
    const Mp4Box* const colour = mp4boxes::find(boxes, "moov/trak/mdia/minf/stbl/stsd/mp4v/colr");
    QVERIFY(colour);
    // Primaries BT.709 (1), transfer sRGB (13), matrix SMPTE 170M (6), limited range (0).
    QCOMPARE(colour->content,
        QByteArray("nclx")
            + QByteArray::fromHex("0001"
                                  "000d"
                                  "0006"
                                  "00"));
}

void Mp4StructureTest::decoderSetupIsInTheHeader()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    const AVCodecContext* const encoder = recorder->videoCodecContext();
    QVERIFY(encoder->extradata_size > 0);
    const QByteArray setup(reinterpret_cast<const char*>(encoder->extradata), encoder->extradata_size);
    QVERIFY(recorder.finish());
    const QList<Mp4Box> boxes = mp4boxes::parseFile(recorder->outputPath());
    const Mp4Box* const descriptor = mp4boxes::find(boxes, "moov/trak/mdia/minf/stbl/stsd/mp4v/esds");
    QVERIFY(descriptor);
    QVERIFY(descriptor->content.contains(setup));
}

void Mp4StructureTest::boxesAreHeaderFragmentsAndIndex()
{
    IdleRecorder recorder;
    QVERIFY(recorder.record(IdleRecorder::steadyTimes(60)));
    const QList<Mp4Box> boxes = mp4boxes::parseFile(recorder->outputPath());
    QCOMPARE(mp4boxes::types(boxes),
        (QList<QByteArray>{"ftyp", "moov", "moof", "mdat", "moof", "mdat", "moof", "mdat", "mfra"}));
    QCOMPARE(boxes.constLast().end(), QFileInfo(recorder->outputPath()).size());
    for (const Mp4Box& box : boxes)
        QVERIFY2(box.whole, box.type.constData());
    QVERIFY(mp4boxes::find(boxes, "moov/mvex/trex"));
    // The header holds no frames: their count in the sample table is 0.
    const Mp4Box* const sampleSizes = mp4boxes::find(boxes, "moov/trak/mdia/minf/stbl/stsz");
    QVERIFY(sampleSizes);
    QCOMPARE(mp4boxes::number32(*sampleSizes, 8), 0u);
    // Positions count from the fragment itself (the flag 0x020000), so that a fragment stands alone.
    for (const Mp4Box& fragment : fragmentsOf(boxes)) {
        const Mp4Box* const header = mp4boxes::find(fragment.children, "traf/tfhd");
        QVERIFY(header);
        QCOMPARE(mp4boxes::number32(*header, 0) & 0x020001u, 0x020000u);
    }
}

void Mp4StructureTest::indexPointsAtEveryFragment()
{
    IdleRecorder recorder;
    QVERIFY(recorder.record(IdleRecorder::steadyTimes(60)));
    const QList<Mp4Box> boxes = mp4boxes::parseFile(recorder->outputPath());
    const Mp4Box* const index = mp4boxes::find(boxes, "mfra/tfra");
    QVERIFY(index);
    const QList<Mp4Box> fragments = fragmentsOf(boxes);
    QCOMPARE(mp4boxes::number32(*index, 0) >> 24, 1u); // 64-bit times and positions
    QCOMPARE(qsizetype(mp4boxes::number32(*index, 12)), fragments.size());
    constexpr qsizetype entrySize = 8 + 8 + 3; // time, position, three one-byte numbers
    for (qsizetype i = 0; i < fragments.size(); ++i) {
        const qsizetype entry = 16 + i * entrySize;
        QCOMPARE(qint64(mp4boxes::number64(*index, entry)), startMs(fragments[i]) * ticksPerMs);
        QCOMPARE(qsizetype(mp4boxes::number64(*index, entry + 8)), fragments[i].offset);
    }
}

void Mp4StructureTest::keyFrameEverySecond()
{
    IdleRecorder recorder;
    QVERIFY(recorder.record(IdleRecorder::steadyTimes(24 * 4 + 5)));
    MediaFile file(recorder->outputPath());
    QCOMPARE(keyTimesMs(file), (QList<qint64>{0, 24 * 41, 48 * 41, 72 * 41, 96 * 41}));
}

void Mp4StructureTest::fragmentASecond()
{
    IdleRecorder recorder;
    QVERIFY(recorder.record(IdleRecorder::steadyTimes(24 * 10)));
    QList<qint64> expected;
    for (qint64 i = 0; i < 10; ++i)
        expected.append(i * 24 * 41);
    QCOMPARE(startsMs(recorder->outputPath()), expected);
}

/// A window that gives a frame now and then: the key frames are twelve seconds apart, the fragments are not.
void Mp4StructureTest::fragmentASecondWithFewFrames()
{
    QList<qint64> times;
    for (qint64 i = 0; i < 40; ++i)
        times.append(i * 500);
    IdleRecorder recorder;
    QVERIFY(recorder.record(times));
    MediaFile file(recorder->outputPath());
    QCOMPARE(keyTimesMs(file), (QList<qint64>{0, 12000}));
    const QList<qint64> starts = startsMs(recorder->outputPath());
    QVERIFY2(starts.size() >= 15 && starts.size() <= 25, qPrintable(QString::number(starts.size())));
    for (qsizetype i = 1; i < starts.size(); ++i)
        QVERIFY2(starts[i] - starts[i - 1] <= 1500, qPrintable(QString::number(starts[i])));
}

void Mp4StructureTest::fragmentAtEveryNewScene()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    for (int i = 0; i < 40; ++i) {
        const QImage frame
            = i < 10 ? testimages::walking(recorder.canvas(), i) : testimages::noise(recorder.canvas(), 7);
        QVERIFY(recorder->encodeImage(frame, i * 41));
    }
    QVERIFY(recorder.finish());
    MediaFile file(recorder->outputPath());
    const QList<qint64> keyTimes = keyTimesMs(file);
    QVERIFY2(keyTimes.contains(10 * 41), "the change of scene made no key frame");
    QCOMPARE(startsMs(recorder->outputPath()), keyTimes);
}

ORVANTIS_TEST(Mp4StructureTest)
#include "mp4structure_test.moc"

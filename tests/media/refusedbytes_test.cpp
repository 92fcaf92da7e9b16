// A disk that is full from any byte on: what was left on it ends where something whole ends, and plays to there.
#include "filesizelimit.h"
#include "mediafile.h"
#include "mp4boxes.h"
#include "recorderwithaudio.h"
#include "testregistry.h"

#include <QFileInfo>
#include <QTest>

#include <algorithm>
#include <optional>

namespace {

constexpr int framesPerFragment = 24;
constexpr int images = 2 * framesPerFragment + 7;
constexpr qsizetype listStep
    = 131; // bytes from limit to limit in a fragment's list, of which an entry is no multiple
constexpr qsizetype dataStep = 19937; // and in its data
const QSize canvas(48, 32);

enum class Full { FromTheStart, AtTheEnd };

bool encodeAll(RecorderWithAudio& recorder, bool hasAudio)
{
    bool isTaken = true;
    for (int i = 0; i < images; ++i) {
        const qint64 timeMs = i * 41;
        isTaken &= recorder.encode({timeMs}, i);
        isTaken &= !hasAudio || recorder.turn(timeMs + 41, testaudio::noise(timeMs * 48, 41LL * 48));
    }
    return isTaken;
}

/// The file that is left when no byte from `limit` on was taken; without one, the whole recording.
void record(RecorderWithAudio& recorder, bool hasAudio, Full when, std::optional<rlim_t> limit)
{
    std::optional<FileSizeLimit> fullDisk;
    if (limit && when == Full::FromTheStart)
        fullDisk.emplace(*limit);
    QVERIFY(hasAudio ? recorder.openAndStart() : recorder->openOutput());
    const bool isTaken = encodeAll(recorder, hasAudio);
    QVERIFY(isTaken || fullDisk);
    if (limit && !fullDisk)
        fullDisk.emplace(*limit);
    const bool isDrained = hasAudio ? recorder.finishAudio() : recorder.finish();
    QVERIFY(isDrained || fullDisk);
}

int wholeFragments(const QList<Mp4Box>& boxes, qsizetype bytes)
{
    return int(std::count_if(boxes.cbegin(), boxes.cend(),
        [bytes](const Mp4Box& box) { return box.type == "mdat" && box.end() <= bytes; }));
}

/// Empty when the file has nothing torn, and plays at least so many fragments of the whole recording.
QString judge(const QString& path, const QList<MediaFrame>& recorded, int fragments)
{
    const QList<Mp4Box> boxes = mp4boxes::parseFile(path);
    const bool isWhole = std::all_of(boxes.cbegin(), boxes.cend(), [](const Mp4Box& box) { return box.whole; });
    if (!isWhole || boxes.isEmpty() || QFileInfo(path).size() != boxes.last().end())
        return QStringLiteral("torn");
    MediaFile file(path);
    const QList<MediaFrame> frames = file.frames();
    if (!file.isValid())
        return file.errorString();
    const qsizetype expected = std::min(fragments * framesPerFragment, images);
    if (frames.size() < expected)
        return QStringLiteral("%1 of %2 frames").arg(frames.size()).arg(expected);
    for (qsizetype i = 0; i < expected; ++i) {
        if (frames[i].ptsMs != recorded[i].ptsMs || frames[i].image != recorded[i].image)
            return QStringLiteral("frame %1 at %2 ms").arg(i).arg(frames[i].ptsMs);
    }
    return QString();
}

/// Bytes of the file, from a fragment on, at which the disk can be full: many of each list.
QList<qsizetype> limitsIn(const QList<Mp4Box>& boxes, int fromFragment)
{
    QList<qsizetype> limits;
    for (const Mp4Box& box : boxes) {
        const bool isList = box.type == "moof";
        if (wholeFragments(boxes, box.offset) < fromFragment || (!isList && box.type != "mdat"))
            continue;
        for (qsizetype at = box.offset + 1; at < box.end(); at += isList ? listStep : dataStep)
            limits << at;
    }
    limits << boxes.last().end() - 1;
    return limits;
}

}

class RefusedBytesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void fileEndsWithSomethingWhole_data();
    void fileEndsWithSomethingWhole();
};

void RefusedBytesTest::fileEndsWithSomethingWhole_data()
{
    QTest::addColumn<bool>("hasAudio");
    QTest::addColumn<Full>("when");
    QTest::newRow("video, from the start") << false << Full::FromTheStart;
    QTest::newRow("video, at the end") << false << Full::AtTheEnd;
    QTest::newRow("video and audio, from the start") << true << Full::FromTheStart;
    QTest::newRow("video and audio, at the end") << true << Full::AtTheEnd;
}

void RefusedBytesTest::fileEndsWithSomethingWhole()
{
    QFETCH(const bool, hasAudio);
    QFETCH(const Full, when);
    RecorderWithAudio whole(QStringLiteral("clip.mp4"), canvas);
    record(whole, hasAudio, Full::FromTheStart, std::nullopt);
    const QList<Mp4Box> boxes = mp4boxes::parseFile(whole->outputPath());
    QCOMPARE(wholeFragments(boxes, boxes.last().end()), 3);

    const QList<MediaFrame> recorded = MediaFile(whole->outputPath()).frames();
    QCOMPARE(recorded.size(), images);

    // At the end what was written before is there; the last fragment, or its list, may not fit.
    const int fromFragment = when == Full::AtTheEnd ? 2 : 0;
    int fewest = images;
    int most = 0;
    for (const qsizetype limit : limitsIn(boxes, fromFragment)) {
        RecorderWithAudio recorder(QStringLiteral("clip.mp4"), canvas);
        record(recorder, hasAudio, when, rlim_t(limit));
        const int fragments = wholeFragments(boxes, limit);
        const QString judgement = judge(recorder->outputPath(), recorded, fragments);
        QVERIFY2(judgement.isEmpty(), qPrintable(QStringLiteral("%1: %2").arg(limit).arg(judgement)));
        const bool isTold = !recorder.criticals().isEmpty() || !recorder.warnings().isEmpty();
        QVERIFY2(isTold, qPrintable(QString::number(limit)));
        fewest = std::min(fewest, fragments);
        most = std::max(most, fragments);
    }
    QCOMPARE(fewest, fromFragment);
    QCOMPARE(most, 3);
}

ORVANTIS_TEST(RefusedBytesTest)
#include "refusedbytes_test.moc"

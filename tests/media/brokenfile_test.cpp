// What a recording that did not come to its end is still good for.
#include "filesizelimit.h"
#include "idlerecorder.h"
#include "mediafile.h"
#include "mp4boxes.h"
#include "outputfile.h"
#include "testregistry.h"

#include <QFile>
#include <QTest>

#include <algorithm>

namespace {

constexpr int framesPerFragment = 24;

QByteArray contentOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool write(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

/// How many of the first packets are as they should be: whole, 41 ms apart, a key frame each second.
int wholePackets(const QList<MediaPacket>& packets)
{
    int count = 0;
    while (count < packets.size() && !packets[count].corrupt && packets[count].size > 0
        && packets[count].ptsMs == count * 41.0 && packets[count].key == (count % framesPerFragment == 0))
        ++count;
    return count;
}

/// The images that lie before a byte of an MP4 file in fragments that end there or earlier.
int wholeFragmentFrames(const QList<Mp4Box>& boxes, qsizetype bytes)
{
    return framesPerFragment * int(std::count_if(boxes.cbegin(), boxes.cend(), [bytes](const Mp4Box& box) {
        return box.type == "mdat" && box.end() <= bytes;
    }));
}

/// FFmpeg's demuxer rejects a file that ends inside the list of a fragment's images. A killed process leaves no such
/// end: the list gets its head last.
bool endsInsideFragmentHeader(const QList<Mp4Box>& boxes, qsizetype bytes)
{
    return std::any_of(boxes.cbegin(), boxes.cend(),
        [bytes](const Mp4Box& box) { return box.type == "moof" && box.offset < bytes && bytes < box.end(); });
}

/// Empty when the first images are there and show what was recorded.
QString checkFrames(const QString& path, int atLeast)
{
    MediaFile file(path);
    const QList<MediaFrame> frames = file.frames();
    if (frames.size() < atLeast)
        return QStringLiteral("%1 of %2 images").arg(frames.size()).arg(atLeast);
    for (int i = 0; i < atLeast; ++i) {
        const QRgb square = frames[i].image.pixel(i * 2 + 15, 120);
        if (frames[i].ptsMs != i * 41.0 || testimages::channelError(square, qRgb(200, 190, 120)) > 10)
            return QStringLiteral("image %1 at %2").arg(i).arg(frames[i].ptsMs);
    }
    return QString();
}

}

class BrokenFileTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void cutAnywherePlaysToTheLastWholeFragment();
    void cutInTheHeaderIsRefused();
    void fragmentThatEndsIsPlayed();
    void writeThatStopsAnywhereIsPassedOver();
    void copyOfAnOpenFilePlays();
    void headerIsOnTheDiskBeforeTheFirstFrame();
    void fallbackHeaderIsOnTheDiskBeforeTheFirstFrame();
    void headerOnlyFileOpens();
    void fallbackCutAnywherePlaysToTheLastWholeCluster();
    void fallbackCopyOfAnOpenFilePlays();
};

void BrokenFileTest::cutAnywherePlaysToTheLastWholeFragment()
{
    IdleRecorder recorder;
    QVERIFY(recorder.record(IdleRecorder::steadyTimes(3 * framesPerFragment)));
    const QByteArray bytes = contentOf(recorder->outputPath());
    const QList<Mp4Box> boxes = mp4boxes::parse(bytes);
    const qsizetype headerEnd = mp4boxes::find(boxes, "moov")->end();
    const QString cutPath = recorder.filePath(QStringLiteral("cut.mp4"));

    QList<qsizetype> cuts;
    for (qsizetype at = headerEnd; at < bytes.size(); at += 401)
        cuts.append(at);
    for (const Mp4Box& box : boxes) {
        for (const qsizetype around : {-1, 0, 1, 8}) {
            if (box.end() + around >= headerEnd && box.end() + around <= bytes.size())
                cuts.append(box.end() + around);
        }
    }
    int fewest = 1000;
    int most = 0;
    for (const qsizetype cut : cuts) {
        if (endsInsideFragmentHeader(boxes, cut))
            continue;
        QVERIFY(write(cutPath, bytes.left(cut)));
        MediaFile file(cutPath);
        const int expected = wholeFragmentFrames(boxes, cut);
        QVERIFY2(expected == 0 || (file.isValid() && file.videoStream()), qPrintable(QString::number(cut)));
        const int whole = wholePackets(file.packets());
        QVERIFY2(whole >= expected, qPrintable(QStringLiteral("%1: %2 of %3").arg(cut).arg(whole).arg(expected)));
        const QString judgement = checkFrames(cutPath, expected);
        QVERIFY2(judgement.isEmpty(), qPrintable(QStringLiteral("%1: %2").arg(cut).arg(judgement)));
        fewest = std::min(fewest, expected);
        most = std::max(most, expected);
    }
    QCOMPARE(fewest, 0);
    QCOMPARE(most, 3 * framesPerFragment);
}

/// No crash, no made-up images.
void BrokenFileTest::cutInTheHeaderIsRefused()
{
    IdleRecorder recorder;
    QVERIFY(recorder.record(IdleRecorder::steadyTimes(3)));
    const QByteArray bytes = contentOf(recorder->outputPath());
    const qsizetype headerEnd = mp4boxes::find(mp4boxes::parse(bytes), "moov")->end();
    const QString cutPath = recorder.filePath(QStringLiteral("cut.mp4"));
    for (qsizetype cut = 0; cut < headerEnd - 8; cut += 7) {
        QVERIFY(write(cutPath, bytes.left(cut)));
        QVERIFY(MediaFile(cutPath).frames().isEmpty());
    }
}

void BrokenFileTest::fragmentThatEndsIsPlayed()
{
    IdleRecorder recorder;
    QVERIFY(recorder.record(IdleRecorder::steadyTimes(2 * framesPerFragment)));
    const QByteArray bytes = contentOf(recorder->outputPath());
    const Mp4Box* const firstImages = mp4boxes::find(mp4boxes::parse(bytes), "mdat");
    QVERIFY(firstImages);
    const QString cutPath = recorder.filePath(QStringLiteral("cut.mp4"));
    QVERIFY(write(cutPath, bytes.left(mp4boxes::find(mp4boxes::parse(bytes), "mdat")->end())));
    MediaFile file(cutPath);
    QCOMPARE(file.packets().size(), framesPerFragment);
    QCOMPARE(checkFrames(cutPath, framesPerFragment), QString());
    QCOMPARE(file.durationMs(), framesPerFragment * 41.0);
}

/// As the system stops it when the process is killed; here there is no room for more.
void BrokenFileTest::writeThatStopsAnywhereIsPassedOver()
{
    IdleRecorder recorder;
    QVERIFY(recorder.record(IdleRecorder::steadyTimes(2 * framesPerFragment)));
    const QByteArray bytes = contentOf(recorder->outputPath());
    const QList<Mp4Box> boxes = mp4boxes::parse(bytes);
    const auto list
        = std::find_if(boxes.crbegin(), boxes.crend(), [](const Mp4Box& box) { return box.type == "moof"; });
    const QByteArray before = bytes.left(list->offset);
    const QByteArray fragment = bytes.mid(list->offset);
    const QString path = recorder.filePath(QStringLiteral("stopped.mp4"));
    for (qsizetype end = list->offset + 9; end < list->end() + 40; end += 7) {
        AVFormatContext* container = avformat_alloc_context();
        QVERIFY(outputfile::open(*container, path) >= 0);
        const auto write = [&](const QByteArray& part) {
            avio_write(container->pb, reinterpret_cast<const uchar*>(part.constData()), int(part.size()));
            avio_flush(container->pb);
        };
        write(before);
        {
            const FileSizeLimit limit{rlim_t(end)};
            write(fragment);
        }
        outputfile::close(*container);
        avformat_free_context(container);
        QCOMPARE(contentOf(path).size(), end);
        MediaFile file(path);
        QVERIFY2(file.isValid(), qPrintable(QString::number(end)));
        const QString judgement = checkFrames(path, framesPerFragment);
        QVERIFY2(judgement.isEmpty(), qPrintable(QStringLiteral("%1: %2").arg(end).arg(judgement)));
    }
}

/// What a killed process leaves behind: no end was written, nothing was closed.
void BrokenFileTest::copyOfAnOpenFilePlays()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    const QString copy = recorder.filePath(QStringLiteral("copy.mp4"));
    for (int i = 0; i < 60; ++i) {
        QVERIFY(recorder.encode({i * 41}, i));
        if (i % 4 != 0)
            continue;
        QVERIFY(write(copy, contentOf(recorder->outputPath())));
        // A key frame completes the fragment before it.
        const int expected = i / framesPerFragment * framesPerFragment;
        QCOMPARE(checkFrames(copy, expected), QString());
        QVERIFY(mp4boxes::types(mp4boxes::parseFile(copy)).first(2) == (QList<QByteArray>{"ftyp", "moov"}));
    }
}

void BrokenFileTest::headerIsOnTheDiskBeforeTheFirstFrame()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    const QByteArray header = contentOf(recorder->outputPath());
    const QList<Mp4Box> boxes = mp4boxes::parse(header);
    QCOMPARE(mp4boxes::types(boxes), (QList<QByteArray>{"ftyp", "moov"}));
    QVERIFY(boxes.constLast().whole);
    QCOMPARE(boxes.constLast().end(), header.size());
    QVERIFY(recorder.encode({0}));
    QCOMPARE(contentOf(recorder->outputPath()), header);
}

void BrokenFileTest::fallbackHeaderIsOnTheDiskBeforeTheFirstFrame()
{
    IdleRecorder recorder(QStringLiteral("clip.mp4"), QSize(8192, 16));
    QVERIFY(recorder->openOutput());
    const QByteArray header = contentOf(recorder->outputPath());
    QVERIFY(header.startsWith("\x1a\x45\xdf\xa3"));
    QVERIFY(header.contains("\x16\x54\xae\x6b")); // the streams
    QVERIFY(recorder.encode({0}));
    QCOMPARE(contentOf(recorder->outputPath()), header);
}

void BrokenFileTest::headerOnlyFileOpens()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QVERIFY(recorder.finish());
    QVERIFY(recorder.wasQuiet());
    const QList<Mp4Box> boxes = mp4boxes::parseFile(recorder->outputPath());
    QCOMPARE(mp4boxes::types(boxes), (QList<QByteArray>{"ftyp", "moov", "mfra"}));
    const Mp4Box* const image = mp4boxes::find(boxes, "moov/trak/mdia/minf/stbl/stsd/mp4v");
    QVERIFY(image);
    QCOMPARE(mp4boxes::number32(*image, 24), 320u << 16 | 240u);

    MediaFile file(recorder->outputPath());
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QVERIFY(file.videoStream());
    QCOMPARE(file.videoStream()->codecId, AV_CODEC_ID_MPEG4);
    QVERIFY(file.packets().isEmpty());
    QVERIFY(file.isValid());
}

/// A canvas that MPEG-4 cannot state is recorded in Matroska. Its key frames complete clusters as those of MPEG-4
/// complete fragments.
void BrokenFileTest::fallbackCutAnywherePlaysToTheLastWholeCluster()
{
    constexpr int images = 2 * framesPerFragment + 5;
    IdleRecorder recorder(QStringLiteral("clip.mp4"), QSize(8192, 16));
    QVERIFY(recorder->openOutput());
    QList<qsizetype> wholeAt; // the size of the file when that many clusters were on the disk
    for (int i = 0; i < images; ++i) {
        QVERIFY(recorder.encode({i * 41}, i));
        if (i % framesPerFragment == 0)
            wholeAt.append(contentOf(recorder->outputPath()).size());
    }
    QVERIFY(recorder.finish());
    const QByteArray bytes = contentOf(recorder->outputPath());
    wholeAt.append(bytes.size());
    const QString cutPath = recorder.filePath(QStringLiteral("cut.mkv"));
    QList<qsizetype> cuts = wholeAt;
    for (int tenth = 0; tenth < 10; ++tenth)
        cuts.append(bytes.size() * tenth / 10);
    for (const qsizetype cut : cuts) {
        QVERIFY(write(cutPath, bytes.left(cut)));
        const auto clusters
            = std::count_if(wholeAt.cbegin() + 1, wholeAt.cend(), [cut](qsizetype size) { return size <= cut; });
        const qsizetype expected = std::min<qsizetype>(clusters * framesPerFragment, images);
        const QList<MediaFrame> frames = MediaFile(cutPath).frames();
        QVERIFY2(frames.size() >= expected, qPrintable(QStringLiteral("%1: %2").arg(cut).arg(frames.size())));
        for (qsizetype i = 0; i < expected; ++i) {
            QCOMPARE(frames[i].image,
                testimages::walking(recorder.canvas(), int(i)).convertToFormat(QImage::Format_RGB32));
        }
    }
}

void BrokenFileTest::fallbackCopyOfAnOpenFilePlays()
{
    IdleRecorder recorder(QStringLiteral("clip.mp4"), QSize(8192, 16));
    QVERIFY(recorder->openOutput());
    const QString copy = recorder.filePath(QStringLiteral("copy.mkv"));
    for (int i = 0; i < 50; ++i) {
        QVERIFY(recorder.encode({i * 41}, i));
        if (i % 8 != 0)
            continue;
        QVERIFY(write(copy, contentOf(recorder->outputPath())));
        const QList<MediaFrame> frames = MediaFile(copy).frames();
        QVERIFY(frames.size() >= i / framesPerFragment * framesPerFragment);
    }
}

ORVANTIS_TEST(BrokenFileTest)
#include "brokenfile_test.moc"

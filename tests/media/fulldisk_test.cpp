// A disk that is full: before the recording, while it runs, for a while and at its end.
#include "filesizelimit.h"
#include "idlerecorder.h"
#include "mediafile.h"
#include "mp4boxes.h"
#include "testregistry.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <algorithm>
#include <unistd.h>

namespace {

/// Encodes that many walking images, the results in their order.
QList<bool> encodeEach(IdleRecorder& recorder, int count)
{
    QList<bool> results;
    for (int i = 0; i < count; ++i)
        results.append(recorder.encode({i * 41}, i));
    return results;
}

}

class FullDiskTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void fullDiskBeforeTheHeader();
    void fullDiskBehindTheFirstBytes_data();
    void fullDiskBehindTheFirstBytes();
    void fullDiskWhileRecording_data();
    void fullDiskWhileRecording();
    void fullDiskAtTheEnd();
    void diskThatWasFullForAWhile_data();
    void diskThatWasFullForAWhile();
    void noTableOfFragmentsAfterALoss_data();
    void noTableOfFragmentsAfterALoss();
    void fullDiskInTheFallback();
    void fileThatWasClosed();
};

void FullDiskTest::fullDiskBeforeTheHeader()
{
    IdleRecorder recorder;
    const FileSizeLimit limit(0);
    QVERIFY(!recorder->openOutput());
    QCOMPARE(recorder.criticals(),
        QStringList{QStringLiteral("Unable to write FFmpeg output header: \"File too large\"")});
    recorder->closeOutput();
    QVERIFY(recorder.isClosed());
}

void FullDiskTest::fullDiskBehindTheFirstBytes_data()
{
    QTest::addColumn<QString>("name"); // that the file gets
    QTest::addColumn<QSize>("canvas");
    QTest::newRow("MP4") << QStringLiteral("clip.mp4") << QSize(320, 240);
    QTest::newRow("Matroska") << QStringLiteral("clip.mkv") << QSize(8192, 16);
}

/// Nobody could play what follows, so nothing is recorded, and nothing is left of the header.
void FullDiskTest::fullDiskBehindTheFirstBytes()
{
    QFETCH(const QString, name);
    QFETCH(const QSize, canvas);
    IdleRecorder recorder(QStringLiteral("clip.mp4"), canvas);
    const qsizetype descriptors = openDescriptors();
    const FileSizeLimit limit(100);
    QVERIFY(!recorder->openOutput());
    QCOMPARE(recorder.criticals(),
        QStringList{QStringLiteral("Unable to write FFmpeg output header: \"File too large\"")});
    recorder.log().clear();
    recorder->closeOutput();
    QCOMPARE(recorder.log().messages(), QStringList());
    QVERIFY(recorder.isClosed());
    QCOMPARE(openDescriptors(), descriptors);
    QCOMPARE(QFileInfo(recorder.filePath(name)).size(), 0);
}

void FullDiskTest::fullDiskWhileRecording_data()
{
    QTest::addColumn<int>("limit"); // bytes
    QTest::newRow("in the second fragment") << 5000;
    QTest::newRow("in the third fragment") << 8000;
    QTest::newRow("at a block's end") << 8192;
}

/// Every fragment that cannot be written is reported, later ones are tried all the same, and what was written stays.
void FullDiskTest::fullDiskWhileRecording()
{
    QFETCH(const int, limit);
    constexpr int images = 24 * 6;
    IdleRecorder recorder;
    const QString path = recorder->outputPath();
    const qsizetype descriptors = openDescriptors();
    QList<bool> results;
    {
        const FileSizeLimit fileSizeLimit{rlim_t(limit)};
        QVERIFY(recorder->openOutput());
        results = encodeEach(recorder, images);
        QVERIFY(recorder.finish());
    }
    QVERIFY2(results.indexOf(false) > 24, qPrintable(QString::number(results.indexOf(false))));
    QVERIFY2(results.count(false) >= images / 24 - 3, "fragments were lost without a word");
    QCOMPARE(recorder.criticals(),
        QStringList(results.count(false), QStringLiteral("Unable to write FFmpeg packet: \"File too large\"")));
    QCOMPARE(recorder.warnings(),
        QStringList{QStringLiteral("Unable to write FFmpeg output trailer: \"File too large\"")});
    QVERIFY(recorder.isClosed());
    QCOMPARE(openDescriptors(), descriptors);

    QVERIFY(QFileInfo(path).size() <= limit);
    const QList<Mp4Box> boxes = mp4boxes::parseFile(path);
    const auto wholeFragments = std::count_if(
        boxes.cbegin(), boxes.cend(), [](const Mp4Box& box) { return box.type == "mdat" && box.whole; });
    QVERIFY(wholeFragments >= 1);
    const QList<MediaFrame> frames = MediaFile(path).frames();
    QVERIFY2(frames.size() >= wholeFragments * 24, qPrintable(QString::number(frames.size())));
    for (int i = 0; i < wholeFragments * 24; ++i) {
        QCOMPARE(frames[i].ptsMs, i * 41.0);
        QVERIFY(testimages::channelError(frames[i].image.pixel(i * 2 + 15, 120), qRgb(200, 190, 120)) <= 10);
    }
}

/// Every image was accepted, and the last ones do not reach the disk: that is reported.
void FullDiskTest::fullDiskAtTheEnd()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QVERIFY(recorder.encode(IdleRecorder::steadyTimes(30)));
    {
        const FileSizeLimit limit(rlim_t(QFileInfo(recorder->outputPath()).size()) + 50);
        QVERIFY(recorder.finish());
    }
    QVERIFY(recorder.criticals().isEmpty());
    QCOMPARE(recorder.warnings(),
        QStringList{QStringLiteral("Unable to write FFmpeg output trailer: \"File too large\"")});
    QVERIFY(recorder.isClosed());
    // The first fragment is whole; nothing is left of the second one.
    QCOMPARE(mp4boxes::types(mp4boxes::parseFile(recorder->outputPath())),
        (QList<QByteArray>{"ftyp", "moov", "moof", "mdat"}));
}

void FullDiskTest::diskThatWasFullForAWhile_data()
{
    QTest::addColumn<QString>("name"); // that the file gets
    QTest::addColumn<QSize>("canvas");
    QTest::addColumn<int>("limit"); // bytes
    QTest::newRow("MP4") << QStringLiteral("clip.mp4") << QSize(320, 240) << 5000;
    QTest::newRow("Matroska") << QStringLiteral("clip.mkv") << QSize(8192, 16) << 400000;
}

/// It costs what was to be written then, each write is reported, and nothing that follows is lost. The trailer tells
/// of itself only, and here there is nothing to tell. A player finds each frame, by the key frame of its second.
void FullDiskTest::diskThatWasFullForAWhile()
{
    QFETCH(const QString, name);
    QFETCH(const QSize, canvas);
    QFETCH(const int, limit);
    constexpr int images = 24 * 5;
    IdleRecorder recorder(QStringLiteral("clip.mp4"), canvas);
    QList<bool> results;
    {
        const FileSizeLimit fileSizeLimit{rlim_t(limit)};
        QVERIFY(recorder->openOutput());
        while (results.size() < images && !results.contains(false))
            results.append(recorder.encode({results.size() * 41}, int(results.size())));
    }
    const int firstFailure = int(results.size()) - 1;
    QVERIFY(results.contains(false));
    for (int i = int(results.size()); i < images; ++i)
        QVERIFY2(recorder.encode({i * 41}, i), qPrintable(recorder.criticals().join(QLatin1Char('\n'))));
    QVERIFY(recorder.finish());
    QCOMPARE(recorder.criticals(), QStringList{QStringLiteral("Unable to write FFmpeg packet: \"File too large\"")});
    QCOMPARE(recorder.warnings().filter(QStringLiteral("trailer")), QStringList());

    MediaFile file(recorder.filePath(name));
    const QList<MediaFrame> frames = file.frames();
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QVERIFY2(frames.size() >= images - 24 && frames.size() < images, qPrintable(QString::number(frames.size())));
    const int lost = images - int(frames.size());
    QVERIFY2(frames[firstFailure - lost - 1].ptsMs < frames[firstFailure - lost].ptsMs - 41, "no gap at the failure");
    for (qsizetype i = 0; i < frames.size(); ++i) {
        const qint64 number = i < firstFailure - lost ? i : i + lost;
        QVERIFY(std::abs(frames[i].ptsMs - double(number) * 41) < 1);
    }
    for (const MediaFrame& frame : frames) {
        const double foundMs = file.seek(frame.ptsMs);
        QVERIFY2(foundMs <= frame.ptsMs && foundMs > frame.ptsMs - 25 * 41,
            qPrintable(QStringLiteral("%1 is sought, %2 found").arg(frame.ptsMs).arg(foundMs)));
    }
}

void FullDiskTest::noTableOfFragmentsAfterALoss_data()
{
    QTest::addColumn<int>("left"); // images that are not lost
    QTest::newRow("the packet before the trailer fails") << 1;
    QTest::newRow("another packet comes in between") << 2;
}

/// Its trailer has no table of fragments: that would name the lost ones, at places where others are now. Nor is there
/// a rest of them, although what comes is shorter. The error of the last packet is not the trailer's.
void FullDiskTest::noTableOfFragmentsAfterALoss()
{
    QFETCH(const int, left);
    constexpr int fragment = 24;
    constexpr int limit = 6000; // bytes, in the second fragment
    IdleRecorder recorder;
    QList<bool> results;
    {
        const FileSizeLimit fileSizeLimit{rlim_t(limit)};
        QVERIFY(recorder->openOutput());
        results = encodeEach(recorder, 3 * fragment + left);
    }
    QCOMPARE(recorder.criticals().size(), 2);
    QCOMPARE(results.last(), left > 1);
    QVERIFY(recorder.finish());
    QCOMPARE(recorder.warnings(), QStringList());
    const QList<Mp4Box> boxes = mp4boxes::parseFile(recorder->outputPath());
    QCOMPARE(mp4boxes::types(boxes), (QList<QByteArray>{"ftyp", "moov", "moof", "mdat", "moof", "mdat"}));
    QVERIFY(boxes.last().end() < limit); // the broken one reached up to it
    QCOMPARE(QFileInfo(recorder->outputPath()).size(), boxes.last().end());

    MediaFile file(recorder->outputPath());
    const QList<MediaFrame> frames = file.frames();
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QCOMPARE(frames.size(), fragment + left); // what was on the disk before, and what waited to be written
    for (int i = 0; i < int(frames.size()); ++i) {
        const int number = i < fragment ? i : i + 2 * fragment;
        QCOMPARE(frames[i].ptsMs, number * 41.0);
        QVERIFY(testimages::channelError(frames[i].image.pixel(number * 2 + 15, 120), qRgb(200, 190, 120)) <= 10);
    }
}

void FullDiskTest::fullDiskInTheFallback()
{
    constexpr int images = 24 * 5;
    IdleRecorder recorder(QStringLiteral("clip.mp4"), QSize(8192, 16));
    QList<bool> results;
    {
        const FileSizeLimit limit(400000);
        QVERIFY(recorder->openOutput());
        results = encodeEach(recorder, images);
        QVERIFY(recorder.finish());
    }
    QVERIFY2(results.indexOf(false) > 24, qPrintable(QString::number(results.indexOf(false))));
    QVERIFY2(results.count(false) >= 2, "clusters were lost without a word");
    QCOMPARE(recorder.criticals(),
        QStringList(results.count(false), QStringLiteral("Unable to write FFmpeg packet: \"File too large\"")));
    QVERIFY(
        recorder.warnings().contains(QStringLiteral("Unable to write FFmpeg output trailer: \"File too large\"")));
    QVERIFY(recorder.isClosed());
    const QList<MediaFrame> frames = MediaFile(recorder.filePath(QStringLiteral("clip.mkv"))).frames();
    QVERIFY2(frames.size() >= 24, qPrintable(QString::number(frames.size())));
    QCOMPARE(frames[23].image, testimages::walking(QSize(8192, 16), 23).convertToFormat(QImage::Format_RGB32));
}

/// By somebody else. One line tells of it, although neither the trailer nor the close succeeds.
void FullDiskTest::fileThatWasClosed()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QVERIFY(recorder.encode(IdleRecorder::steadyTimes(3)));
    const QDir descriptors(QStringLiteral("/dev/fd"));
    const QStringList names = descriptors.entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    const QString path = QFileInfo(recorder->outputPath()).canonicalFilePath();
    const auto file = std::find_if(names.begin(), names.end(),
        [&](const QString& name) { return QFile::symLinkTarget(descriptors.filePath(name)) == path; });
    QVERIFY(file != names.end());
    QCOMPARE(::close(file->toInt()), 0);
    QVERIFY(recorder.finish());
    QCOMPARE(recorder.warnings(),
        QStringList{QStringLiteral("Unable to write FFmpeg output trailer: \"Bad file descriptor\"")});
    QVERIFY(recorder.criticals().isEmpty());
    QVERIFY(recorder.isClosed());
}

ORVANTIS_TEST(FullDiskTest)
#include "fulldisk_test.moc"

// Errors of the file system: names that cannot be written, and a disk that fills up while the recording runs.
#include "idlerecorder.h"
#include "mediafile.h"
#include "mp4boxes.h"
#include "testregistry.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

namespace {

/// No file of this process grows beyond the size: the system refuses the bytes that do not fit, as it does on a full
/// disk.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) : oldHandler_(std::signal(SIGXFSZ, SIG_IGN))
    {
        if (getrlimit(RLIMIT_FSIZE, &old_) != 0)
            qFatal("No limit of the file size");
        rlimit limit = old_;
        limit.rlim_cur = bytes;
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
            qFatal("The limit of the file size cannot be set");
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &old_);
        std::signal(SIGXFSZ, oldHandler_);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    void (*oldHandler_)(int);
    rlimit old_{};
};

/// Encodes that many walking images, the results in their order.
QList<bool> encodeEach(IdleRecorder& recorder, int count)
{
    QList<bool> results;
    for (int i = 0; i < count; ++i)
        results.append(recorder.encode({i * 41}, i));
    return results;
}

bool touch(const QString& path)
{
    return QFile(path).open(QIODevice::WriteOnly);
}

}

class FileSystemTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void parentIsAFile();
    void pathIsADirectory();
    void whatIsThereIsNotUsed_data();
    void whatIsThereIsNotUsed();
    void fileIsTheUsersAlone();
    void relativeNamesAreNoAddresses_data();
    void relativeNamesAreNoAddresses();
    void nameIsTooLong();
    void fallbackPathIsADirectory();

    void fullDiskBeforeTheHeader();
    void fullDiskBehindTheFirstBytes();
    void fullDiskWhileRecording_data();
    void fullDiskWhileRecording();
    void fullDiskAtTheEnd();
    void diskThatWasFullForAWhile_data();
    void diskThatWasFullForAWhile();
    void noTableOfFragmentsAfterALoss();
    void fullDiskInTheFallback();

private:
    void expectNotOpened(IdleRecorder& recorder, const char* text);
};

/// The output is refused with the system's reason, and nothing stays open.
void FileSystemTest::expectNotOpened(IdleRecorder& recorder, const char* text)
{
    const qsizetype descriptors = openDescriptors();
    QVERIFY(!recorder->openOutput());
    QCOMPARE(recorder.criticals(),
        QStringList{QStringLiteral("Unable to open video output file \"%1\" : \"%2\"")
                        .arg(recorder->outputPath(), QLatin1String(text))});
    recorder->closeOutput();
    QVERIFY(recorder.isClosed());
    QCOMPARE(openDescriptors(), descriptors);
}

void FileSystemTest::parentIsAFile()
{
    IdleRecorder recorder(QStringLiteral("file/clip.mp4"));
    QVERIFY(touch(recorder.filePath(QStringLiteral("file"))));
    expectNotOpened(recorder, "Not a directory");
}

void FileSystemTest::pathIsADirectory()
{
    IdleRecorder recorder;
    QVERIFY(QDir().mkdir(recorder->outputPath()));
    expectNotOpened(recorder, "Is a directory");
    QVERIFY(QFileInfo(recorder->outputPath()).isDir());
}

void FileSystemTest::whatIsThereIsNotUsed_data()
{
    QTest::addColumn<QString>("made"); // what is in the file's place
    QTest::addColumn<QString>("why");
    QTest::addColumn<QByteArray>("error");
    const QString link = QStringLiteral("it is a symbolic link");
    const QByteArray linkError = "Too many levels of symbolic links";
    QTest::newRow("a link to nowhere") << QStringLiteral("-> missing/clip.mp4") << link << linkError;
    QTest::newRow("a link to what could be made") << QStringLiteral("-> other.mp4") << link << linkError;
    QTest::newRow("a link to an own file") << QStringLiteral("-> own.mp4") << link << linkError;
    QTest::newRow("a link to itself") << QStringLiteral("-> clip.mp4") << link << linkError;
    QTest::newRow("a link to a device") << QStringLiteral("-> /dev/full") << link << linkError;
    QTest::newRow("a pipe") << QStringLiteral("pipe") << QStringLiteral("it is no regular file")
                            << QByteArray("Operation not permitted");
    QTest::newRow("a file with two names")
        << QStringLiteral("= own.mp4") << QStringLiteral("it has more than one name") << QByteArray("Too many links");
    if (::geteuid() == 0) // who can give a file away
        QTest::newRow("somebody else's file")
            << QStringLiteral("foreign") << QStringLiteral("it belongs to another user")
            << QByteArray("Permission denied");
}

void FileSystemTest::whatIsThereIsNotUsed()
{
    QFETCH(QString, made);
    QFETCH(QString, why);
    QFETCH(QByteArray, error);
    IdleRecorder recorder;
    const QString path = recorder->outputPath();
    const QByteArray name = QFile::encodeName(path);
    QFile own(recorder.filePath(QStringLiteral("own.mp4")));
    QVERIFY(own.open(QIODevice::WriteOnly) && own.write("precious") == 8);
    own.close();
    if (made.startsWith(QLatin1String("-> "))) {
        QVERIFY(QFile::link(made.mid(3), path));
    } else if (made.startsWith(QLatin1String("= "))) {
        QCOMPARE(::link(QFile::encodeName(own.fileName()).constData(), name.constData()), 0);
    } else if (made == QLatin1String("pipe")) {
        QCOMPARE(::mkfifo(name.constData(), 0600), 0);
    } else {
        QVERIFY(touch(path));
        QCOMPARE(::chown(name.constData(), 65534, 65534), 0);
    }
    expectNotOpened(recorder, error.constData());
    QCOMPARE(recorder.warnings(),
        QStringList{QStringLiteral("Recorder does not write to the file that is there: \"%1\" %2").arg(path, why)});
    QCOMPARE(QFileInfo(own.fileName()).size(), 8);
    QVERIFY(!QFile::exists(recorder.filePath(QStringLiteral("other.mp4"))));
}

/// Whatever the umask allows, and whatever was there.
void FileSystemTest::fileIsTheUsersAlone()
{
    const mode_t before = ::umask(0);
    IdleRecorder recorder(QStringLiteral("made/by/recorder/clip.mp4"));
    const QString path = recorder->outputPath();
    const bool recorded = recorder.record({0});
    ::umask(before);
    QVERIFY(recorded);
    constexpr auto othersMay = QFile::ReadGroup | QFile::WriteGroup | QFile::ExeGroup | QFile::ReadOther
        | QFile::WriteOther | QFile::ExeOther;
    for (const char* const name : {"made", "made/by", "made/by/recorder", "made/by/recorder/clip.mp4"}) {
        const QString made = recorder.filePath(QLatin1String(name));
        QVERIFY(QFile::exists(made));
        QVERIFY2(!(QFile::permissions(made) & othersMay), name);
    }

    IdleRecorder again;
    QFile old(again->outputPath());
    QVERIFY(old.open(QIODevice::WriteOnly) && old.write(QByteArray(1 << 20, 'x')) == 1 << 20);
    QVERIFY(old.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther | QFile::WriteGroup));
    QVERIFY(again.record({0}));
    QVERIFY(!(QFile::permissions(again->outputPath()) & othersMay));
    QCOMPARE(mp4boxes::types(mp4boxes::parseFile(again->outputPath())).last(), QByteArray("mfra"));
}

void FileSystemTest::relativeNamesAreNoAddresses_data()
{
    QTest::addColumn<QString>("asked");
    QTest::addColumn<QString>("written");
    QTest::newRow("address") << QStringLiteral("tcp:localhost:1.mp4") << QStringLiteral("tcp:localhost:1.mp4");
    QTest::newRow("time of day") << QStringLiteral("10:15.mp4") << QStringLiteral("10:15.mp4");
    QTest::newRow("descriptor") << QStringLiteral("pipe:1") << QStringLiteral("pipe:1.mp4");
    QTest::newRow("scheme of files") << QStringLiteral("file:x.mp4") << QStringLiteral("file:x.mp4");
    QTest::newRow("begins with a dash") << QStringLiteral("-f.mp4") << QStringLiteral("-f.mp4");
    QTest::newRow("number") << QStringLiteral("rec_%d:%03d.mp4") << QStringLiteral("rec_1:001.mp4");
    QTest::newRow("other conversion") << QStringLiteral("%s%5d.mp4") << QStringLiteral("%s%5d.mp4");
    QTest::newRow("in a directory") << QStringLiteral("http:/x/a.mp4") << QStringLiteral("http:/x/a.mp4");
}

/// And nothing beside the file is made: no connection, no other file.
void FileSystemTest::relativeNamesAreNoAddresses()
{
    QFETCH(QString, asked);
    QFETCH(QString, written);
    for (const bool fallback : {false, true}) {
        IdleRecorder recorder(QStringLiteral("clip.mp4"), fallback ? QSize(8192, 16) : QSize(320, 240));
        const QString before = QDir::currentPath();
        QVERIFY(QDir::setCurrent(recorder.filePath(QString())));
        recorder->outputPath() = recorder->normalizedOutputPath(asked);
        const bool recorded = recorder.record({0, 41});
        QVERIFY(QDir::setCurrent(before));
        QVERIFY2(recorded, qPrintable(recorder.criticals().join(u'\n')));
        const QString name = fallback ? written.chopped(3) + QLatin1String("mkv") : written;
        MediaFile file(recorder.filePath(name));
        QVERIFY2(file.isValid(), qPrintable(file.errorString()));
        QCOMPARE(file.frames().size(), 2);
        QCOMPARE(QDir(recorder.filePath(QString())).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
            QStringList{written.section(u'/', 0, 0).endsWith(u':') ? written.section(u'/', 0, 0) : name});
    }
}

void FileSystemTest::nameIsTooLong()
{
    IdleRecorder recorder(QString(300, QLatin1Char('n')) + QStringLiteral(".mp4"));
    expectNotOpened(recorder, "File name too long");
}

void FileSystemTest::fallbackPathIsADirectory()
{
    IdleRecorder recorder(QStringLiteral("clip.mp4"), QSize(8192, 16));
    QVERIFY(QDir().mkdir(recorder.filePath(QStringLiteral("clip.mkv"))));
    expectNotOpened(recorder, "Is a directory");
    QCOMPARE(recorder->outputPath(), recorder.filePath(QStringLiteral("clip.mkv")));
}

void FileSystemTest::fullDiskBeforeTheHeader()
{
    IdleRecorder recorder;
    const FileSizeLimit limit(0);
    QVERIFY(!recorder->openOutput());
    QCOMPARE(recorder.criticals(),
        QStringList{QStringLiteral("Unable to write FFmpeg output header: \"File too large\"")});
    recorder->closeOutput();
    QVERIFY(recorder.isClosed());
}

/// The rest of the header is written with the first image, so that one reports the failure.
void FileSystemTest::fullDiskBehindTheFirstBytes()
{
    IdleRecorder recorder;
    const FileSizeLimit limit(100);
    QVERIFY(recorder->openOutput());
    encodeEach(recorder, 5);
    QVERIFY(recorder.criticals().size() >= 4);
    for (const QString& line : recorder.criticals())
        QCOMPARE(line, QStringLiteral("Unable to write FFmpeg packet: \"File too large\""));
    recorder.finish();
    QCOMPARE(recorder.warnings(),
        QStringList{QStringLiteral("Unable to write FFmpeg output trailer: \"File too large\"")});
    QVERIFY(recorder.isClosed());
}

void FileSystemTest::fullDiskWhileRecording_data()
{
    QTest::addColumn<int>("limit"); // bytes
    QTest::newRow("in the second fragment") << 5000;
    QTest::newRow("in the third fragment") << 8000;
    QTest::newRow("at a block's end") << 8192;
}

/// Every fragment that cannot be written is reported, later ones are tried all the same, and what was written stays.
void FileSystemTest::fullDiskWhileRecording()
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
void FileSystemTest::fullDiskAtTheEnd()
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
    // The first fragment is whole; the second one is cut off.
    QCOMPARE(mp4boxes::types(mp4boxes::parseFile(recorder->outputPath())),
        (QList<QByteArray>{"ftyp", "moov", "moof", "mdat", "moof"}));
}

void FileSystemTest::diskThatWasFullForAWhile_data()
{
    QTest::addColumn<QString>("name"); // that the file gets
    QTest::addColumn<QSize>("canvas");
    QTest::addColumn<int>("limit"); // bytes
    QTest::newRow("MP4") << QStringLiteral("clip.mp4") << QSize(320, 240) << 5000;
    QTest::newRow("Matroska") << QStringLiteral("clip.mkv") << QSize(8192, 16) << 400000;
}

/// It costs what was to be written then, each write is reported, and nothing that follows is lost. The trailer tells
/// of itself only, and here there is nothing to tell.
void FileSystemTest::diskThatWasFullForAWhile()
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
}

/// Its trailer has no table of fragments: that would name the lost ones, at places where others are now. Nor is there
/// a rest of them, although what comes is shorter.
void FileSystemTest::noTableOfFragmentsAfterALoss()
{
    constexpr int fragment = 24;
    constexpr int left = 2; // images that are not lost
    constexpr int limit = 6000; // bytes, in the second fragment
    IdleRecorder recorder;
    {
        const FileSizeLimit fileSizeLimit{rlim_t(limit)};
        QVERIFY(recorder->openOutput());
        encodeEach(recorder, 3 * fragment + left);
    }
    QVERIFY(recorder.criticals().size() == 2);
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

void FileSystemTest::fullDiskInTheFallback()
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

ORVANTIS_TEST(FileSystemTest)
#include "filesystem_test.moc"

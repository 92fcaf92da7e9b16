// Where the output is written: names that cannot be, what is there already, who may read it.
#include "idlerecorder.h"
#include "mediafile.h"
#include "mp4boxes.h"
#include "testregistry.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

namespace {

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

ORVANTIS_TEST(FileSystemTest)
#include "filesystem_test.moc"

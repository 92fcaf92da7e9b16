// Wrong arguments, places that cannot be written, and launchers that send what means nothing: the recorder logs it,
// and records what can be recorded.
#include "privatexserver.h"
#include "recordedfile.h"
#include "recordingscene.h"
#include "testregistry.h"
#include "truthwindowprocess.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QTest>

#include <sys/stat.h>

namespace {

const auto emptyId = QStringLiteral("macOS CoreGraphics capture received an empty window id.");
const auto clickLineStart = QStringLiteral("Recorder mouse click received ");

/// Random bytes with some structure of the protocol in them.
QByteArray garbage(quint32 seed, qsizetype size)
{
    QRandomGenerator random(seed);
    const QByteArrayList pieces{"click|", "|", "\n", "{\"action\":", "\"stop", "[", "}", "1e999", "\r\n",
        QByteArray(1, '\0'), "\xff\xfe", "\xc3", "-", ".", "\\u0000"};
    QByteArray bytes;
    while (bytes.size() < size) {
        if (random.bounded(3) == 0)
            bytes += char(random.bounded(256));
        else
            bytes += pieces[random.bounded(int(pieces.size()))];
    }
    return bytes;
}

}

class BadInputTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void windowIdsThatAreNone_data();
    void windowIdsThatAreNone();
    void windowIdAbove32Bits();
    void canvas_data();
    void canvas();
    void outputPaths_data();
    void outputPaths();
    void outputsThatCannotBeWritten_data();
    void outputsThatCannotBeWritten();
    void fileSizeLimit();
    void nonsenseFromTheLauncher();
    void floodOfClicks();
    void endlessLine();

private:
    PrivateXServer server_;
    std::unique_ptr<TruthWindowProcess> window_;
};

void BadInputTest::initTestCase()
{
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    window_ = std::make_unique<TruthWindowProcess>(server_.display());
    QVERIFY2(window_->id() != 0, qPrintable(window_->errorString()));
}

void BadInputTest::windowIdsThatAreNone_data()
{
    QTest::addColumn<QString>("id");
    QTest::newRow("zero") << "0";
    QTest::newRow("empty") << "";
    QTest::newRow("a word") << "window";
    QTest::newRow("hexadecimal") << "0x400001";
    QTest::newRow("negative") << "-1";
    QTest::newRow("above 64 bits") << "18446744073709551616";
}

void BadInputTest::windowIdsThatAreNone()
{
    QFETCH(QString, id);
    RecordingScene scene(server_.display(), 0);
    scene.command.window = id;
    QVERIFY(scene.recorder.start(scene.command.arguments()));
    QVERIFY2(scene.recorder.waitForEnd(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), 2);
    const QList<LogLine> log = scene.log();
    QCOMPARE(countLines(log, emptyId), 1);
    QCOMPARE(countLines(log, QStringLiteral("macOS CoreGraphics window capture setup failed.")), 1);
    QCOMPARE(countLines(log, QStringLiteral("macOS window capture is not available.")), 1);
    QCOMPARE(countLines(log, QStringLiteral("macOS screen recording")), 0);
    QVERIFY(!QFile::exists(scene.command.output));
}

void BadInputTest::windowIdAbove32Bits()
{
    RecordingScene scene(server_.display(), 0);
    scene.command.window = QString::number((quint64(5) << 32) + window_->id());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(100), scene.story());
    QVERIFY2(scene.stopAndExit(), scene.story());
    QCOMPARE(countLines(scene.log(),
                 QStringLiteral("macOS CoreGraphics capture configured for window %1").arg(window_->id())),
        1);
    QVERIFY2(playBack(scene.command.output).isWhole(), scene.story());
}

void BadInputTest::canvas_data()
{
    QTest::addColumn<QString>("width");
    QTest::addColumn<QString>("height");
    QTest::addColumn<QSize>("used"); // empty: no such recording can be made
    QTest::newRow("zero") << "0"
                          << "0" << QSize(16, 16);
    QTest::newRow("negative") << "-100"
                              << "-2147483648" << QSize(16, 16);
    QTest::newRow("odd") << "641"
                         << "33" << QSize(642, 34);
    QTest::newRow("a line") << "2000"
                            << "1" << QSize(2000, 16);
    QTest::newRow("huge") << "100000"
                          << "100000" << QSize();
    QTest::newRow("the largest int") << "2147483647"
                                     << "2147483647" << QSize();
}

void BadInputTest::canvas()
{
    QFETCH(QString, width);
    QFETCH(QString, height);
    QFETCH(QSize, used);
    RecordingScene scene(server_.display(), window_->id());
    scene.command.canvasWidth = width;
    scene.command.canvasHeight = height;
    if (used.isValid()) {
        QVERIFY2(scene.startRecording(), scene.story());
        QVERIFY2(scene.waitUntilRecorded(100), scene.story());
        QVERIFY2(scene.stopAndExit(), scene.story());
        const Playback file = playBack(scene.command.output);
        QVERIFY2(file.isWhole(), file.description());
        QCOMPARE(file.last.size(), used);
        return;
    }
    QVERIFY2(scene.start(), scene.story());
    QVERIFY2(scene.waitForLine(QStringLiteral("Unable to open FFmpeg FFV1 fallback encoder: ")), scene.story());
    QCOMPARE(countLines(scene.log(), QStringLiteral("Unable to open video encoder \"mpeg4\" : ")), 1);
    QCOMPARE(scene.stop(), std::optional<qint64>(0));
    QVERIFY2(scene.exit(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), 0);
}

void BadInputTest::outputPaths_data()
{
    QTest::addColumn<QString>("asked"); // below the test's directory
    QTest::addColumn<QString>("written");
    QTest::newRow("in directories that are not there") << "a/b/c/film.mp4"
                                                       << "a/b/c/film.mp4";
    QTest::newRow("a numbered name") << "rec_%03d.mov"
                                     << "rec_001.mp4";
    QTest::newRow("numbered otherwise") << "%d/rec_%d"
                                        << "1/rec_1.mp4";
    QTest::newRow("conversions of printf") << "%s%n%x %5d.mp4"
                                           << "%s%n%x %5d.mp4";
    QTest::newRow("roundabout") << "x/../y//./film.MP4"
                                << "y/film.MP4";
    QTest::newRow("looks like a protocol") << "file:film.mp4"
                                           << "file:film.mp4";
}

void BadInputTest::outputPaths()
{
    QFETCH(QString, asked);
    QFETCH(QString, written);
    RecordingScene scene(server_.display(), window_->id());
    const QDir directory(scene.directory.filePath(QStringLiteral("films")));
    scene.command.output = directory.path() + '/' + asked;
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.stopAndExit(), scene.story());
    const Playback file = playBack(directory.filePath(written));
    QVERIFY2(file.isWhole(), scene.story());
    QVERIFY(restOfLine(scene.log(), QStringLiteral("FFmpeg recorder finalized output "))
                .startsWith(QLatin1Char('"') + directory.filePath(written) + QLatin1Char('"')));
}

void BadInputTest::outputsThatCannotBeWritten_data()
{
    QTest::addColumn<QString>("output"); // %1 stands for the test's directory
    QTest::addColumn<QString>("reason");
    QTest::newRow("a directory") << "%1/directory.mp4"
                                 << "Is a directory";
    QTest::newRow("below a file") << "%1/file.txt/film.mp4"
                                  << "Not a directory";
    QTest::newRow("where nobody can write") << "/proc/films/film.mp4"
                                            << "No such file or directory";
    QTest::newRow("through a link to a device") << "%1/link.mp4"
                                                << "Too many levels of symbolic links";
    QTest::newRow("a pipe that nobody reads") << "%1/pipe.mp4"
                                              << "Operation not permitted";
}

void BadInputTest::outputsThatCannotBeWritten()
{
    QFETCH(QString, output);
    QFETCH(QString, reason);
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY(QDir().mkpath(scene.directory.filePath(QStringLiteral("directory.mp4"))));
    QFile file(scene.directory.filePath(QStringLiteral("file.txt")));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("precious") == 8);
    file.close();
    QVERIFY(QFile::link(QStringLiteral("/dev/full"), scene.directory.filePath(QStringLiteral("link.mp4"))));
    QCOMPARE(::mkfifo(QFile::encodeName(scene.directory.filePath(QStringLiteral("pipe.mp4"))).constData(), 0600), 0);
    scene.command.output = output.contains(QLatin1String("%1")) ? output.arg(scene.directory.path()) : output;

    QVERIFY2(scene.start(), scene.story());
    const QString line
        = QStringLiteral("Unable to open video output file \"%1\" : \"%2\"").arg(scene.command.output, reason);
    QVERIFY2(scene.waitForLine(line), scene.story());
    QCOMPARE(scene.stop(), std::optional<qint64>(0));
    QVERIFY2(scene.exit(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), 0);
    QCOMPARE(QFileInfo(file.fileName()).size(), 8);
}

/// A limit on the size of files is met like a full disk, in the middle of the recording.
void BadInputTest::fileSizeLimit()
{
    RecordingScene scene(server_.display(), window_->id());
    constexpr int limit = 400 * 512; // bytes; the shell counts blocks of 512
    scene.recorder.setWrapper({QStringLiteral("sh"), QStringLiteral("-c"),
        QStringLiteral("ulimit -f 400 && exec \"$@\""), QStringLiteral("sh")});
    QVERIFY2(scene.startRecording(), scene.story());
    const QString failed = QStringLiteral("Unable to write FFmpeg packet: \"File too large\"");
    QVERIFY2(scene.waitForLine(failed), scene.story());
    QVERIFY2(scene.waitForLine(failed, 2), scene.story()); // it goes on trying
    const auto durationMs = scene.stop();
    QVERIFY2(durationMs && *durationMs > 3000, scene.story());
    QVERIFY2(scene.exit(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), 0);
    QVERIFY(QFileInfo(scene.command.output).size() <= limit);
    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.ptsMs.size() >= 24, file.description()); // what was written can be read
}

void BadInputTest::nonsenseFromTheLauncher()
{
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY2(scene.startRecording(), scene.story());
    const QByteArrayList lines{"STOP", "stop", "\"stop\"", "[\"stop\"]", "{\"action\":\"STOP\"}",
        "{\"action\":[\"stop\"]}", "{\"action\":{\"stop\":1}}", "{\"action\":1}", "{\"action\":\"stop\"", "{}",
        "null", "{\"Action\":\"stop\"}", "{\"action\":\"stop\"} trailing", "{\"action\":\"\"}", "click", "click|",
        "click|1|2|3", "click |1|2|3|4", "CLICK|1|2|3|4", "clicks|1|2|3|4", "\xef\xbb\xbf{\"action\":\"stops\"}",
        QByteArray(20000, '['), QByteArray(5000, ' ') + "x", QByteArray(1000, '\0')};
    for (const QByteArray& line : lines)
        QVERIFY(scene.launcher.send(line + (line.size() % 2 == 0 ? "\n" : "\r\n")));
    QCOMPARE(countLines(scene.log(), clickLineStart), 0);
    for (quint32 seed = 1; seed <= 40; ++seed)
        QVERIFY(scene.launcher.send(garbage(seed, 3000)));
    const QByteArrayList clicks{"click|x|y|z|w", "click|1e400|-1e400|nan|inf", "click|||||",
        "click|1|2|0.5|0.5|99999999999999999999", "click|1|2|0.5|0.5|-9223372036854775808",
        "click|1|2|0.5|0.5|9223372036854775807", "click|1|2|0.5|0.5|1.5|7|8", "|1|2|3", "|1e309|-inf|nan|nan"};
    QVERIFY(scene.launcher.send("\n" + clicks.join("\n") + "\n"));

    QVERIFY2(scene.waitUntilRecorded(500), scene.story());
    QVERIFY(countLines(scene.log(), clickLineStart) >= clicks.size());
    QVERIFY2(scene.stopAndExit(), scene.story());
    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole() && file.ptsMs.last() >= 400.0, file.description());
}

void BadInputTest::floodOfClicks()
{
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY2(scene.startRecording(), scene.story());
    constexpr int clicks = 100'000;
    QByteArray flood;
    for (int i = 0; i < clicks; ++i)
        flood += "click|" + QByteArray::number(40 + i % 640) + "|200|0.5|0.5|1\n";
    QVERIFY(scene.launcher.send(flood));
    QVERIFY2(scene.stopAndExit(), scene.story());
    QCOMPARE(countLines(scene.log(), clickLineStart), clicks);
    QVERIFY2(playBack(scene.command.output).isWhole(), playBack(scene.command.output).description());
}

void BadInputTest::endlessLine()
{
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY(scene.launcher.send("click|1|2|0.5|0.5|" + QByteArray(3 * 1024 * 1024, '7')));
    QVERIFY(scene.launcher.send("\n"));
    QVERIFY2(scene.waitUntilRecorded(100), scene.story()); // the lines after it are obeyed
    QCOMPARE(countLines(scene.log(), clickLineStart + QStringLiteral("global QPointF(1,2)")), 0);
    QVERIFY2(scene.stopAndExit(), scene.story());
    QVERIFY2(playBack(scene.command.output).isWhole(), playBack(scene.command.output).description());
}

ORVANTIS_TEST(BadInputTest)
#include "badinput_test.moc"

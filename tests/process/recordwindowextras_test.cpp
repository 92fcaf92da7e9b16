// What record-window makes of a recording besides itself, and does with finished files, with the fake recorder.
#include "clipwriter.h"
#include "recordwindowprocess.h"
#include "testregistry.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

#include <array>
#include <csignal>
#include <pty.h>
#include <unistd.h>
#include <vector>

namespace {

const QStringList brief{"--window", "77", "--seconds", "0.1", "--output", "clip"};
constexpr int limitMs = 60'000;

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool write(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

/// Noise, which takes an encoder seconds. Made once; empty when that failed.
QString longClip()
{
    static const QTemporaryDir directory;
    static const QString path = [] {
        constexpr int frames = 700;
        const QSize size(640, 480);
        const QString made = directory.filePath(QStringLiteral("long.mp4"));
        ClipWriter writer(made, size);
        QImage frame(size, QImage::Format_RGB32);
        quint32 state = 1;
        bool written = true;
        for (int i = 0; i < frames && written; ++i) {
            for (int y = i % 8; y < size.height(); y += 8) {
                for (int x = 0; x < size.width(); ++x) {
                    state = state * 1664525 + 1013904223;
                    frame.setPixel(x, y, state >> 8);
                }
            }
            written = writer.add(frame, qint64(i) * 41);
        }
        return writer.finish() && written ? made : QString();
    }();
    return path;
}

QJsonObject result(RecordWindowProcess& launcher)
{
    return QJsonDocument::fromJson(launcher.standardOutput()).object();
}

bool isWebm(const QString& path)
{
    return contents(path).left(100).contains("webm");
}

QByteArray sha256(const QString& path)
{
    return QCryptographicHash::hash(contents(path), QCryptographicHash::Sha256).toHex();
}

}

class RecordWindowExtrasTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void recordingWithEverything();
    void copyThatFailsIsAWarning();
    void targetIsRefusedBeforeTheRecording_data();
    void targetIsRefusedBeforeTheRecording();
    void finishedRecordingIsShared();
    void resultStandsBelowTheProgress();
    void badRecordingMakesNothing_data();
    void badRecordingMakesNothing();
    void interruptedCopyLeavesNothing();
    void interruptionAfterTheRecordingCostsTheCopyOnly();
    void finishedRecordingIsVerified();
    void damageIsFound();
    void storyOfALog();
};

void RecordWindowExtrasTest::recordingWithEverything()
{
    RecordWindowProcess launcher;
    QCOMPARE(launcher.run(
                 brief + QStringList{"--share", "copy.webm", "--contact-sheet", "sheet.png", "--sha256", "--json"}),
        0);
    const QJsonObject json = result(launcher);
    QCOMPARE(json["share"].toString(), QFileInfo(launcher.path("copy.webm")).canonicalFilePath());
    QCOMPARE(json["contactSheet"].toString(), QFileInfo(launcher.path("sheet.png")).canonicalFilePath());
    QCOMPARE(json["sha256"].toString().toLatin1(), sha256(launcher.path("clip.mp4")));
    QVERIFY(isWebm(launcher.path("copy.webm")));
    QVERIFY(QImage(launcher.path("sheet.png")).width() > 4 * 64);
    QVERIFY2(launcher.standardError().contains("making the WebM copy  "), launcher.standardError());
    QCOMPARE(launcher.leftFiles(), (QStringList{"clip.mp4", "copy.webm", "sheet.png"}));
    RecordWindowProcess plain;
    QCOMPARE(plain.run(brief + QStringList{"--share", "copy.webm", "--sha256"}), 0);
    const QByteArray text = plain.standardOutput();
    QVERIFY2(text.contains("\nsha256    " + sha256(plain.path("clip.mp4")) + '\n'), text);
    QVERIFY2(text.contains("/copy.webm, "), text);
}

/// The recorder leaves something that is no video.
void RecordWindowExtrasTest::copyThatFailsIsAWarning()
{
    RecordWindowProcess launcher;
    QVERIFY(write(launcher.path("bad"), QByteArray(5000, 'x')));
    launcher.setEnvironment("FAKE_RECORDER_FILE", launcher.path("bad").toUtf8());
    QCOMPARE(launcher.run(brief + QStringList{"--share", "copy.webm", "--json"}), 8);
    const QJsonObject json = result(launcher);
    QVERIFY(json["share"].isNull());
    QVERIFY2(json["warnings"].toArray().last().toString().contains("cannot read "), launcher.standardError());
    QVERIFY(!QFile::exists(launcher.path("copy.webm")));
    QCOMPARE(launcher.leftFiles().filter("part"), QStringList());
}

void RecordWindowExtrasTest::targetIsRefusedBeforeTheRecording_data()
{
    QTest::addColumn<QStringList>("more");
    QTest::addColumn<QByteArray>("words");
    QTest::newRow("copy that is there") << QStringList{"--share", "there.webm"}
                                        << QByteArray("there.webm is there already; --force overwrites it");
    QTest::newRow("sheet that is there") << QStringList{"--contact-sheet", "there.png"}
                                         << QByteArray("there.png is there already; --force overwrites it");
    QTest::newRow("no directory") << QStringList{"--share", "no/copy.webm"} << QByteArray("there is no directory ");
    QTest::newRow("directory that takes no files")
        << QStringList{"--share", "/proc/copy.webm"} << QByteArray("cannot write into the directory /proc");
}

void RecordWindowExtrasTest::targetIsRefusedBeforeTheRecording()
{
    QFETCH(QStringList, more);
    QFETCH(QByteArray, words);
    RecordWindowProcess launcher;
    QVERIFY(write(launcher.path("there.webm"), "precious") && write(launcher.path("there.png"), "precious"));
    QCOMPARE(launcher.run(brief + more), 2);
    QVERIFY2(launcher.standardError().contains(words), launcher.standardError());
    QCOMPARE(launcher.note("process"), QByteArray());
    QCOMPARE(launcher.leftFiles(), QStringList({"there.png", "there.webm"}));
    QCOMPARE(contents(launcher.path("there.webm")), QByteArray("precious"));
}

void RecordWindowExtrasTest::finishedRecordingIsShared()
{
    RecordWindowProcess launcher;
    QCOMPARE(launcher.run(brief), 0);
    launcher.startWithout({"--share-only", "clip.mp4", "copy.webm"});
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitCode(), 0);
    QVERIFY(isWebm(launcher.path("copy.webm")));
    QVERIFY(write(launcher.path("copy.webm"), "precious"));
    launcher.startWithout({"--share-only", "clip.mp4", "copy.webm"});
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitCode(), 2);
    QCOMPARE(contents(launcher.path("copy.webm")), QByteArray("precious"));
    launcher.startWithout({"--share-only", "clip.mp4", "copy.webm", "--force"});
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitCode(), 0);
    QVERIFY(isWebm(launcher.path("copy.webm")));
}

/// On a terminal, where the progress is one line that changes.
void RecordWindowExtrasTest::resultStandsBelowTheProgress()
{
    RecordWindowProcess launcher;
    QCOMPARE(launcher.run(brief), 0);
    std::array<int, 2> ends{-1, -1};
    QCOMPARE(::openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr), 0);
    launcher.setEnvironment("TERM", "xterm");
    launcher.process().setChildProcessModifier([slave = ends[1]] {
        ::dup2(slave, STDOUT_FILENO);
        ::dup2(slave, STDERR_FILENO);
    });
    launcher.startWithout({"--share-only", "clip.mp4", "copy.webm"});
    const bool hasEnded = launcher.waitForEnd();
    ::close(ends[1]);
    QByteArray shown;
    char bytes[256];
    for (ssize_t size = 0; (size = ::read(ends[0], bytes, sizeof(bytes))) > 0;)
        shown.append(bytes, size);
    ::close(ends[0]);
    QVERIFY(hasEnded);
    QVERIFY2(shown.contains("\r\033[Kmaking the WebM copy  100 %\r\ncopy      /"), shown);
}

void RecordWindowExtrasTest::badRecordingMakesNothing_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("words");
    for (const char* task : {"--share-only", "--verify", "--explain"}) {
        const QStringList copy = qstrcmp(task, "--share-only") ? QStringList() : QStringList{"copy.webm"};
        const QByteArray cannot = qstrcmp(task, "--explain") ? "cannot read " : "is no log";
        const auto row = [&](const char* name, const QByteArray& words) {
            QTest::newRow(QByteArray(task) + ' ' + name) << QStringList{task, name} + copy << words;
        };
        row("missing", "there is no file missing");
        row("tmp", "tmp is no file");
        row("text", cannot);
        row("cut", qstrcmp(task, "--explain") ? "holds no video" : "is no log");
    }
}

void RecordWindowExtrasTest::badRecordingMakesNothing()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, words);
    RecordWindowProcess launcher;
    QCOMPARE(launcher.run(brief), 0);
    QVERIFY(write(launcher.path("text"), "hello\n"));
    QVERIFY(write(launcher.path("cut"), contents(launcher.path("clip.mp4")).left(300)));
    const QStringList before = launcher.leftFiles();
    launcher.startWithout(arguments);
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitCode(), 2);
    QVERIFY2(launcher.standardError().contains(words), launcher.standardError());
    QCOMPARE(launcher.leftFiles(), before);
}

void RecordWindowExtrasTest::interruptedCopyLeavesNothing()
{
    RecordWindowProcess launcher;
    QVERIFY(!longClip().isEmpty());
    for (const int signal : {SIGINT, SIGTERM}) {
        launcher.startWithout({"--share-only", longClip(), "copy.webm"});
        QTRY_VERIFY_WITH_TIMEOUT(!launcher.leftFiles().filter("part").isEmpty(), limitMs);
        QTRY_VERIFY_WITH_TIMEOUT(launcher.standardError().endsWith("%\n"), limitMs);
        launcher.interrupt(signal);
        QVERIFY(launcher.waitForEnd());
        QCOMPARE(launcher.process().exitCode(), 130);
        QVERIFY2(launcher.standardError().contains("interrupted; there is no copy"), launcher.standardError());
        QCOMPARE(launcher.leftFiles(), QStringList());
    }
}

void RecordWindowExtrasTest::interruptionAfterTheRecordingCostsTheCopyOnly()
{
    RecordWindowProcess launcher;
    QVERIFY(!longClip().isEmpty());
    launcher.setEnvironment("FAKE_RECORDER_FILE", longClip().toUtf8());
    launcher.start(brief + QStringList{"--share", "copy.webm"});
    QTRY_VERIFY_WITH_TIMEOUT(launcher.standardError().contains("making the WebM copy"), limitMs);
    launcher.interrupt(SIGINT);
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitCode(), 8);
    QVERIFY2(launcher.standardError().contains("interrupted; there is no copy"), launcher.standardError());
    QVERIFY(!QFile::exists(launcher.path("copy.webm")));
    QCOMPARE(launcher.leftFiles().filter("part"), QStringList());
    QCOMPARE(contents(launcher.path("clip.mp4")), contents(longClip()));
}

void RecordWindowExtrasTest::finishedRecordingIsVerified()
{
    RecordWindowProcess launcher;
    QCOMPARE(launcher.run(brief), 0);
    RecordWindowProcess verifier;
    const QString clip = launcher.path("clip.mp4");
    const QString relative = QDir(verifier.path(".")).relativeFilePath(clip);
    verifier.startWithout({"--verify", relative, "--sha256", "--contact-sheet", "sheet.png", "--json"});
    QVERIFY(verifier.waitForEnd());
    QCOMPARE(verifier.process().exitCode(), 0);
    const QJsonObject json = result(verifier);
    QCOMPARE(json["warnings"].toArray().size(), 0);
    QCOMPARE(json["video"].toObject()["frames"].toInt(), 31);
    QCOMPARE(json["video"].toObject()["decodedFrames"].toInt(), 31);
    QVERIFY(json["durationMs"].isNull() && json["recorderExitCode"].isNull());
    QCOMPARE(json["file"].toString(), QFileInfo(clip).canonicalFilePath()); // as after a recording
    QCOMPARE(json["sha256"].toString().toLatin1(), sha256(clip));
    QVERIFY(!QImage(verifier.path("sheet.png")).isNull());
    RecordWindowProcess plain;
    plain.startWithout({"--verify", clip});
    QVERIFY(plain.waitForEnd());
    QVERIFY2(plain.standardOutput().contains("\ndecoded   31 of 31 frames, 0 bad\ngaps      0 longer"),
        plain.standardOutput());
}

void RecordWindowExtrasTest::damageIsFound()
{
    RecordWindowProcess launcher;
    constexpr std::size_t samples = 48'000;
    ClipOptions options;
    options.withAudio = true;
    ClipWriter writer(launcher.path("gap.mp4"), QSize(64, 48), options);
    QImage frame(64, 48, QImage::Format_RGB32);
    frame.fill(Qt::blue);
    for (const qint64 atMs : {0, 41, 82, 3000, 3041})
        QVERIFY(writer.add(frame, atMs));
    QVERIFY(writer.addAudio(std::vector<float>(samples)) && writer.finish());
    launcher.startWithout({"--verify", "gap.mp4"});
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitCode(), 8);
    const QByteArray error = launcher.standardError();
    QVERIFY2(error.contains("the video holds no frame for 2.9"), error);
    QVERIFY2(error.contains("the audio lasts 1.0"), error);
}

void RecordWindowExtrasTest::storyOfALog()
{
    RecordWindowProcess launcher;
    QVERIFY(write(launcher.path("log.txt"),
        "Debug: recorder process identity pid 12 applicationFilePath \"/x\" (:0, )\n"
        "Warning: Continuing video recording without audio. (:0, )\n"));
    launcher.startWithout({"--explain", "log.txt"});
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitCode(), 0);
    const QByteArray text = launcher.standardOutput();
    QVERIFY2(text.contains("the recorder starts as process 12\n"), text);
    QVERIFY2(text.contains("-> there is no audio: the audio server cannot be reached"), text);
}

ORVANTIS_TEST(RecordWindowExtrasTest)
#include "recordwindowextras_test.moc"

// What another user can read of a recording, and what he can have it written to. To have another user takes root.
#include "anotheruser.h"
#include "privatexserver.h"
#include "recordedfile.h"
#include "recordingscene.h"
#include "recordwindowprocess.h"
#include "testregistry.h"
#include "truthwindowprocess.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <sys/stat.h>

class ForeignFilesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void othersCannotRead();
    void plantedOutputIsNotWritten_data();
    void plantedOutputIsNotWritten();
    void forgedLogIsNotBelieved();

private:
    PrivateXServer server_;
    std::unique_ptr<TruthWindowProcess> window_;
};

namespace {

/// Makes the scene's directory everybody's. Not a sticky one, where the kernel itself follows no foreign links.
bool open(const RecordingScene& scene)
{
    return ::chmod(QFile::encodeName(scene.directory.path()).constData(), 0777) == 0;
}

}

void ForeignFilesTest::initTestCase()
{
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    window_ = std::make_unique<TruthWindowProcess>(server_.display());
    QVERIFY2(window_->id() != 0, qPrintable(window_->errorString()));
}

void ForeignFilesTest::othersCannotRead()
{
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY(open(scene));
    QVERIFY(QFile::setPermissions(scene.command.logDirectory, QFile::Permissions(0x7777)));
    scene.command.output = scene.directory.filePath(QStringLiteral("made/out.mp4"));
    scene.recorder.setWrapper(
        {QStringLiteral("sh"), QStringLiteral("-c"), QStringLiteral("umask 0; exec \"$@\""), QStringLiteral("sh")});
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.stopAndExit(), scene.story());

    const QString log = RecorderProcess::logFile(scene.command.logDirectory);
    QVERIFY(!log.isEmpty());
    QCOMPARE(anotheruser::run(QStringLiteral("ls '%1'").arg(scene.command.logDirectory)), 0); // he is that far
    QVERIFY(anotheruser::run(QStringLiteral("cat '%1'").arg(log)) > 0);
    QVERIFY(anotheruser::run(QStringLiteral("echo >>'%1'").arg(log)) > 0);
    QVERIFY(anotheruser::run(QStringLiteral("ls '%1'").arg(QFileInfo(scene.command.output).path())) > 0);
    // And when he may look into the directory.
    QVERIFY(::chmod(QFile::encodeName(QFileInfo(scene.command.output).path()).constData(), 0755) == 0);
    QVERIFY(anotheruser::run(QStringLiteral("cat '%1'").arg(scene.command.output)) > 0);
    QVERIFY2(playBack(scene.command.output).isWhole(), playBack(scene.command.output).description());
}

void ForeignFilesTest::plantedOutputIsNotWritten_data()
{
    QTest::addColumn<QString>("planted"); // commands; $O is the output, $P a file of the recorder's user
    QTest::addColumn<QString>("why");
    QTest::newRow("a file that he can read") << "touch $O"
                                             << "it belongs to another user";
    QTest::newRow("a link to the user's file") << "ln -s $P $O"
                                               << "it is a symbolic link";
    QTest::newRow("a link to where he can read") << "touch $O.his; ln -s $O.his $O"
                                                 << "it is a symbolic link";
    QTest::newRow("a pipe") << "mkfifo -m 666 $O"
                            << "it is no regular file";
}

void ForeignFilesTest::plantedOutputIsNotWritten()
{
    QFETCH(QString, planted);
    QFETCH(QString, why);
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY(open(scene));
    QFile precious(scene.directory.filePath(QStringLiteral("precious")));
    QVERIFY(precious.open(QIODevice::WriteOnly) && precious.write("text") == 4);
    precious.close();
    QCOMPARE(
        anotheruser::run(QStringLiteral("O='%1' P='%2'; %3").arg(scene.command.output, precious.fileName(), planted)),
        0);

    QVERIFY2(scene.start(), scene.story());
    QVERIFY2(scene.waitForLine(QStringLiteral("Unable to open video output file \"%1\"").arg(scene.command.output)),
        scene.story());
    QCOMPARE(countLines(scene.log(),
                 QStringLiteral("Recorder does not write to the file that is there: \"%1\" %2")
                     .arg(scene.command.output, why)),
        1);
    QCOMPARE(scene.stop(), std::optional<qint64>(0));
    QVERIFY2(scene.exit(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), 0);
    QVERIFY(precious.open(QIODevice::ReadOnly));
    QCOMPARE(precious.readAll(), QByteArray("text"));
    QCOMPARE(QFileInfo(scene.command.output + QStringLiteral(".his")).size(), 0);
}

/// record-window learns from the log which file there is. Process ids can be guessed, and times can be set.
void ForeignFilesTest::forgedLogIsNotBelieved()
{
    RecordWindowProcess launcher;
    const QString logs = launcher.path(QStringLiteral("logs"));
    QVERIFY(::chmod(QFile::encodeName(launcher.path(QString())).constData(), 0711) == 0);
    QVERIFY(QDir().mkdir(logs) && ::chmod(QFile::encodeName(logs).constData(), 0777) == 0);
    QCOMPARE(anotheruser::run(QStringLiteral(
                 "cd '%1'; f=20990101T000000.000Z-orvantis-recorder-log.txt; "
                 "from=1; to=$(cat /proc/sys/kernel/pid_max); "
                 "[ $to -lt 100000 ] || { from=$$; to=$((from + 99999)); }; "
                 "seq -f 'Debug: recorder process identity pid %.0f applicationFilePath' $from $to >$f; "
                 "echo 'Debug: FFmpeg recorder finalized output \"/etc/passwd\" duration 1' >>$f; "
                 "touch -d '1 hour' $f")
                                  .arg(logs)),
        0);
    launcher.start({"--window", "77", "--seconds", "0.1", "--output", "recording.mp4", "--log-dir", logs, "--json"});
    QVERIFY(launcher.waitForEnd());
    const QByteArray said = launcher.standardOutput();
    QFile forged(logs + QStringLiteral("/20990101T000000.000Z-orvantis-recorder-log.txt"));
    QVERIFY(forged.open(QIODevice::ReadOnly));
    QVERIFY2(forged.readAll().contains(" pid " + QByteArray::number(launcher.recorderPid()) + ' '),
        "the forger has guessed wrong");
    QVERIFY2(said.contains("/recording.mp4\""), said);
    QVERIFY2(said.contains("/20260101T000000.000Z-orvantis-recorder-log.txt\""), said);
}

ORVANTIS_TEST(ForeignFilesTest)
#include "foreignfiles_test.moc"

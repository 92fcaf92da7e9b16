// record-window's options for finished files and for what is made of a recording: what goes together, what is
// refused.
#include "options.h"

#include "privatetempdir.h"
#include "testregistry.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <optional>

class CommandLineTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        directory_.emplace();
        QVERIFY(write(QStringLiteral("clip.mp4")));
    }
    void cleanup() { directory_.reset(); }

    void recordingWithExtras();
    void tasksOfFinishedFiles();
    void canvasAtItsBounds();
    void refusals_data();
    void refusals();
    void missingEncoderIsRefusedBeforeTheRecording_data();
    void missingEncoderIsRefusedBeforeTheRecording();

private:
    bool write(const QString& name) const
    {
        QFile file(directory_->filePath(name));
        return file.open(QIODevice::WriteOnly);
    }
    /// A "@" stands for the test's directory.
    CommandLine read(QStringList arguments, const EncoderLookup& lookup = &avcodec_find_encoder_by_name) const
    {
        for (QString& argument : arguments)
            argument.replace(QLatin1Char('@'), directory_->path());
        return readCommandLine(QStringList{"record-window"} + arguments, lookup);
    }

    std::optional<PrivateTempDir> directory_;
};

namespace {

const QStringList recording{"--window", "7", "--output", "@/new"};

}

void CommandLineTest::recordingWithExtras()
{
    const CommandLine line
        = read(recording + QStringList{"--share", "@/a.webm", "--contact-sheet", "@/b.PNG", "--sha256", "--force"});
    QCOMPARE(line.error, QString());
    QVERIFY(line.options && !line.task);
    QCOMPARE(line.options->extras.share, directory_->filePath("a.webm"));
    QCOMPARE(line.options->extras.contactSheet, directory_->filePath("b.PNG"));
    QVERIFY(line.options->extras.sha256 && line.options->extras.overwrite);
    // The output's directory is made when it is missing, and holds the copy then.
    QCOMPARE(read({"--window", "7", "--output", "@/x/new", "--share", "@/x/a.webm"}).error, QString());
}

void CommandLineTest::tasksOfFinishedFiles()
{
    const CommandLine verify = read({"--verify", "@/clip.mp4", "--json", "--sha256", "--contact-sheet", "@/a.png"});
    QCOMPARE(verify.error, QString());
    QVERIFY(verify.task && !verify.options && verify.task->kind == FileTask::Kind::Verify);
    QVERIFY(verify.task->json && verify.task->extras.sha256);
    QCOMPARE(verify.task->extras.contactSheet, directory_->filePath("a.png"));
    const CommandLine share = read({"--share-only", "@/clip.mp4", "@/a.webm", "--quiet"});
    QCOMPARE(share.error, QString());
    QVERIFY(share.task && share.task->kind == FileTask::Kind::Share && share.task->quiet);
    QCOMPARE(share.task->copy, directory_->filePath("a.webm"));
    const CommandLine explain = read({"--explain", "@/log"});
    QVERIFY(explain.error.isEmpty() && explain.task && explain.task->kind == FileTask::Kind::Explain);
    QCOMPARE(explain.task->file, directory_->filePath("log"));
}

void CommandLineTest::canvasAtItsBounds()
{
    for (const QSize size : {QSize(16, 8190), QSize(8190, 16)}) {
        const CommandLine line
            = read(recording + QStringList{"--canvas", QStringLiteral("%1x%2").arg(size.width()).arg(size.height())});
        QCOMPARE(line.error, QString());
        QCOMPARE(line.options->canvas, std::optional(size));
    }
}

void CommandLineTest::refusals_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("words");
    const auto row = [](const QStringList& arguments, const char* words) {
        QTest::newRow(qPrintable(arguments.join(' '))) << arguments << QString::fromLatin1(words);
    };
    row(recording + QStringList{"--share", "@/a.mp4"}, "is no name that ends in .webm");
    row(recording + QStringList{"--share", "@/clip.mp4"}, "is no name that ends in .webm");
    row(recording + QStringList{"--share", "@/no/a.webm"}, "--share: there is no directory ");
    row(recording + QStringList{"--contact-sheet", "@/a.jpg"}, "is no name that ends in .png");
    row(recording + QStringList{"a.webm"}, "unexpected argument 'a.webm'");
    row({"--verify", "@/clip.mp4", "--window", "7"}, "--window does not go with --verify");
    row({"--verify", "@/clip.mp4", "--share", "@/a.webm"}, "--share does not go with --verify");
    row({"--verify", "@/clip.mp4", "--contact-sheet", "@/clip.mp4"}, "is ");
    row({"--verify", ""}, "--verify: the name of the file is empty");
    row({"--verify", "@/clip.mp4", "b"}, "unexpected argument 'b'");
    row({"--verify", "@/clip.mp4", "--explain", "x"}, "--explain does not go with --verify");
    row({"--verify", "@/clip.mp4", "--list"}, "--list does not go with --verify");
    row({"--share-only", "@/clip.mp4"}, "the name of the copy is missing");
    row({"--share-only", "@/clip.mp4", "@/a.mkv"}, "is no name that ends in .webm");
    row({"--share-only", "@/clip.mp4", "@/clip.mp4", "--force"}, "is the recording itself");
    row({"--share-only", "@/clip.mp4", "@/no/a.webm"}, "there is no directory ");
    row({"--share-only", "@/clip.mp4", "@/a.webm", "b"}, "unexpected argument 'b'");
    row({"--share-only", "@/clip.mp4", "@/a.webm", "--sha256"}, "--sha256 does not go with --share-only");
    row({"--explain", "@/log", "--json"}, "--json does not go with --explain");
    for (const char* option : {"sha256", "active", "force", "quiet"})
        row({"--list", QLatin1String("--") + QLatin1String(option)},
            qPrintable(QStringLiteral("--%1 does not go with --list").arg(QLatin1String(option))));
    row({"--list", "--seconds", "3"}, "--seconds does not go with --list");
    for (const char* size : {"15x720", "1280x15", "8191x720", "1280x8191", "100000x100000"})
        row(recording + QStringList{"--canvas", size}, "each side 16 to 8190");
    // What looks like a place for another value is quoted as it is.
    row(recording + QStringList{"--canvas", "%1x%3"},
        "--canvas: '%1x%3' is no size (like 1280x720, in pixels, each ");
    row(recording + QStringList{"--seconds", "%3"}, "--seconds: '%3' is no number of seconds (0.001 to 1000000)");
    row(recording + QStringList{"--countdown", "%2"}, "--countdown: '%2' is no whole number of seconds (1 to 3600)");
    row(recording + QStringList{"--seconds", "0"}, "is no number of seconds (0.001 to 1000000)");
    row({"--title", "/(/", "--output", "@/new"}, "is no regular expression: missing closing parenthesis");
}

/// And nothing is made.
void CommandLineTest::refusals()
{
    QFETCH(const QStringList, arguments);
    QFETCH(const QString, words);
    const QString error = read(arguments).error;
    QVERIFY2(error.contains(words), qPrintable(error));
    QCOMPARE(QDir(directory_->path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList("clip.mp4"));
}

void CommandLineTest::missingEncoderIsRefusedBeforeTheRecording_data()
{
    QTest::addColumn<QByteArrayList>("missing");
    QTest::addColumn<QStringList>("more");
    QTest::addColumn<QString>("words");
    QTest::newRow("video") << QByteArrayList{"libvpx-vp9", "libvpx"} << QStringList() << QStringLiteral("libvpx");
    QTest::newRow("VP8 is enough") << QByteArrayList{"libvpx-vp9"} << QStringList() << QString();
    QTest::newRow("audio") << QByteArrayList{"libopus"} << QStringList() << QStringLiteral("libopus");
    QTest::newRow("unwanted audio") << QByteArrayList{"libopus"} << QStringList{"--audio", "none"} << QString();
}

void CommandLineTest::missingEncoderIsRefusedBeforeTheRecording()
{
    QFETCH(const QByteArrayList, missing);
    QFETCH(const QStringList, more);
    QFETCH(const QString, words);
    const auto lookup
        = [&](const char* name) { return missing.contains(name) ? nullptr : avcodec_find_encoder_by_name(name); };
    const QString error = read(recording + QStringList{"--share", "@/a.webm"} + more, lookup).error;
    QCOMPARE(error.isEmpty(), words.isEmpty());
    QVERIFY2(error.contains(words), qPrintable(error));
    QCOMPARE(read(recording, lookup).error, QString());
    QCOMPARE(QDir(directory_->path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList("clip.mp4"));
}

ORVANTIS_TEST(CommandLineTest)
#include "commandline_test.moc"

// The path that is written, from the name that the launcher asked for.
#include "idlerecorder.h"
#include "testregistry.h"

#include <QTest>

class OutputPathTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void normalised_data();
    void normalised();
    void normalisingAgainChangesNothing_data() { normalised_data(); }
    void normalisingAgainChangesNothing();
    void constructorNormalises();

private:
    IdleRecorder recorder_;
};

void OutputPathTest::normalised_data()
{
    QTest::addColumn<QString>("asked");
    QTest::addColumn<QString>("written");
    const auto row = [](const char* name, const char* asked, const char* written) {
        QTest::newRow(name) << QString::fromUtf8(asked) << QString::fromUtf8(written);
    };

    row("three-digit pattern", "/r/rec_%03d.mov", "/r/rec_001.mp4");
    row("plain pattern without a suffix", "/r/rec_%d", "/r/rec_1.mp4");
    row("both patterns", "/r/%03d%d", "/r/0011.mp4");
    row("patterns twice", "/r/%d-%d-%03d-%03d.mp4", "/r/1-1-001-001.mp4");
    row("pattern in a directory", "/r%d/%03d/clip.mp4", "/r1/001/clip.mp4");
    row("pattern as the suffix", "/r/clip.%d", "/r/clip.mp4");
    row("capital D is no pattern", "/r/rec_%03D_%D.mp4", "/r/rec_%03D_%D.mp4");
    row("other widths are no pattern", "/r/rec_%3d_%02d_%04d.mp4", "/r/rec_%3d_%02d_%04d.mp4");
    row("doubled percent is no escape", "/r/a%%d.mp4", "/r/a%1.mp4");
    row("pattern inside a pattern", "/r/%0%d3d.mp4", "/r/%013d.mp4");
    row("other conversions", "/r/%s_%i_%.mp4", "/r/%s_%i_%.mp4");

    row("suffix in capitals", "/r/clip.MP4", "/r/clip.MP4");
    row("suffix in mixed case", "/r/clip.Mp4", "/r/clip.Mp4");
    row("other suffix", "/r/clip.webm", "/r/clip.mp4");
    row("other suffix in capitals", "/r/CLIP.WEBM", "/r/CLIP.mp4");
    row("only the last suffix goes", "/r/a.b.mov", "/r/a.b.mp4");
    row("mp4 before the last suffix", "/r/clip.mp4.part", "/r/clip.mp4.mp4");
    row("suffix that begins with mp4", "/r/clip.mp42", "/r/clip.mp4");
    row("matroska is not kept", "/r/clip.mkv", "/r/clip.mp4");
    row("no suffix", "/r/clip", "/r/clip.mp4");
    row("ends in a dot", "/r/clip.", "/r/clip.mp4");
    row("ends in two dots", "/r/clip..", "/r/clip..mp4");
    row("dot in the directory only", "/r.d/clip", "/r.d/clip.mp4");
    row("the name is mp4", "/r/mp4", "/r/mp4.mp4");

    row("hidden name", "/r/.hidden", "/r/.hidden.mp4");
    row("hidden name with a suffix", "/r/.hidden.mov", "/r/.hidden.mp4");
    row("nothing but the suffix", "/r/.mp4", "/r/.mp4");
    row("empty", "", ".mp4");
    row("one dot", ".", "..mp4");
    row("two dots", "..", "..mp4");
    row("trailing slash", "/r/sub/", "/r/sub/.mp4");
    row("root", "/", "/.mp4");

    row("relative", "clip.webm", "clip.mp4");
    row("relative with a directory", "sub/clip.webm", "sub/clip.mp4");
    row("explicit current directory", "./clip.webm", "clip.mp4");
    row("parent directory", "../clip.webm", "../clip.mp4");
    row("dots and slashes", "/r//a/./b/../clip.mp4", "/r/a/clip.mp4");
    row("dots and slashes, other suffix", "/r//a/./b/../clip.mov", "/r/a/clip.mp4");

    row("blanks inside", "/my recordings/the clip.mov", "/my recordings/the clip.mp4");
    row("blanks around", " clip.mov ", " clip.mp4");
    row("only blanks", "  ", "  .mp4");
    row("accents", "/r/Prüfung été.mov", "/r/Prüfung été.mp4");
    row("beyond the basic plane", "/r/画面録画 🎬.mov", "/r/画面録画 🎬.mp4");
    row("backslash is a letter", "/r/a\\b.mov", "/r/a\\b.mp4");
    row("line feed", "/r/a\nb.mov", "/r/a\nb.mp4");
}

void OutputPathTest::normalised()
{
    QFETCH(const QString, asked);
    QFETCH(const QString, written);
    QCOMPARE(recorder_->normalizedOutputPath(asked), written);
}

/// Except for a name that comes out with a pattern in it.
void OutputPathTest::normalisingAgainChangesNothing()
{
    QFETCH(const QString, written);
    QCOMPARE(recorder_->normalizedOutputPath(written), written);
}

void OutputPathTest::constructorNormalises()
{
    IdleRecorder recorder(QStringLiteral("sub/../rec_%03d.mov"));
    QCOMPARE(recorder->outputPath(), recorder.filePath(QStringLiteral("rec_001.mp4")));
}

ORVANTIS_TEST(OutputPathTest)
#include "outputpath_test.moc"

// What record-window makes of the lines of the recorder's log.
#include "explanation.h"

#include "testregistry.h"

#include <QFile>
#include <QTest>

using Meaning = Explanation::Meaning;

class ExplanationTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void everyListedTextHasPlainWords_data();
    void everyListedTextHasPlainWords();
    void meaningOfALine_data();
    void meaningOfALine();
    void debugLinesMeanNothing();
    void unknownLineIsShownWithoutItsPlace();
};

void ExplanationTest::everyListedTextHasPlainWords_data()
{
    QTest::addColumn<QByteArray>("line");
    for (const char* name : {"required_texts.txt", "extra_texts.txt"}) {
        QFile file(QLatin1String(LOG_TEXTS "/") + QLatin1String(name));
        QVERIFY2(file.open(QIODevice::ReadOnly), name);
        for (const QByteArray& text : file.readAll().split('\n')) {
            const bool isWarning = text.startsWith("warning|");
            if (!isWarning && !text.startsWith("critical|"))
                continue;
            QByteArray words = text.mid(text.indexOf('|') + 1);
            QTest::newRow(words) << (isWarning ? "Warning: " : "Critical: ") + words.replace('|', " 1 ")
                    + " (file.cpp:1, void function())\n";
        }
    }
}

/// Either a sentence of its own, or silence because another line tells it; never the log's own words.
void ExplanationTest::everyListedTextHasPlainWords()
{
    QFETCH(QByteArray, line);
    const std::optional<Explanation> explanation = Explanation::of(line);
    QVERIFY2(!explanation || !explanation->sentence.contains("log says"), line);
}

void ExplanationTest::meaningOfALine_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<int>("meaning");
    const auto row
        = [](const char* line, Meaning meaning) { QTest::newRow(line) << QByteArray(line) << int(meaning); };
    row("Critical: Unable to open video output file \"/x.mp4\" : No space (a:1, b)", Meaning::NoRecording);
    row("Warning: Recorder does not write to the file that is there: \"/x.mp4\" (a:1, b)", Meaning::NoRecording);
    row("Critical: Unable to open FFmpeg FFV1 fallback encoder: Invalid argument (a:1, b)", Meaning::NoRecording);
    row("Critical: Unable to write FFmpeg packet: No space left on device (a:1, b)", Meaning::VideoHarmed);
    row("Warning: Continuing video recording without audio. (a:1, b)", Meaning::AudioHarmed);
    row("Warning: macOS ScreenCaptureKit audio stream stopped: gone (a:1, b)", Meaning::AudioHarmed);
    row("Critical: Unable to copy FFmpeg audio codec parameters: x (a:1, b)", Meaning::AudioHarmed);
    row("Warning: macOS CoreGraphics capture returned no image for window 7 (a:1, b)", Meaning::NoImage);
    row("Warning: Recording with FFV1 fallback because no (a:1, b)", Meaning::Remark);
    row("Critical: something new (a:1, b)", Meaning::VideoHarmed);
    row("Warning: something new (a:1, b)", Meaning::Remark);
}

void ExplanationTest::meaningOfALine()
{
    QFETCH(QByteArray, line);
    QFETCH(int, meaning);
    const std::optional<Explanation> explanation = Explanation::of(line);
    QVERIFY(explanation);
    QCOMPARE(int(explanation->meaning), meaning);
}

void ExplanationTest::debugLinesMeanNothing()
{
    QVERIFY(!Explanation::of("Debug: Unable to write FFmpeg packet: x (a:1, b)"));
    QVERIFY(!Explanation::of(" Critical: x"));
    QVERIFY(!Explanation::of(""));
}

void ExplanationTest::unknownLineIsShownWithoutItsPlace()
{
    const auto explanation = Explanation::of("Warning: new (1) \033[2J text (dir/file.cpp:12, void f(int) const)\n");
    QVERIFY(explanation);
    QCOMPARE(explanation->sentence, QStringLiteral("the recorder's log says: new (1) ?[2J text"));
}

ORVANTIS_TEST(ExplanationTest)
#include "explanation_test.moc"

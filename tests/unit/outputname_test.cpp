// What record-window makes of the name that it is given for the recording.
#include "outputname.h"

#include "privatetempdir.h"
#include "testregistry.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

class OutputNameTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void suffixIsAddedNotReplaced_data();
    void suffixIsAddedNotReplaced();
    void refusedNames_data();
    void refusedNames();
    void usualNameHasTheTimeAndIsFree();
    void fallbackHasAnotherSuffix();

private:
    PrivateTempDir directory_;
};

void OutputNameTest::suffixIsAddedNotReplaced_data()
{
    QTest::addColumn<QString>("given");
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("remarked");
    const auto row = [](const char* given, const char* name, bool remarked = false) {
        QTest::newRow(given) << QString::fromUtf8(given) << QString::fromUtf8(name) << remarked;
    };
    row("2026.11.21-demo", "2026.11.21-demo.mp4");
    row("clip", "clip.mp4");
    row("clip.mp4", "clip.mp4");
    row("clip.MP4", "clip.MP4");
    row("v1.2", "v1.2.mp4");
    row("clip.", "clip..mp4");
    row(".mp4", ".mp4.mp4");
    row("clip.mkv", "clip.mp4", true);
    row("-clip", "-clip.mp4");
    row("100%.done", "100%.done.mp4");
}

void OutputNameTest::suffixIsAddedNotReplaced()
{
    QFETCH(QString, given);
    QFETCH(QString, name);
    QFETCH(bool, remarked);
    const OutputName output = chooseOutputName(directory_.filePath(given), true, QDateTime());
    QCOMPARE(output.error, QString());
    QCOMPARE(output.path, directory_.filePath(name));
    QCOMPARE(!output.remark.isEmpty(), remarked);
}

void OutputNameTest::refusedNames_data()
{
    QTest::addColumn<QString>("given");
    QTest::addColumn<QString>("part");
    QTest::newRow("standard output") << "-"
                                     << "cannot go to standard output";
    QTest::newRow("device") << "/dev/null"
                            << "a device or a pipe";
    QTest::newRow("directory") << directory_.path() << "is no file name";
    QTest::newRow("empty") << ""
                           << "is no file name";
    QTest::newRow("other suffix") << "clip.webm"
                                  << "no .webm file";
    QTest::newRow("other suffix, capital") << "clip.GIF"
                                           << "no .GIF file";
    QTest::newRow("number") << "clip%03d.mp4"
                            << "replaces by a number";
    QTest::newRow("number in the directory") << "%d/clip.mp4"
                                             << "replaces by a number";
    QTest::newRow("link") << directory_.filePath("link.mp4") << "symbolic link";
    QTest::newRow("link that gets the suffix") << directory_.filePath("link") << "symbolic link";
    QVERIFY(QFile::link("/nowhere", directory_.filePath("link.mp4")));
}

void OutputNameTest::refusedNames()
{
    QFETCH(QString, given);
    QFETCH(QString, part);
    const OutputName output = chooseOutputName(given, true, QDateTime());
    QVERIFY2(output.error.contains(part), qPrintable(output.error));
    QVERIFY(output.error.startsWith("--output: "));
}

void OutputNameTest::usualNameHasTheTimeAndIsFree()
{
    const QString before = QDir::currentPath();
    QVERIFY(QDir::setCurrent(directory_.path()));
    const QDateTime now(QDate(2026, 11, 21), QTime(9, 5, 7));
    const OutputName first = chooseOutputName(QString(), false, now);
    QFile file(first.path);
    const bool made = file.open(QIODevice::WriteOnly);
    const OutputName second = chooseOutputName(QString(), false, now);
    QVERIFY(QDir::setCurrent(before));
    QVERIFY(made);
    QCOMPARE(QFileInfo(first.path).fileName(), QStringLiteral("recording-2026-11-21-090507.mp4"));
    QCOMPARE(QFileInfo(second.path).fileName(), QStringLiteral("recording-2026-11-21-090507-2.mp4"));
}

void OutputNameTest::fallbackHasAnotherSuffix()
{
    QCOMPARE(fallbackName("/a.b/c.d.mp4"), QStringLiteral("/a.b/c.d.mkv"));
}

ORVANTIS_TEST(OutputNameTest)
#include "outputname_test.moc"

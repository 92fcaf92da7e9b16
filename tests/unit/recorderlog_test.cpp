// Which file record-window takes for the log of its recorder, and what it reads in it.
#include "recorderlog.h"

#include "privatetempdir.h"
#include "testregistry.h"

#include <QDateTime>
#include <QFile>
#include <QTest>

#include <unistd.h>

namespace {

constexpr qint64 pid = 4711;
const QByteArray identity = "Debug: recorder process identity pid 4711 applicationFilePath \"/r\" (:0, )\n";
const QByteArray inUse
    = "Debug: FFmpeg recorder using video encoder \"mpeg4\" output \"/own.mp4\" container mp4 (:0, )\n";
const QByteArray finalized = "Debug: FFmpeg recorder finalized output \"/own.mp4\" duration 1 (:0, )\n";
const QByteArray forgery = "Debug: recorder process identity pid 4711 applicationFilePath \"/x\" (:0, )\n"
                           "Debug: FFmpeg recorder finalized output \"/forged.mp4\" duration 1 (:0, )\n";

}

class RecorderLogTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { directory_.emplace(); }
    void cleanup() { directory_.reset(); }

    void ownLogIsRead();
    void clockThatIsSetBackHidesNoLog();
    void othersDoNotCount_data();
    void othersDoNotCount();
    void onlyTheStartOfALineCounts_data();
    void onlyTheStartOfALineCounts();

private:
    QString logPath(const char* stamp) const
    {
        return directory_->filePath(QLatin1String(stamp) + QStringLiteral("-orvantis-recorder-log.txt"));
    }
    RecorderLog log() const
    {
        return RecorderLog(directory_->path(), pid, QDateTime::currentDateTimeUtc().addSecs(-2));
    }

    std::optional<PrivateTempDir> directory_;
};

namespace {

bool write(const QString& path, const QByteArray& bytes, qint64 ageSeconds = 0)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.flush()
        && file.setFileTime(QDateTime::currentDateTimeUtc().addSecs(-ageSeconds), QFileDevice::FileModificationTime);
}

}

void RecorderLogTest::ownLogIsRead()
{
    RecorderLog log = this->log();
    QCOMPARE(log.path(), QString());
    QCOMPARE(log.finalizedOutput(), QString());
    QVERIFY(write(logPath("2026"), identity));
    QCOMPARE(log.path(), logPath("2026"));
    QCOMPARE(log.outputInUse(), QString());
    QVERIFY(write(logPath("2026"), identity + inUse));
    QCOMPARE(log.outputInUse(), QStringLiteral("/own.mp4"));
    QCOMPARE(log.finalizedOutput(), QString());
    QVERIFY(write(logPath("2026"), identity + inUse + finalized));
    QCOMPARE(log.finalizedOutput(), QStringLiteral("/own.mp4"));
}

void RecorderLogTest::clockThatIsSetBackHidesNoLog()
{
    QVERIFY(write(logPath("2026"), identity));
    RecorderLog log = this->log();
    QCOMPARE(log.newLines(), QByteArrayList{identity.trimmed()});
    constexpr qint64 hourS = 3600;
    QVERIFY(write(logPath("2026"), identity + inUse + finalized, hourS));
    QCOMPARE(log.outputInUse(), QStringLiteral("/own.mp4"));
    QCOMPARE(log.finalizedOutput(), QStringLiteral("/own.mp4"));
    QCOMPARE(log.newLines().size(), 2);
}

void RecorderLogTest::othersDoNotCount_data()
{
    QTest::addColumn<QString>("planted");
    QTest::newRow("a link to another file") << "link";
    QTest::newRow("a second name of another file") << "twin";
    QTest::newRow("an old one") << "old";
    QTest::newRow("another process's") << "pid";
    QTest::newRow("one of another name") << "name";
    if (::geteuid() == 0) // who can give a file away
        QTest::newRow("another user's") << "foreign";
}

void RecorderLogTest::othersDoNotCount()
{
    QFETCH(QString, planted);
    constexpr qint64 later = -3600; // seconds old
    QVERIFY(write(logPath("2026"), identity + finalized));
    const QString forged = logPath("2099");
    const QString elsewhere = directory_->filePath(QStringLiteral("elsewhere"));
    if (planted == QLatin1String("link"))
        QVERIFY(write(elsewhere, forgery, later) && QFile::link(elsewhere, forged));
    else if (planted == QLatin1String("twin"))
        QVERIFY(write(elsewhere, forgery, later)
            && ::link(QFile::encodeName(elsewhere).constData(), QFile::encodeName(forged).constData()) == 0);
    else if (planted == QLatin1String("old"))
        QVERIFY(write(forged, forgery, 60));
    else if (planted == QLatin1String("pid"))
        QVERIFY(write(forged, QByteArray(forgery).replace("4711", "47110"), later));
    else if (planted == QLatin1String("name"))
        QVERIFY(write(directory_->filePath(QStringLiteral("2099.txt")), forgery, later));
    else
        QVERIFY(write(forged, forgery, later) && ::chown(QFile::encodeName(forged).constData(), 65534, 65534) == 0);
    RecorderLog log = this->log();
    QCOMPARE(log.path(), logPath("2026"));
    QCOMPARE(log.finalizedOutput(), QStringLiteral("/own.mp4"));

    // Nor when there is nothing else.
    QVERIFY(QFile::remove(logPath("2026")));
    QCOMPARE(this->log().path(), QString());
    QCOMPARE(log.finalizedOutput(), QString());
}

void RecorderLogTest::onlyTheStartOfALineCounts_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::newRow("an argument") << QByteArray("Debug: 3 ") + forgery.split('\n')[1];
    constexpr qsizetype often = 64 * 1024;
    for (const int more : {-2, -1, 0, 1, 2}) {
        QTest::addRow("behind an endless line, %d", more) << QByteArray(often + more, 'x') + forgery.split('\n')[1];
    }
    QTest::newRow("behind a line that is longer still") << QByteArray(5 * often, 'x') + forgery.split('\n')[1];
}

void RecorderLogTest::onlyTheStartOfALineCounts()
{
    QFETCH(QByteArray, line);
    QVERIFY(write(logPath("2026"), identity + line + '\n' + finalized));
    QCOMPARE(log().finalizedOutput(), QStringLiteral("/own.mp4"));
}

ORVANTIS_TEST(RecorderLogTest)
#include "recorderlog_test.moc"

// The output file that record-window holds for a recording: who gets it, and what is left of it.
#include "outputclaim.h"

#include "privatetempdir.h"
#include "testregistry.h"

#include <QFile>
#include <QTest>

#include <optional>

class OutputClaimTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { directory_.emplace(); }
    void cleanup() { directory_.reset(); }

    void emptyFileGoesWithTheClaim();
    void recordingStays();
    void secondClaimIsRefused();
    void nothingIsOverwrittenUnasked();
    void linkedFileIsRefused();
    void discardedFileWasNotThereBefore();

private:
    QString path(const char* name = "clip.mp4") const { return directory_->filePath(QLatin1String(name)); }
    bool write(const QString& to) const
    {
        QFile file(to);
        return file.open(QIODevice::WriteOnly) && file.write("x") == 1;
    }

    std::optional<PrivateTempDir> directory_;
};

void OutputClaimTest::emptyFileGoesWithTheClaim()
{
    {
        OutputClaim claim;
        QCOMPARE(claim.take(path(), false), QString());
        QVERIFY(QFile::exists(path()));
    }
    QVERIFY(!QFile::exists(path()));
}

void OutputClaimTest::recordingStays()
{
    {
        OutputClaim claim;
        QCOMPARE(claim.take(path(), false), QString());
        QVERIFY(write(path()));
    }
    QVERIFY(QFile::exists(path()));
}

void OutputClaimTest::secondClaimIsRefused()
{
    for (const bool overwriting : {false, true}) {
        OutputClaim first;
        QCOMPARE(first.take(path(), overwriting), QString());
        {
            OutputClaim second;
            QVERIFY(second.take(path(), true).contains("another record-window"));
        }
        QVERIFY(QFile::exists(path())); // the first one's
    }
    QCOMPARE(OutputClaim().take(path(), false), QString());
}

void OutputClaimTest::nothingIsOverwrittenUnasked()
{
    QVERIFY(write(path()));
    QVERIFY(OutputClaim().take(path(), false).contains("is there already; --force overwrites it"));
    QCOMPARE(OutputClaim().take(path(), true), QString());
    QVERIFY(QFile::exists(path()));
    QVERIFY(write(path("other.mkv")));
    QVERIFY(OutputClaim().take(path("other.mp4"), false).contains("other.mkv is there already"));
    QVERIFY(!QFile::exists(path("other.mp4")));
    QCOMPARE(OutputClaim().take(path("other.mp4"), true), QString());
}

void OutputClaimTest::linkedFileIsRefused()
{
    QVERIFY(write(path("target")));
    QVERIFY(QFile::link(path("target"), path()));
    QVERIFY(OutputClaim().take(path(), true).contains("symbolic link"));
    QVERIFY(OutputClaim().take(path("no/such/clip.mp4"), true).startsWith("cannot write "));
}

void OutputClaimTest::discardedFileWasNotThereBefore()
{
    {
        OutputClaim claim;
        QCOMPARE(claim.take(path(), false), QString());
        QVERIFY(write(path()));
        claim.discard(path());
    }
    QVERIFY(!QFile::exists(path()));
    {
        OutputClaim claim;
        QCOMPARE(claim.take(path(), false), QString());
        QVERIFY(write(path("clip.mkv")));
        claim.discard(path("clip.mkv"));
    }
    QVERIFY(!QFile::exists(path("clip.mkv")));
    QVERIFY(write(path()));
    OutputClaim claim;
    QCOMPARE(claim.take(path(), true), QString());
    claim.discard(path());
    QVERIFY(QFile::exists(path()));
}

ORVANTIS_TEST(OutputClaimTest)
#include "outputclaim_test.moc"

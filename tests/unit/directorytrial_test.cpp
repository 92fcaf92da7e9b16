// What record-window finds out about a directory before it records into it.
#include "directorytrial.h"

#include "filesizelimit.h"
#include "privatetempdir.h"
#include "testregistry.h"

#include <QDir>
#include <QFile>
#include <QTest>

class DirectoryTrialTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void directoryIsMade();
    void placeWithoutFiles();
    void fullDisk();

private:
    QStringList left() const
    {
        return QDir(directory_.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    }

    const PrivateTempDir directory_;
};

void DirectoryTrialTest::directoryIsMade()
{
    const QString made = directory_.filePath("a/b");
    QCOMPARE(whyNothingFitsInto(made), QString());
    QCOMPARE(QDir(made).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList());
    QVERIFY(QDir(directory_.filePath("a")).removeRecursively());
}

void DirectoryTrialTest::placeWithoutFiles()
{
    QFile file(directory_.filePath("file"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(
        whyNothingFitsInto(file.fileName()), QStringLiteral("cannot write into the directory ") + file.fileName());
    QVERIFY(file.remove());
}

/// A file is made there, and takes no bytes.
void DirectoryTrialTest::fullDisk()
{
    QString error;
    {
        const FileSizeLimit limit(4096);
        error = whyNothingFitsInto(directory_.path());
    }
    QVERIFY2(error.startsWith("cannot write into the directory " + directory_.path() + ": "), qPrintable(error));
    QCOMPARE(left(), QStringList());
}

ORVANTIS_TEST(DirectoryTrialTest)
#include "directorytrial_test.moc"

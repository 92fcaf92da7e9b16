// Replays the corpus of every fuzz target: what fuzzers have found stays mended.
#include "fuzztarget.h"
#include "testregistry.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <cstdio>

Q_DECLARE_METATYPE(const fuzz::Target*)

class FuzzCorpusTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void everyTargetHasItsCorpus();
    void replay_data();
    void replay();
};

void FuzzCorpusTest::everyTargetHasItsCorpus()
{
    QStringList names;
    for (const fuzz::Target* target : fuzz::targets())
        names.append(QLatin1String(target->name));
    names.sort();
    QCOMPARE(names, QDir(QStringLiteral(CORPUS)).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name));
}

void FuzzCorpusTest::replay_data()
{
    QTest::addColumn<const fuzz::Target*>("target");
    for (const fuzz::Target* target : fuzz::targets())
        QTest::newRow(target->name) << target;
}

/// A fault ends the process; the last name says which input it was.
void FuzzCorpusTest::replay()
{
    QFETCH(const fuzz::Target*, target);
    const QDir corpus(QStringLiteral(CORPUS "/") + QLatin1String(target->name));
    const QStringList names = corpus.entryList(QDir::Files);
    QVERIFY(names.size() >= 10);
    for (const QString& name : names) {
        QFile file(corpus.filePath(name));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray input = file.readAll();
        std::fprintf(stderr, "%s/%s\n", target->name, qPrintable(name));
        fuzz::run(*target, reinterpret_cast<const uint8_t*>(input.constData()), std::size_t(input.size()));
    }
}

ORVANTIS_TEST(FuzzCorpusTest)
#include "fuzzcorpus_test.moc"

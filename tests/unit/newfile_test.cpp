// A file that appears when it is whole, and the names that it may have.
#include "newfile.h"

#include "privatetempdir.h"
#include "testregistry.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <optional>

class NewFileTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { directory_.emplace(); }
    void cleanup() { directory_.reset(); }

    void appearsWhenItIsWhole();
    void nothingIsLeftWithoutCommit();
    void lateComerIsNotOverwritten();
    void overwritingIsAllowed();
    void longNameIsNoObstacle();
    void refusedNames_data();
    void refusedNames();
    void directoryThatWillBeMade();
    void sameFileUnderTwoNames();

private:
    QString path(const QString& name = QStringLiteral("clip.webm")) const { return directory_->filePath(name); }
    QStringList names() const { return QDir(directory_->path()).entryList(QDir::Files | QDir::Hidden); }
    static bool write(const QString& to, const QByteArray& text)
    {
        QFile file(to);
        return file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
    }
    static QByteArray contents(const QString& of)
    {
        QFile file(of);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    std::optional<PrivateTempDir> directory_;
};

void NewFileTest::appearsWhenItIsWhole()
{
    {
        NewFile file;
        QCOMPARE(file.make(path(), false), QString());
        QVERIFY(write(file.temporaryPath(), "whole"));
        QVERIFY(!QFile::exists(path()));
        QCOMPARE(file.commit(), QString());
    }
    QCOMPARE(names(), QStringList("clip.webm"));
    QCOMPARE(contents(path()), QByteArray("whole"));
    QCOMPARE(QFile(path()).permissions() & (QFile::ReadGroup | QFile::ReadOther), QFile::Permissions());
}

void NewFileTest::nothingIsLeftWithoutCommit()
{
    {
        NewFile file;
        QCOMPARE(file.make(path(), true), QString());
        QCOMPARE(names().size(), 1);
    }
    QCOMPARE(names(), QStringList());
}

void NewFileTest::lateComerIsNotOverwritten()
{
    {
        NewFile file;
        QCOMPARE(file.make(path(), false), QString());
        QVERIFY(write(path(), "precious"));
        QVERIFY(file.commit().contains("is there by now"));
    }
    QCOMPARE(names(), QStringList("clip.webm"));
    QCOMPARE(contents(path()), QByteArray("precious"));
}

void NewFileTest::overwritingIsAllowed()
{
    QVERIFY(write(path(), "old"));
    {
        NewFile file;
        QCOMPARE(file.make(path(), true), QString());
        QVERIFY(write(file.temporaryPath(), "new"));
        QCOMPARE(contents(path()), QByteArray("old"));
        QCOMPARE(file.commit(), QString());
    }
    QCOMPARE(names(), QStringList("clip.webm"));
    QCOMPARE(contents(path()), QByteArray("new"));
}

void NewFileTest::longNameIsNoObstacle()
{
    const QString name = QString(250, QLatin1Char('n')) + QStringLiteral(".webm");
    NewFile file;
    QCOMPARE(file.make(path(name), false), QString());
    QCOMPARE(file.commit(), QString());
    QVERIFY(QFile::exists(path(name)));
}

void NewFileTest::refusedNames_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("words");
    QTest::newRow("empty") << QString() << QStringLiteral("--share: '' is no file name");
    QTest::newRow("another suffix") << QStringLiteral("clip.mp4")
                                    << QStringLiteral("'clip.mp4' is no name that ends in .webm");
    QTest::newRow("only the suffix") << QStringLiteral(".webm") << QStringLiteral("is no name that ends in .webm");
    QTest::newRow("a place holder") << QStringLiteral("%1.mp4") << QStringLiteral("'%1.mp4' is no name");
    QTest::newRow("control characters") << QStringLiteral("a\033[2J") << QStringLiteral("'a?[2J'");
    QTest::newRow("no such directory") << QStringLiteral("/no/such/clip.webm")
                                       << QStringLiteral("there is no directory /no/such");
    QTest::newRow("a directory") << QStringLiteral("/") << QStringLiteral("is no file name");
}

void NewFileTest::refusedNames()
{
    QFETCH(const QString, name);
    QFETCH(const QString, words);
    const QString error
        = chooseNewFile(QStringLiteral("--share"), name, QStringLiteral(".webm"), true, QString()).error;
    QVERIFY2(error.contains(words), qPrintable(error));
}

void NewFileTest::directoryThatWillBeMade()
{
    const QString inside = path(QStringLiteral("new/clip.webm"));
    const QString option = QStringLiteral("--share");
    const QString suffix = QStringLiteral(".webm");
    QVERIFY(!chooseNewFile(option, inside, suffix, false, QString()).error.isEmpty());
    QCOMPARE(chooseNewFile(option, inside, suffix, false, path(QStringLiteral("new"))).error, QString());
    QVERIFY(write(path(), "there"));
    QVERIFY(chooseNewFile(option, path(), suffix, false, QString()).error.contains("--force"));
    QCOMPARE(chooseNewFile(option, path(), suffix, true, QString()).path, path());
    QVERIFY(QFile::link(path(), path(QStringLiteral("link.webm"))));
    QVERIFY(chooseNewFile(option, path(QStringLiteral("link.webm")), suffix, true, QString())
                .error.contains("symbolic link"));
}

void NewFileTest::sameFileUnderTwoNames()
{
    QVERIFY(write(path(), "x"));
    QVERIFY(QFile::link(path(), path(QStringLiteral("link"))));
    QVERIFY(isSameFile(path(), path(QStringLiteral("link"))));
    QVERIFY(!isSameFile(path(), path(QStringLiteral("missing"))));
    QVERIFY(!isSameFile(QString(), QString()));
}

ORVANTIS_TEST(NewFileTest)
#include "newfile_test.moc"

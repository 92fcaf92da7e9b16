// Which places count as nobody else's.
#include "trustedplace.h"

#include "privatetempdir.h"
#include "testregistry.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

class TrustedPlaceTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void directories_data();
    void directories();
    void administratorsMayWrite();
    void relativePaths();
    void currentDirectoryThatIsGone();
    void whatIsNoDirectory();
    void linkToItself();
    void sharedDirectories();
    void plugInDirectories_data();
    void plugInDirectories();
    void plugInsBehindALink();
    void directoryOfAnotherUser_data();
    void directoryOfAnotherUser();

private:
    /// Makes "a/b/c" and gives one of the directories a mode.
    void makeWay(const QString& changed, mode_t mode);
    QByteArray path(const QString& name) const { return QFile::encodeName(directory_->filePath(name)); }

    std::optional<PrivateTempDir> directory_;
};

namespace {

const auto nobodyElse = std::nullopt;

}

void TrustedPlaceTest::makeWay(const QString& changed, mode_t mode)
{
    directory_.emplace();
    QVERIFY(QDir(directory_->path()).mkpath(QStringLiteral("a/b/c")));
    QVERIFY(::chmod(path(changed).constData(), mode) == 0);
}

void TrustedPlaceTest::directories_data()
{
    QTest::addColumn<QString>("changed");
    QTest::addColumn<int>("mode");
    QTest::addColumn<QString>("asked");
    QTest::addColumn<bool>("trusted");
    const auto row = [](const char* name, const char* changed, int mode, const char* asked, bool trusted) {
        QTest::newRow(name) << QString::fromLatin1(changed) << mode << QString::fromLatin1(asked) << trusted;
    };
    row("all is private", "a/b/c", 0700, "a/b/c", true);
    row("all may read", "a/b/c", 0755, "a/b/c", true);
    row("the group may write", "a/b/c", 0775, "a/b/c", false);
    row("everybody may write", "a/b/c", 0757, "a/b/c", false);
    row("everybody may add", "a/b/c", 01777, "a/b/c", false);
    row("the group may write above", "a/b", 0775, "a/b/c", false);
    row("everybody may write far above", "a", 0757, "a/b/c", false);
    row("everybody may add above", "a/b", 01777, "a/b/c", true);
    row("everybody may write beside", "a/b", 0757, "a", true);
    row("back to what is private", "a/b", 0757, "a/b/..", false);
    row("back to what everybody may write", "a", 0757, "a/b/..", false);
    row("not there", "a", 0700, "a/x", false);
}

void TrustedPlaceTest::directories()
{
    QFETCH(QString, changed);
    QFETCH(int, mode);
    QFETCH(QString, asked);
    makeWay(changed, mode_t(mode));
    QTEST(trustedplace::isDirectory(path(asked), nobodyElse), "trusted");

    // The same through a link, which is private itself.
    QVERIFY(QDir(directory_->path()).mkdir(QStringLiteral("l")));
    QVERIFY(QFile::link(directory_->filePath(asked), directory_->filePath(QStringLiteral("l/whole"))));
    QTEST(trustedplace::isDirectory(path(QStringLiteral("l/whole")), nobodyElse), "trusted");
    QVERIFY(QFile::link(QStringLiteral("../") + asked, directory_->filePath(QStringLiteral("l/relative"))));
    QTEST(trustedplace::isDirectory(path(QStringLiteral("l/./relative//")), nobodyElse), "trusted");
    // And through one that others can replace.
    QVERIFY(::chmod(path(QStringLiteral("l")).constData(), 0757) == 0);
    QVERIFY(!trustedplace::isDirectory(path(QStringLiteral("l/whole")), nobodyElse));
}

void TrustedPlaceTest::administratorsMayWrite()
{
    makeWay(QStringLiteral("a/b"), 0775);
    struct stat status = {};
    QVERIFY(::stat(path(QStringLiteral("a/b")).constData(), &status) == 0);
    QVERIFY(trustedplace::isDirectory(path(QStringLiteral("a/b/c")), status.st_gid));
    QVERIFY(!trustedplace::isDirectory(path(QStringLiteral("a/b/c")), status.st_gid + 1));
    QVERIFY(::chmod(path(QStringLiteral("a/b")).constData(), 0777) == 0);
    QVERIFY(!trustedplace::isDirectory(path(QStringLiteral("a/b/c")), status.st_gid));
}

void TrustedPlaceTest::relativePaths()
{
    makeWay(QStringLiteral("a/b"), 0757);
    const QString before = QDir::currentPath();
    QVERIFY(QDir::setCurrent(directory_->filePath(QStringLiteral("a"))));
    const bool own = trustedplace::isDirectory("../a", nobodyElse);
    const bool open = trustedplace::isDirectory("b/c", nobodyElse);
    QVERIFY(QDir::setCurrent(before));
    QVERIFY(own);
    QVERIFY(!open);
}

/// What a relative path leads to is unknown then. Counted from the root, this one would be fine.
void TrustedPlaceTest::currentDirectoryThatIsGone()
{
    makeWay(QStringLiteral("a/b"), 0700);
    const QString before = QDir::currentPath();
    QVERIFY(QDir::setCurrent(directory_->filePath(QStringLiteral("a/b/c"))));
    QVERIFY(QDir(directory_->filePath(QStringLiteral("a"))).removeRecursively());
    const bool trusted = trustedplace::isDirectory("usr", nobodyElse);
    QVERIFY(QDir::setCurrent(before));
    QVERIFY(trustedplace::isDirectory("/usr", nobodyElse));
    QVERIFY(!trusted);
}

void TrustedPlaceTest::whatIsNoDirectory()
{
    makeWay(QStringLiteral("a"), 0700);
    QVERIFY(QFile(directory_->filePath(QStringLiteral("file"))).open(QIODevice::WriteOnly));
    QVERIFY(!trustedplace::isDirectory(path(QStringLiteral("file")), nobodyElse));
    QVERIFY(!trustedplace::isDirectory(QByteArray("/tmp\0", 5), nobodyElse));
    QVERIFY(trustedplace::isDirectory("/", nobodyElse));
    QVERIFY(trustedplace::isDirectory("/..", nobodyElse));
}

void TrustedPlaceTest::linkToItself()
{
    makeWay(QStringLiteral("a"), 0700);
    QVERIFY(QFile::link(QStringLiteral("itself"), directory_->filePath(QStringLiteral("itself"))));
    QVERIFY(!trustedplace::isDirectory(path(QStringLiteral("itself")), nobodyElse));
}

void TrustedPlaceTest::sharedDirectories()
{
    makeWay(QStringLiteral("a/b"), 01777);
    QVERIFY(trustedplace::isShared(path(QStringLiteral("a/b"))));
    QVERIFY(!trustedplace::isShared(path(QStringLiteral("a/b/c"))));
    QVERIFY(!trustedplace::isShared(path(QStringLiteral("x"))));
    QVERIFY(::chmod(path(QStringLiteral("a/b")).constData(), 0777) == 0);
    QVERIFY(!trustedplace::isShared(path(QStringLiteral("a/b")))); // there is nothing left to guard
    QVERIFY(::chmod(path(QStringLiteral("a/b")).constData(), 01755) == 0);
    QVERIFY(!trustedplace::isShared(path(QStringLiteral("a/b"))));
}

void TrustedPlaceTest::plugInDirectories_data()
{
    QTest::addColumn<QString>("changed");
    QTest::addColumn<int>("mode");
    QTest::addColumn<bool>("trusted");
    QTest::newRow("all is private") << QStringLiteral("a") << 0755 << true;
    QTest::newRow("the directory is open") << QStringLiteral("a") << 01777 << false;
    QTest::newRow("a kind's directory is open") << QStringLiteral("a/b") << 01777 << false;
    QTest::newRow("a file is open") << QStringLiteral("a/b/file") << 0646 << false;
    QTest::newRow("a file is the group's") << QStringLiteral("a/b/file") << 0664 << false;
    QTest::newRow("a file farther down, where Qt does not look") << QStringLiteral("a/b/c/file") << 0646 << true;
}

void TrustedPlaceTest::plugInDirectories()
{
    QFETCH(QString, changed);
    QFETCH(int, mode);
    makeWay(QStringLiteral("a"), 0755);
    for (const char* const name : {"a/b/file", "a/b/c/file"})
        QVERIFY(QFile(directory_->filePath(QLatin1String(name))).open(QIODevice::WriteOnly));
    QVERIFY(::chmod(path(changed).constData(), mode_t(mode)) == 0);
    QTEST(trustedplace::isPlugInDirectory(path(QStringLiteral("a")), nobodyElse), "trusted");
}

void TrustedPlaceTest::plugInsBehindALink()
{
    makeWay(QStringLiteral("a/b"), 0755);
    QVERIFY(QFile(directory_->filePath(QStringLiteral("a/b/file"))).open(QIODevice::WriteOnly));
    QVERIFY(QDir(directory_->path()).mkdir(QStringLiteral("l")));
    QVERIFY(QFile::link(QStringLiteral("../a/b"), directory_->filePath(QStringLiteral("l/b"))));
    QVERIFY(trustedplace::isPlugInDirectory(path(QStringLiteral("l")), nobodyElse));
    QVERIFY(::chmod(path(QStringLiteral("a/b/file")).constData(), 0646) == 0);
    QVERIFY(!trustedplace::isPlugInDirectory(path(QStringLiteral("l")), nobodyElse));
}

void TrustedPlaceTest::directoryOfAnotherUser_data()
{
    QTest::addColumn<QString>("given");
    QTest::addColumn<bool>("trusted");
    QTest::newRow("nothing") << QString() << true;
    // Only root can give a file away.
    if (::geteuid() == 0) {
        QTest::newRow("itself") << QStringLiteral("a/b/c") << false;
        QTest::newRow("above") << QStringLiteral("a") << false;
    }
}

void TrustedPlaceTest::directoryOfAnotherUser()
{
    QFETCH(QString, given);
    makeWay(QStringLiteral("a"), 0755);
    constexpr uid_t anotherUser = 65534;
    if (!given.isEmpty())
        QVERIFY(::chown(path(given).constData(), anotherUser, anotherUser) == 0);
    QTEST(trustedplace::isDirectory(path(QStringLiteral("a/b/c")), nobodyElse), "trusted");
}

ORVANTIS_TEST(TrustedPlaceTest)
#include "trustedplace_test.moc"

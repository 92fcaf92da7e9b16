// Files and directories that are nobody else's, as they are made, and as they are judged.
#include "privatefile.h"

#include "privatetempdir.h"
#include "testregistry.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t permissions = 07777;

QByteArray contents(const QByteArray& path)
{
    QFile file(QFile::decodeName(path));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool write(const QByteArray& path, const QByteArray& bytes)
{
    QFile file(QFile::decodeName(path));
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

mode_t modeOf(const QByteArray& path)
{
    struct stat status = {};
    return ::lstat(path.constData(), &status) == 0 ? status.st_mode & permissions : permissions + 1;
}

/// Sets the process's umask for its lifetime.
class Umask {
public:
    explicit Umask(mode_t mask) : before_(::umask(mask)) { }
    ~Umask() { ::umask(before_); }
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;

private:
    mode_t before_;
};

}

class PrivateFileTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { directory_.emplace(); }
    void cleanup() { directory_.reset(); }

    void newFile_data();
    void newFile();
    void ownFileIsEmptied();
    void refused_data();
    void refused();
    void systemSaysNo();
    void directories();
    void directoryThatCannotBe();

private:
    QByteArray path(const char* name) const { return QFile::encodeName(directory_->filePath(QLatin1String(name))); }

    std::optional<PrivateTempDir> directory_;
};

void PrivateFileTest::newFile_data()
{
    QTest::addColumn<int>("mask");
    QTest::newRow("nothing is taken away") << 0;
    QTest::newRow("usual") << 022;
    QTest::newRow("everything is taken away") << 0777;
}

void PrivateFileTest::newFile()
{
    QFETCH(int, mask);
    const Umask umask{mode_t(mask)};
    const privatefile::Opened file = privatefile::openEmpty(path("new"));
    QVERIFY2(file.descriptor >= 0, std::strerror(file.error));
    QCOMPARE(file.refusal, nullptr);
    QCOMPARE(modeOf(path("new")), mode_t(0600));
    QVERIFY(::fcntl(file.descriptor, F_GETFD) & FD_CLOEXEC);
    QCOMPARE(::write(file.descriptor, "text", 4), ssize_t(4));
    ::close(file.descriptor);
    QCOMPARE(contents(path("new")), QByteArray("text"));
}

void PrivateFileTest::ownFileIsEmptied()
{
    QVERIFY(write(path("old"), "what was in it"));
    QCOMPARE(::chmod(path("old").constData(), 0666), 0);
    const privatefile::Opened file = privatefile::openEmpty(path("old"));
    QVERIFY2(file.descriptor >= 0, std::strerror(file.error));
    QCOMPARE(modeOf(path("old")), mode_t(0600));
    QCOMPARE(contents(path("old")), QByteArray());
    ::close(file.descriptor);

    QVERIFY(write(path("old"), "text"));
    const privatefile::Opened read = privatefile::openToRead(path("old"));
    QVERIFY2(read.descriptor >= 0, std::strerror(read.error));
    char bytes[16] = {};
    QCOMPARE(::read(read.descriptor, bytes, sizeof(bytes)), ssize_t(4));
    QCOMPARE(QByteArray(bytes), QByteArray("text"));
    ::close(read.descriptor);
}

void PrivateFileTest::refused_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("error");
    QTest::addColumn<QByteArray>("why");
    QTest::newRow("link to a file") << "link" << ELOOP << QByteArray("it is a symbolic link");
    QTest::newRow("link to nothing") << "dangling" << ELOOP << QByteArray("it is a symbolic link");
    QTest::newRow("pipe") << "pipe" << EPERM << QByteArray("it is no regular file");
    QTest::newRow("device") << "/dev/null" << EPERM << QByteArray("it is no regular file");
    QTest::newRow("one of two names") << "twin" << EMLINK << QByteArray("it has more than one name");
    QTest::newRow("directory") << "directory" << EISDIR << QByteArray();
    if (::geteuid() == 0) // who can give a file away
        QTest::newRow("another user's") << "foreign" << EACCES << QByteArray("it belongs to another user");
}

void PrivateFileTest::refused()
{
    QFETCH(QString, name);
    QFETCH(int, error);
    QFETCH(QByteArray, why);
    QVERIFY(
        write(path("file"), "precious") && write(path("other"), "precious") && write(path("foreign"), "precious"));
    QVERIFY(::geteuid() != 0 || ::chown(path("foreign").constData(), 65534, 65534) == 0);
    QVERIFY(::symlink("file", path("link").constData()) == 0);
    QVERIFY(::symlink("missing", path("dangling").constData()) == 0);
    QVERIFY(::link(path("other").constData(), path("twin").constData()) == 0);
    QVERIFY(::mkfifo(path("pipe").constData(), 0666) == 0);
    QVERIFY(::mkdir(path("directory").constData(), 0700) == 0);

    const QByteArray asked = QFile::encodeName(directory_->filePath(name));
    const QByteArray whole = name.startsWith('/') ? QFile::encodeName(name) : asked;
    const mode_t mode = modeOf(whole);
    for (const auto& open : {privatefile::openEmpty, privatefile::openToRead}) {
        const privatefile::Opened file = open(whole);
        QVERIFY(file.descriptor < 0);
        QCOMPARE(file.error, error);
        QCOMPARE(QByteArray(file.refusal), why);
    }
    QCOMPARE(modeOf(whole), mode);
    for (const char* const file : {"file", "other", "foreign"})
        QCOMPARE(contents(path(file)), QByteArray("precious"));
    QVERIFY(!QFileInfo::exists(directory_->filePath(QStringLiteral("missing"))));
}

void PrivateFileTest::systemSaysNo()
{
    QVERIFY(write(path("file"), "x"));
    QCOMPARE(privatefile::openEmpty(path("missing/file")).error, ENOENT);
    QCOMPARE(privatefile::openEmpty(path("file/file")).error, ENOTDIR);
    QCOMPARE(privatefile::openEmpty(path("file/file")).refusal, nullptr);
    QCOMPARE(privatefile::openToRead(path("missing")).error, ENOENT);
    QVERIFY(!QFileInfo::exists(directory_->filePath(QStringLiteral("missing"))));
}

void PrivateFileTest::directories()
{
    const Umask umask(0);
    QVERIFY(::mkdir(path("a").constData(), 0755) == 0);
    QVERIFY(privatefile::makeDirectories(path("a/b/c")));
    QCOMPARE(modeOf(path("a")), mode_t(0755)); // it was there
    QCOMPARE(modeOf(path("a/b")), mode_t(0700));
    QCOMPARE(modeOf(path("a/b/c")), mode_t(0700));
    QVERIFY(privatefile::makeDirectories(path("a/b/c")));
    QVERIFY(privatefile::makeDirectories("/"));
}

void PrivateFileTest::directoryThatCannotBe()
{
    QVERIFY(write(path("file"), "x"));
    QVERIFY(!privatefile::makeDirectories(path("file")));
    QVERIFY(!privatefile::makeDirectories(path("file/a/b")));
    QVERIFY(!privatefile::makeDirectories(QByteArray()));
}

ORVANTIS_TEST(PrivateFileTest)
#include "privatefile_test.moc"

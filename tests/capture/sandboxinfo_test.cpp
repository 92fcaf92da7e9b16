// What a sandboxed program may put in the place of the file that names its application.
#include "linux/pipewire/sandboxinfo.h"
#include "testregistry.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <sys/stat.h>
#include <unistd.h>

using sandboxinfo::applicationId;
using sandboxinfo::parseApplicationId;

namespace {

const QByteArray plainText = "[Application]\nname=org.example.Player\nruntime=runtime/org.example/x86_64/1\n\n"
                             "[Instance]\nname=other\n";

/// A value that a parser of settings takes for a list of one list of one list, and so on: each is a type and a count,
/// four bytes each.
QByteArray nestedVariant(int depth)
{
    const QByteArray list(R"(\0\0\0\x9\0\0\0\x1)");
    return "[Application]\nname=@Variant(" + list.repeated(depth) + ")\n";
}

}

class SandboxInfoTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void texts_data();
    void texts();
    void file();
    void noFile();
    void nestedVariantIsText();
    void hugeFileIsReadInPart();
    void linkIsNotFollowed();
    void pipeIsNotWaitedFor();
    void directoryAndDeviceAreRefused();

private:
    bool write(const QByteArray& text);
    QByteArray path() const { return QFile::encodeName(root_->filePath(QStringLiteral(".flatpak-info"))); }

    std::unique_ptr<QTemporaryDir> root_;
};

void SandboxInfoTest::init()
{
    root_ = std::make_unique<QTemporaryDir>();
    QVERIFY(root_->isValid());
}

bool SandboxInfoTest::write(const QByteArray& text)
{
    QFile file(QFile::decodeName(path()));
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
}

void SandboxInfoTest::texts_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("expected");
    const auto row = [](const char* name, const QByteArray& text, const char* expected) {
        QTest::newRow(name) << text << QString::fromLatin1(expected);
    };
    row("plain", plainText, "org.example.Player");
    row("blanks", " [Application] \r\n name = org.example.Player \r\n", "org.example.Player");
    row("another section first", "[Runtime]\nname=other\n[Application]\nname=org.example.A\n", "org.example.A");
    row("the first counts", "[Application]\nname=a\nname=b\n[Application]\nname=c\n", "a");
    row("last line", "[Application]\nname=a", "a");
    row("no section", "name=a\n", "");
    row("another section", "[Instance]\nname=a\n", "");
    row("another key", "[Application]\nname2=a\n=b\nnam=c\n", "");
    row("no value", "[Application]\nname\nname=\n", "");
    row("no id", "[Application]\nname=a b\n", "");
    row("quoted", "[Application]\nname=\"a\"\n", "");
    row("a typed value", "[Application]\nname=@ByteArray(a)\n", "");
    row("too long", "[Application]\nname=" + QByteArray(256, 'a') + '\n', "");
    row("nothing", QByteArray(), "");
    row("not text", QByteArray("\0\xff\n[", 4), "");
}

void SandboxInfoTest::texts()
{
    QFETCH(QByteArray, text);
    QTEST(parseApplicationId(text), "expected");
}

void SandboxInfoTest::file()
{
    QVERIFY(write(plainText));
    QCOMPARE(applicationId(root_->path()), QStringLiteral("org.example.Player"));
}

void SandboxInfoTest::noFile()
{
    QCOMPARE(applicationId(root_->path()), QString());
    QCOMPARE(applicationId(root_->filePath(QStringLiteral("none"))), QString());
}

/// Whoever follows its nesting has no stack left.
void SandboxInfoTest::nestedVariantIsText()
{
    QVERIFY(write(nestedVariant(200'000)));
    QCOMPARE(applicationId(root_->path()), QString());
}

void SandboxInfoTest::hugeFileIsReadInPart()
{
    QVERIFY(write(QByteArray(64 * 1024, '\n') + plainText));
    QCOMPARE(applicationId(root_->path()), QString());
    QVERIFY(write(plainText));
    QCOMPARE(::truncate(path().constData(), off_t(1) << 40), 0); // a hole of a terabyte behind it
    QCOMPARE(applicationId(root_->path()), QStringLiteral("org.example.Player"));
}

void SandboxInfoTest::linkIsNotFollowed()
{
    const QString elsewhere = root_->filePath(QStringLiteral("elsewhere"));
    QFile file(elsewhere);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(plainText) == plainText.size());
    file.close();
    QCOMPARE(::symlink(QFile::encodeName(elsewhere).constData(), path().constData()), 0);
    QCOMPARE(applicationId(root_->path()), QString());
}

void SandboxInfoTest::pipeIsNotWaitedFor()
{
    QCOMPARE(::mkfifo(path().constData(), 0600), 0);
    QCOMPARE(applicationId(root_->path()), QString());
}

void SandboxInfoTest::directoryAndDeviceAreRefused()
{
    QCOMPARE(::mkdir(path().constData(), 0700), 0);
    QCOMPARE(applicationId(root_->path()), QString());
    QCOMPARE(::rmdir(path().constData()), 0);
    QCOMPARE(::symlink("/dev/zero", path().constData()), 0);
    QCOMPARE(applicationId(root_->path()), QString());
}

ORVANTIS_TEST(SandboxInfoTest)
#include "sandboxinfo_test.moc"

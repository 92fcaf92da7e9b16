// Device strings, bundle roots, and which applications belong to the wanted one.
#include "audioselection.h"
#include "testregistry.h"

#include <QTest>

using namespace audioselection;
using platform::AudioApplication;

class AudioSelectionTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void deviceString_data();
    void deviceString();
    void bundleRoot_data();
    void bundleRoot();
    void belonging_data();
    void belonging();
    void orderIsKept();
    void everyExecutableIsAskedForOnce();
};

void AudioSelectionTest::deviceString_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("device");
    QTest::addColumn<bool>("appOnly");
    QTest::addColumn<qint64>("appPid");

    QTest::newRow("empty: display") << ""
                                    << "" << false << qint64(0);
    QTest::newRow("anything: display") << "display"
                                       << "display" << false << qint64(0);
    QTest::newRow("pid") << "app-pid:4242"
                         << "app-pid:4242" << true << qint64(4242);
    QTest::newRow("blanks around the device") << "  app-pid:4242\t\n"
                                              << "app-pid:4242" << true << qint64(4242);
    QTest::newRow("blanks around the number") << " app-pid:  4242 "
                                              << "app-pid:  4242" << true << qint64(4242);
    QTest::newRow("text") << "app-pid:abc"
                          << "app-pid:abc" << true << qint64(0);
    QTest::newRow("nothing") << "app-pid:"
                             << "app-pid:" << true << qint64(0);
    QTest::newRow("zero") << "app-pid:0"
                          << "app-pid:0" << true << qint64(0);
    QTest::newRow("negative") << "app-pid:-5"
                              << "app-pid:-5" << true << qint64(0);
    QTest::newRow("hexadecimal") << "app-pid:0x10"
                                 << "app-pid:0x10" << true << qint64(0);
    QTest::newRow("fraction") << "app-pid:12.0"
                              << "app-pid:12.0" << true << qint64(0);
    QTest::newRow("two numbers") << "app-pid:12 13"
                                 << "app-pid:12 13" << true << qint64(0);
    QTest::newRow("plus sign") << "app-pid:+12"
                               << "app-pid:+12" << true << qint64(12);
    QTest::newRow("largest") << "app-pid:9223372036854775807"
                             << "app-pid:9223372036854775807" << true << std::numeric_limits<qint64>::max();
    QTest::newRow("64-bit overflow") << "app-pid:9223372036854775808"
                                     << "app-pid:9223372036854775808" << true << qint64(0);
    QTest::newRow("capitals: display") << "APP-PID:4242"
                                       << "APP-PID:4242" << false << qint64(0);
    QTest::newRow("blank before the colon: display") << "app-pid :4242"
                                                     << "app-pid :4242" << false << qint64(0);
    QTest::newRow("prefix in the middle: display") << "x app-pid:4"
                                                   << "x app-pid:4" << false << qint64(0);
}

void AudioSelectionTest::deviceString()
{
    QFETCH(const QString, text);
    const Device parsed = parseDevice(text);
    QTEST(parsed.text, "device");
    QTEST(parsed.appOnly, "appOnly");
    QTEST(parsed.appPid, "appPid");
}

void AudioSelectionTest::bundleRoot_data()
{
    QTest::addColumn<QString>("executable");
    QTest::addColumn<QString>("root");

    QTest::newRow("bundle") << "/Applications/Player.app/Contents/MacOS/Player"
                            << "/Applications/Player.app";
    QTest::newRow("nested: the first") << "/A/Big.app/Contents/Frameworks/Small.app/Contents/MacOS/x"
                                       << "/A/Big.app";
    QTest::newRow("no contents folder") << "/Applications/Player.app/Player"
                                        << "";
    QTest::newRow("plain program") << "/usr/bin/player"
                                   << "";
    QTest::newRow("wrong case") << "/Applications/Player.APP/Contents/MacOS/Player"
                                << "";
    QTest::newRow("longer suffix") << "/Applications/Player.application/Contents/MacOS/Player"
                                   << "";
    QTest::newRow("empty") << ""
                           << "";
}

void AudioSelectionTest::bundleRoot()
{
    QFETCH(const QString, executable);
    QTEST(appBundleRoot(executable), "root");
}

void AudioSelectionTest::belonging_data()
{
    QTest::addColumn<QString>("targetBundle");
    QTest::addColumn<QString>("targetName");
    QTest::addColumn<QString>("targetRoot");
    QTest::addColumn<int>("pid");
    QTest::addColumn<QString>("bundle");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("executable");
    QTest::addColumn<bool>("belongs");

    const QString root = "/Applications/Player.app";
    QTest::newRow("same process") << "a.b"
                                  << "Player" << root << 42 << ""
                                  << ""
                                  << "" << true;
    QTest::newRow("other process") << "a.b"
                                   << "Player" << root << 43 << "c.d"
                                   << "Other"
                                   << "/usr/bin/x" << false;
    QTest::newRow("helper inside the bundle") << ""
                                              << "" << root << 43 << ""
                                              << "" << root + "/Contents/Helpers/X" << true;
    QTest::newRow("executable is the root") << ""
                                            << "" << root << 43 << ""
                                            << "" << root << true;
    QTest::newRow("the slash after the root is required")
        << ""
        << "" << root << 43 << ""
        << ""
        << "/Applications/Player.application/Contents/MacOS/X" << false;
    QTest::newRow("root in another case") << ""
                                          << "" << root << 43 << ""
                                          << ""
                                          << "/applications/player.app/x" << false;
    QTest::newRow("no root") << ""
                             << ""
                             << "" << 43 << ""
                             << ""
                             << "/usr/bin/x" << false;
    QTest::newRow("root without executable") << ""
                                             << "" << root << 43 << ""
                                             << ""
                                             << "" << false;
    QTest::newRow("same bundle identifier") << "a.b"
                                            << "Player"
                                            << "" << 43 << "a.b"
                                            << "Else"
                                            << "" << true;
    QTest::newRow("bundle identifier in another case") << "a.b"
                                                       << ""
                                                       << "" << 43 << "A.B"
                                                       << ""
                                                       << "" << false;
    QTest::newRow("names are not compared beside a bundle") << "a.b"
                                                            << "Player"
                                                            << "" << 43 << ""
                                                            << "Player"
                                                            << "" << false;
    QTest::newRow("same name without a bundle") << ""
                                                << "Player"
                                                << "" << 43 << ""
                                                << "Player"
                                                << "" << true;
    QTest::newRow("same name, candidate has a bundle") << ""
                                                       << "Player"
                                                       << "" << 43 << "c.d"
                                                       << "Player"
                                                       << "" << true;
    QTest::newRow("empty names are no names") << ""
                                              << ""
                                              << "" << 43 << ""
                                              << ""
                                              << "" << false;
    QTest::newRow("empty bundles are no bundles") << ""
                                                  << "Player"
                                                  << "" << 43 << ""
                                                  << "Else"
                                                  << "" << false;
}

void AudioSelectionTest::belonging()
{
    QFETCH(const QString, targetBundle);
    QFETCH(const QString, targetName);
    QFETCH(const QString, targetRoot);
    QFETCH(const int, pid);
    QFETCH(const QString, bundle);
    QFETCH(const QString, name);
    QFETCH(const QString, executable);
    const Target target{42, targetBundle, targetName, QString(), targetRoot};
    QTEST(belongsTo(target, AudioApplication{pid, bundle, name}, executable), "belongs");
}

void AudioSelectionTest::orderIsKept()
{
    const std::vector<AudioApplication> applications{
        {7, "", "x"}, {42, "", "p"}, {9, "", "y"}, {8, "", "p"}, {1, "", ""}};
    const Partition result = partition({42, "", "p", "", ""}, applications, [](qint64) { return QString(); });
    QCOMPARE(result.allowed, (std::vector<std::size_t>{1, 3}));
    QCOMPARE(result.excluded, (std::vector<std::size_t>{0, 2, 4}));
}

void AudioSelectionTest::everyExecutableIsAskedForOnce()
{
    std::vector<qint64> asked;
    partition({42, "", "p", "", ""}, {{7, "", ""}, {42, "", ""}, {9, "", ""}}, [&asked](qint64 pid) {
        asked.push_back(pid);
        return QString();
    });
    QCOMPARE(asked, (std::vector<qint64>{7, 42, 9}));
}

ORVANTIS_TEST(AudioSelectionTest)
#include "audioselection_test.moc"

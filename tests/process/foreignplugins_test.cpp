// Plug-ins that another user puts where the recorder looks for its own are not loaded. To have another user takes
// root.
#include "anotheruser.h"
#include "recordingscene.h"
#include "testregistry.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const QByteArray loaded = "the foreign plug-in is loaded\n";
const auto refusal = QStringLiteral("Plug-ins are not loaded from a place that other users can change: ");

/// A common directory, as /tmp is one, with the user's own copy of the recorder in it, and the plug-in for whoever
/// wants it.
class CommonDirectory {
public:
    CommonDirectory() : scene(QByteArray(), 0)
    {
        const QString library = QStringLiteral(FOREIGN_PLUGIN);
        isMade_ = ::chmod(QFile::encodeName(scene.directory.path()).constData(), 0711) == 0 && QDir().mkdir(path())
            && ::chmod(QFile::encodeName(path()).constData(), 01777) == 0 && QFile::copy(library, plugIn())
            && ::chmod(QFile::encodeName(plugIn()).constData(), 0644) == 0;
    }

    QString path(const QString& name = QString()) const
    {
        return scene.directory.filePath(name.isEmpty() ? QStringLiteral("common") : QStringLiteral("common/") + name);
    }
    QString plugIn() const { return scene.directory.filePath(QStringLiteral("plugin.so")); }

    /// The commands name the directory $D and the plug-in $P.
    bool prepare(const QString& own, const QString& others)
    {
        const QString names = QStringLiteral("D='%1' P='%2'; ").arg(path(), plugIn());
        return isMade_ && QProcess::execute(QStringLiteral("sh"), {QStringLiteral("-ec"), names + own}) == 0
            && anotheruser::run(names + others) == 0;
    }

    /// The recorder's copy, with too few arguments for a recording. False when it does not end well.
    bool run(const QString& binary)
    {
        if (!QDir().mkpath(QFileInfo(binary).absolutePath())
            || !QFile::copy(RecorderProcess::defaultBinary(), binary))
            return false;
        scene.recorder.setBinary(binary);
        return scene.recorder.start({scene.command.logDirectory}) && scene.recorder.waitForEnd();
    }

    RecordingScene scene;

private:
    bool isMade_ = false;
};

}

class ForeignPlugInsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void ownPlugInIsLoaded();
    void plantedPlugInIsNot_data();
    void plantedPlugInIsNot();
    void notFromTheCurrentDirectory();
    void notFromBesideTheExecutable();
    void configurationBesideTheExecutableDoesNotCount();
};

/// Nothing was found that is the attacker's, and the recorder came to its end.
#define VERIFY_NOT_LOADED(common)                                                                                    \
    QVERIFY2(!(common).scene.recorder.standardError().contains(loaded), (common).scene.story());                     \
    QCOMPARE((common).scene.recorder.exitCode(), 0);                                                                 \
    QVERIFY2(countLines((common).scene.log(), QStringLiteral("invalid param count")) == 1, (common).scene.story())

/// What the other tests look for would be seen.
void ForeignPlugInsTest::ownPlugInIsLoaded()
{
    CommonDirectory common;
    QVERIFY(
        common.prepare(QStringLiteral("mkdir -p $D/own/PlugIns/platforms; cp $P $D/own/PlugIns/platforms/libq.so"),
            QStringLiteral("true")));
    QVERIFY(common.run(common.path(QStringLiteral("own/bin/orvantis-recorder"))));
    QVERIFY2(common.scene.recorder.standardError().contains(loaded), common.scene.story());
    QCOMPARE(countLines(common.scene.log(), refusal), 0);
}

void ForeignPlugInsTest::plantedPlugInIsNot_data()
{
    QTest::addColumn<QString>("own"); // commands of the user
    QTest::addColumn<QString>("others"); // and of the attacker
    QTest::addColumn<QString>("executables"); // the recorder's directory in the common one
    const QString plant = QStringLiteral("mkdir -p $D/PlugIns/platforms; cp $P $D/PlugIns/platforms/libqminimal.so");
    QTest::newRow("the directory") << QStringLiteral("true") << plant << QStringLiteral("bin");
    QTest::newRow("the directory farther up")
        << QStringLiteral("true") << plant << QStringLiteral("App/Contents/Helpers/bin");
    QTest::newRow("a link to it") << QStringLiteral("true")
                                  << QStringLiteral("mkdir -p $D/x/platforms; cp $P $D/x/platforms/libqminimal.so; "
                                                    "ln -s x $D/PlugIns")
                                  << QStringLiteral("bin");
    QTest::newRow("into an own directory that is open")
        << QStringLiteral("mkdir -p $D/PlugIns/platforms; chmod 1777 $D/PlugIns/platforms")
        << QStringLiteral("cp $P $D/PlugIns/platforms/libqminimal.so") << QStringLiteral("bin");
    QTest::newRow("over an own file that is open")
        << QStringLiteral("mkdir -p $D/PlugIns/platforms; touch $D/PlugIns/platforms/libqminimal.so; "
                          "chmod 666 $D/PlugIns/platforms/*")
        << QStringLiteral("cat $P >$D/PlugIns/platforms/libqminimal.so") << QStringLiteral("bin");
    QTest::newRow("behind an own link") << QStringLiteral("mkdir -p $D/PlugIns; ln -s ../x $D/PlugIns/platforms")
                                        << QStringLiteral("mkdir $D/x; cp $P $D/x/libqminimal.so")
                                        << QStringLiteral("bin");
}

void ForeignPlugInsTest::plantedPlugInIsNot()
{
    QFETCH(QString, own);
    QFETCH(QString, others);
    QFETCH(QString, executables);
    CommonDirectory common;
    QVERIFY(common.prepare(own, others));
    QVERIFY(common.run(common.path(executables + QStringLiteral("/orvantis-recorder"))));
    VERIFY_NOT_LOADED(common);
    QCOMPARE(countLines(common.scene.log(), refusal), 1);
    const QString variable = restOfLine(common.scene.log(), QStringLiteral("recorder environment "));
    QVERIFY2(variable.startsWith(QLatin1String("QT_PLUGIN_PATH \"\" ")), qPrintable(variable));
}

/// Found through PATH, the recorder is called by its bare name.
void ForeignPlugInsTest::notFromTheCurrentDirectory()
{
    CommonDirectory common;
    QVERIFY(common.prepare(QStringLiteral("true"),
        QStringLiteral("mkdir -p $D/work $D/PlugIns/platforms; cp $P $D/PlugIns/platforms/libqminimal.so")));
    const QString binary = common.scene.directory.filePath(QStringLiteral("bin/orvantis-recorder"));
    common.scene.recorder.setWrapper({QStringLiteral("sh"), QStringLiteral("-c"),
        QStringLiteral("cd '%1' && PATH='%2' && shift && exec orvantis-recorder \"$@\"")
            .arg(common.path(QStringLiteral("work")), QFileInfo(binary).absolutePath()),
        QStringLiteral("sh")});
    QVERIFY(common.run(binary));
    VERIFY_NOT_LOADED(common);
    QCOMPARE(common.scene.log().first().text, QStringLiteral("0 orvantis-recorder"));
    QCOMPARE(countLines(common.scene.log(), refusal), 1);
}

void ForeignPlugInsTest::notFromBesideTheExecutable()
{
    CommonDirectory common;
    QVERIFY(common.prepare(QStringLiteral("true"), QStringLiteral("mkdir $D/platforms; cp $P $D/platforms/libq.so")));
    common.scene.recorder.setVariable(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("foreign;minimal"));
    common.scene.recorder.setVariable(QStringLiteral("QT_PLUGIN_PATH"), QStringLiteral("/nowhere"));
    QVERIFY(common.run(common.path(QStringLiteral("orvantis-recorder"))));
    VERIFY_NOT_LOADED(common);
    QCOMPARE(countLines(common.scene.log(), refusal), 1);
    const QString variable = restOfLine(common.scene.log(), QStringLiteral("recorder environment "));
    QVERIFY2(variable.startsWith(QLatin1String("QT_PLUGIN_PATH \"/nowhere\" ")), qPrintable(variable));
    const QString paths = restOfLine(common.scene.log(), QStringLiteral("recorder Qt library paths "));
    QVERIFY2(!paths.contains(common.path()), qPrintable(paths));
}

/// A file qt.conf says where Qt finds what belongs to it.
void ForeignPlugInsTest::configurationBesideTheExecutableDoesNotCount()
{
    CommonDirectory common;
    QVERIFY(common.prepare(QStringLiteral("true"),
        QStringLiteral("mkdir -p $D/x/platforms; cp $P $D/x/platforms/libqminimal.so; "
                       "printf '[Paths]\\nPrefix=.\\nPlugins=x\\n' >$D/qt.conf; cp $D/qt.conf $D/qt6.conf")));
    QVERIFY(common.run(common.path(QStringLiteral("orvantis-recorder"))));
    VERIFY_NOT_LOADED(common);
}

ORVANTIS_TEST(ForeignPlugInsTest)
#include "foreignplugins_test.moc"

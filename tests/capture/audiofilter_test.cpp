// Which players an application's audio consists of, while they come and go.
#include "audiofixture.h"
#include "linux/pipewire/processtable.h"
#include "testregistry.h"
#include "x11fixture.h"

#include "privatetempdir.h"

#include <QFile>
#include <QTest>

#include <memory>

using namespace audiotest;

namespace {

QString playCommand(double frequency)
{
    return QStringLiteral("'%1' --frequency %2").arg(ToneProcess::program()).arg(frequency);
}

/// Waits for the file, then plays with this shell's child; the shell stays.
QStringList playLater(const QString& file, double frequency)
{
    return OtherProcess::shell(
        QStringLiteral("while ! test -e '%1'; do sleep 0.05; done; %2; true").arg(file, playCommand(frequency)));
}

/// Counts the players that the server knows.
int players(PrivateAudioServer& server)
{
    const std::optional<QByteArray> dump = server.output(QStringLiteral("pw-dump"), {QStringLiteral("Node")});
    return dump ? int(dump->count("\"media.class\": \"Stream/Output/Audio\"")) : -1;
}

}

class AudioFilterTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();

    void playerThatStartsLaterIsHeard();
    void playerOfAWantedProcessStartsLater();
    void helperOfAWantedWindow_data();
    void helperOfAWantedWindow();
    void helperOfAnExcludedWindow_data();
    void helperOfAnExcludedWindow();
    void helperOfAnExcludedPlayer();
    void selectedShellIsFound();
    void processesThatAreNobodys();

private:
    std::unique_ptr<ServerForTest> server_;
    std::unique_ptr<DisplayForTest> display_;
};

void AudioFilterTest::init()
{
    server_.reset();
    server_ = std::make_unique<ServerForTest>();
    QVERIFY2(server_->server.isRunning(), qPrintable(server_->server.errorString()));
    display_ = std::make_unique<DisplayForTest>();
    QVERIFY2(display_->server.isRunning(), qPrintable(display_->server.errorString()));
}

void AudioFilterTest::playerThatStartsLaterIsHeard()
{
    const OtherProcess wanted;
    const ToneProcess unwanted(ToneProcess::tone(QStringLiteral("unwanted"), otherTone));
    AudioPuller puller(std::set<qint64>{wanted.pid()});
    QVERIFY2(puller.isCapturing(), qPrintable(puller.errorString()));
    QVERIFY(isSilent(puller.listen(300)));
    const ToneProcess later(ToneProcess::tone(QStringLiteral("later"), tone));
    QVERIFY(hears(puller, tone));
    QVERIFY(levelDb(puller.listen(500, 0), otherTone) < unheardDb);
}

/// It was there before as a process, without a stream.
void AudioFilterTest::playerOfAWantedProcessStartsLater()
{
    PrivateTempDir directory;
    const QString go = directory.filePath(QStringLiteral("go"));
    const OtherProcess wanted(QStringLiteral("sh"),
        OtherProcess::shell(
            QStringLiteral("while ! test -e '%1'; do sleep 0.05; done; exec %2").arg(go, playCommand(tone))));
    const OtherProcess unwanted(QStringLiteral("sh"),
        OtherProcess::shell(
            QStringLiteral("while ! test -e '%1'; do sleep 0.05; done; exec %2").arg(go, playCommand(otherTone))));
    AudioPuller puller(std::set<qint64>{wanted.pid()});
    QVERIFY2(puller.isCapturing(), qPrintable(puller.errorString()));
    QVERIFY(QFile(go).open(QIODevice::WriteOnly));
    QVERIFY(hears(puller, tone));
    QTRY_COMPARE_WITH_TIMEOUT(players(server_->server), 2, limitMs);
    QVERIFY(levelDb(puller.listen(500, 0), otherTone) < unheardDb);
}

void AudioFilterTest::helperOfAWantedWindow_data()
{
    QTest::addColumn<bool>("before");
    QTest::newRow("runs before") << true;
    QTest::newRow("starts later") << false;
}

void AudioFilterTest::helperOfAWantedWindow()
{
    QFETCH(bool, before);
    const ToneProcess unwanted(ToneProcess::tone(QStringLiteral("unwanted"), otherTone));
    WindowProcess window;
    const QByteArray command = "run exec " + playCommand(tone).toLocal8Bit();
    if (before) {
        QVERIFY(window.send(command));
        QTRY_COMPARE_WITH_TIMEOUT(players(server_->server), 2, limitMs);
    }
    AudioPuller puller(std::set<qint64>{window.pid()});
    QVERIFY2(puller.isCapturing(), qPrintable(puller.errorString()));
    if (!before)
        QVERIFY(window.send(command));
    QVERIFY(hears(puller, tone));
    QVERIFY(levelDb(puller.listen(500, 0), otherTone) < unheardDb);
}

void AudioFilterTest::helperOfAnExcludedWindow_data()
{
    helperOfAWantedWindow_data();
}

void AudioFilterTest::helperOfAnExcludedWindow()
{
    QFETCH(bool, before);
    const ToneProcess wanted(ToneProcess::tone(QStringLiteral("wanted"), tone));
    WindowProcess window;
    const QByteArray command = "run exec " + playCommand(otherTone).toLocal8Bit();
    if (before) {
        QVERIFY(window.send(command));
        QTRY_COMPARE_WITH_TIMEOUT(players(server_->server), 2, limitMs);
    }
    AudioPuller puller(std::set<qint64>{wanted.pid()});
    QVERIFY(hears(puller, tone));
    const std::size_t first = puller.audio().size();
    if (!before)
        QVERIFY(window.send(command));
    QTRY_COMPARE_WITH_TIMEOUT(players(server_->server), 2, limitMs);
    QVERIFY(isFull(levelDb(audioanalysis::channelOf(cleanAudio(puller, 1000, tone), 2, 0), tone)));
    const std::vector<float> audio(puller.audio().begin() + std::ptrdiff_t(first), puller.audio().end());
    QVERIFY(levelDb(audioanalysis::channelOf(audio, 2, 0), otherTone) < unheardDb);
}

void AudioFilterTest::helperOfAnExcludedPlayer()
{
    PrivateTempDir directory;
    const QString go = directory.filePath(QStringLiteral("go"));
    // A player whose child waits for the file and then starts another one.
    const OtherProcess excluded(QStringLiteral("sh"),
        OtherProcess::shell(QStringLiteral("(while ! test -e '%1'; do sleep 0.05; done; %2; true) & exec %3")
                                .arg(go, playCommand(otherTone), playCommand(2 * otherTone))));
    const ToneProcess wanted(ToneProcess::tone(QStringLiteral("wanted"), tone));
    QTRY_COMPARE_WITH_TIMEOUT(players(server_->server), 2, limitMs);
    AudioPuller puller(std::set<qint64>{wanted.pid()});
    QVERIFY(hears(puller, tone));
    QVERIFY(QFile(go).open(QIODevice::WriteOnly));
    QTRY_COMPARE_WITH_TIMEOUT(players(server_->server), 3, limitMs);
    const std::vector<float> audio = audioanalysis::channelOf(cleanAudio(puller, 1000, tone), 2, 0);
    QVERIFY(isFull(levelDb(audio, tone)));
    QVERIFY(levelDb(audio, otherTone) < unheardDb);
    QVERIFY(levelDb(audio, 2 * otherTone) < unheardDb);
}

/// It has neither a window nor a stream, and yet it is what a user may have chosen: a terminal's shell.
void AudioFilterTest::selectedShellIsFound()
{
    PrivateTempDir directory;
    const QString go = directory.filePath(QStringLiteral("go"));
    const OtherProcess shell(QStringLiteral("sh"), playLater(go, tone));
    const ToneProcess unwanted(ToneProcess::tone(QStringLiteral("unwanted"), otherTone));
    AudioPuller puller(std::set<qint64>{shell.pid()});
    QVERIFY2(puller.isCapturing(), qPrintable(puller.errorString()));
    QVERIFY(isSilent(puller.listen(300)));
    QVERIFY(QFile(go).open(QIODevice::WriteOnly));
    QVERIFY(hears(puller, tone));
    QVERIFY(levelDb(puller.listen(500, 0), otherTone) < unheardDb);
}

void AudioFilterTest::processesThatAreNobodys()
{
    const bool root = ::geteuid() == 0;
    const OtherProcess foreign(QStringLiteral("setpriv"),
        root ? QStringList{QStringLiteral("--reuid=65534"), QStringLiteral("--clear-groups"), QStringLiteral("sleep"),
            QStringLiteral("600")}
             : QStringList{QStringLiteral("sleep"), QStringLiteral("600")});
    const auto isForeign = [&foreign] { return processtable::read(foreign.pid())->user != qint64(::geteuid()); };
    QTRY_COMPARE_WITH_TIMEOUT(isForeign(), root, limitMs);
    QString error;
    const auto content = lookUpAudio(&error);
    QVERIFY2(content, qPrintable(error));
    QVERIFY(indexOf(*content, ::getpid()));
    QVERIFY(!indexOf(*content, 1));
    QCOMPARE(indexOf(*content, foreign.pid()).has_value(), !root);
    QVERIFY(!indexOf(*content, 0));
}

ORVANTIS_TEST(AudioFilterTest)

#include "audiofilter_test.moc"

// Which players an application's audio consists of, while they come and go.
#include "audiofixture.h"
#include "linux/pipewire/processtable.h"
#include "testregistry.h"
#include "x11fixture.h"

#include "privatetempdir.h"

#include <QFile>
#include <QTest>

#include <array>
#include <memory>

using namespace audiotest;

namespace {

// One tone a player, hertz. Those of the first two play from the start on, as does the helper of the first window.
constexpr double playerTone = 441.7;
constexpr double singerTone = 1012.3; // a player with a child
constexpr double earlyHelperTone = 700.1; // of the first window
constexpr double lateHelperTone = 1300.9; // of the second window
constexpr double silentsTone = 1600.3; // a process that has no stream before it plays
constexpr double shellsTone = 1900.7; // a shell's child; without window and audio the shell has nothing it belongs to
constexpr double singersChildTone = 2200.3;
constexpr double newcomerTone = 2500.9; // belongs to none of those that ran
constexpr std::array allTones{
    playerTone, singerTone, earlyHelperTone, lateHelperTone, silentsTone, shellsTone, singersChildTone, newcomerTone};

QString playCommand(double frequency)
{
    return QStringLiteral("'%1' --frequency %2").arg(ToneProcess::program()).arg(frequency);
}

/// A shell that waits for the file, and then does something.
OtherProcess waitingShell(const QString& file, const QString& command)
{
    return OtherProcess(QStringLiteral("sh"),
        OtherProcess::shell(QStringLiteral("while ! test -e '%1'; do sleep 0.02; done; %2").arg(file, command)));
}

/// Counts the players that the server knows.
int players(PrivateAudioServer& server)
{
    const std::optional<QByteArray> dump = server.output(QStringLiteral("pw-dump"), {QStringLiteral("Node")});
    return dump ? int(dump->count("\"media.class\": \"Stream/Output/Audio\"")) : -1;
}

/// An application that is chosen, and what is to be heard of it.
struct Choice {
    const char* name;
    std::unique_ptr<AudioPuller> puller;
    std::set<double> before; ///< tones, from the start on
    std::set<double> later; ///< when everybody plays
};

/// What is wrong with a piece; empty when exactly these tones are in it.
QString wrongTones(const Choice& choice, const AudioPuller::Piece& piece, const std::set<double>& expected)
{
    for (const double frequency : allTones) {
        const double level = levelDb(side(piece, 0), frequency);
        if (expected.count(frequency) > 0 ? !isFull(level) : level >= unheardDb)
            return QStringLiteral("%1: %2 Hz has %3 dB").arg(QLatin1String(choice.name)).arg(frequency).arg(level);
    }
    return QString();
}

}

class AudioFilterTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();

    void everybodyAndTheirHelpers();
    void processesThatAreNobodys();

private:
    /// Listens to all of them until each has exactly its tones. Empty, or what was still wrong after a long time.
    static QString awaitTones(std::vector<Choice>& choices, bool later);

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

QString AudioFilterTest::awaitTones(std::vector<Choice>& choices, bool later)
{
    Pullers pullers;
    for (const Choice& choice : choices)
        pullers.push_back(choice.puller.get());
    QString wrong;
    comesTrue(pullers, [&](const Pieces& pieces) {
        wrong.clear();
        for (std::size_t i = 0; i < choices.size() && wrong.isEmpty(); ++i)
            wrong = wrongTones(choices[i], pieces[i], later ? choices[i].later : choices[i].before);
        return wrong.isEmpty();
    });
    return wrong;
}

/// Every kind of player plays; one capture of each application that a user may choose, and one of the display.
void AudioFilterTest::everybodyAndTheirHelpers()
{
    const PrivateTempDir directory;
    const QString go = directory.filePath(QStringLiteral("go"));
    const ToneProcess player(ToneProcess::tone(QStringLiteral("player"), playerTone));
    const OtherProcess silent = waitingShell(go, QStringLiteral("exec ") + playCommand(silentsTone));
    // It has neither a window nor a stream, and yet it is what a user may have chosen: a terminal's shell.
    const OtherProcess shell = waitingShell(go, playCommand(shellsTone) + QStringLiteral("; true"));
    // A player whose child waits for the file and then starts another one.
    const OtherProcess singer(QStringLiteral("sh"),
        OtherProcess::shell(QStringLiteral("(while ! test -e '%1'; do sleep 0.02; done; %2; true) & exec %3")
                                .arg(go, playCommand(singersChildTone), playCommand(singerTone))));
    WindowProcess early;
    WindowProcess late;
    QVERIFY(early.send("run exec " + playCommand(earlyHelperTone).toLocal8Bit()));
    QTRY_COMPARE_WITH_TIMEOUT(players(server_->server), 3, limitMs);

    std::vector<Choice> choices;
    const auto choose = [&choices](const char* name, qint64 pid, std::set<double> before, std::set<double> later) {
        later.insert({newcomerTone, shellsTone});
        choices.push_back({name, std::make_unique<AudioPuller>(std::set<qint64>{pid}), before, std::move(later)});
    };
    choose("player", player.pid(), {playerTone}, {playerTone});
    choose("silent process", silent.pid(), {}, {silentsTone});
    choose("shell", shell.pid(), {}, {shellsTone});
    choose("player with a child", singer.pid(), {singerTone}, {singerTone, singersChildTone});
    choose("window with a helper", early.pid(), {earlyHelperTone}, {earlyHelperTone});
    choose("window with a helper to come", late.pid(), {}, {lateHelperTone});
    choices.push_back({"display", std::make_unique<AudioPuller>(), {playerTone, singerTone, earlyHelperTone},
        std::set<double>(allTones.begin(), allTones.end())});
    for (const Choice& choice : choices)
        QVERIFY2(choice.puller->isCapturing(), qPrintable(choice.puller->errorString()));
    QString wrong = awaitTones(choices, false);
    QVERIFY2(wrong.isEmpty(), qPrintable(wrong));

    QVERIFY(QFile(go).open(QIODevice::WriteOnly));
    QVERIFY(late.send("run exec " + playCommand(lateHelperTone).toLocal8Bit()));
    const ToneProcess newcomer(ToneProcess::tone(QStringLiteral("newcomer"), newcomerTone));
    QTRY_COMPARE_WITH_TIMEOUT(players(server_->server), int(allTones.size()), limitMs);
    wrong = awaitTones(choices, true);
    QVERIFY2(wrong.isEmpty(), qPrintable(wrong));
    // Nobody was heard for a moment who is not to be heard at all: 20 ms would be at -50 dB. The onsets of the other
    // tones reach further than the tones.
    constexpr double trace = -60;
    for (const Choice& choice : choices) {
        const std::vector<float> whole = audioanalysis::channelOf(choice.puller->audio(), 2, 0);
        for (const double frequency : allTones) {
            if (choice.later.count(frequency) == 0)
                QVERIFY2(levelDb(whole, frequency) < trace,
                    qPrintable(QStringLiteral("%1: %2 Hz").arg(QLatin1String(choice.name)).arg(frequency)));
        }
    }
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

// What the tests with a real audio server share.
#pragma once

#include "audioanalysis.h"
#include "audiopuller.h"
#include "privateaudioserver.h"
#include "toneprocess.h"

#include <QProcess>
#include <QString>
#include <QStringList>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <unistd.h>
#include <vector>

namespace audiotest {

inline constexpr int limitMs = 20'000; // against hanging
inline constexpr double playedDb = -12.04; // amplitude 0.25
inline constexpr double unheardDb = playedDb - 60;
inline constexpr double tone = 441.7; // hertz; see audioanalysis::toneFaults()
inline constexpr double otherTone = 1012.3;

/// Audio of this process and its children goes to a server of the test's own.
struct ServerForTest {
    explicit ServerForTest(const AudioServerOptions& options = AudioServerOptions()) : server(options)
    {
        server.apply();
    }

    PrivateAudioServer server;
};

/// A process that is not what is looked for, for the lifetime of the object; its children end with it.
class OtherProcess {
public:
    explicit OtherProcess(const QString& program = QStringLiteral("sleep"),
        const QStringList& arguments = QStringList{QStringLiteral("600")})
    {
        process_.setChildProcessModifier([] { ::setpgid(0, 0); });
        process_.start(program, arguments);
        process_.waitForStarted();
    }
    /// A shell command.
    static QStringList shell(const QString& command) { return {QStringLiteral("-c"), command}; }
    ~OtherProcess() { end(); }
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;

    qint64 pid() const { return process_.processId(); }
    void end()
    {
        if (pid() > 0)
            ::kill(pid_t(-pid()), SIGKILL);
        process_.waitForFinished();
    }

private:
    QProcess process_;
};

using Pullers = std::vector<AudioPuller*>;

inline double levelDb(const std::vector<float>& audio, double frequency)
{
    return audioanalysis::levelDb(audio, 48000, frequency);
}

inline double usualLevelDb(const std::vector<float>& audio, double frequency)
{
    return audioanalysis::usualLevelDb(audio, 48000, frequency);
}

inline bool isFull(double levelDb)
{
    return std::abs(levelDb - playedDb) < 0.2;
}

inline std::vector<float> side(const AudioPuller::Piece& piece, int channel)
{
    return audioanalysis::channelOf(piece.audio, 2, channel);
}

inline bool isSilent(const AudioPuller::Piece& piece)
{
    return !piece.audio.empty() && audioanalysis::peakDb(piece.audio) == audioanalysis::silenceDb;
}

using Pieces = std::vector<AudioPuller::Piece>;

/// Listens until what came last is right. (QTRY_VERIFY would listen once more after that.)
template <typename Condition>
bool comesTrue(const Pullers& pullers, Condition areRight)
{
    constexpr int ms = 150;
    for (int i = 0; i < limitMs / ms; ++i) {
        if (areRight(AudioPuller::listen(pullers, ms)))
            return true;
    }
    return false;
}

/// The tone is there in all of them, as it was played: waits until it is.
inline bool hears(const Pullers& pullers, double frequency)
{
    return comesTrue(pullers, [frequency](const Pieces& pieces) {
        return std::all_of(pieces.begin(), pieces.end(),
            [frequency](const AudioPuller::Piece& piece) { return isFull(levelDb(side(piece, 0), frequency)); });
    });
}

/// Silence, sample by sample: waits until it is.
inline bool hearsNothing(const Pullers& pullers)
{
    return comesTrue(
        pullers, [](const Pieces& pieces) { return std::all_of(pieces.begin(), pieces.end(), isSilent); });
}

/// What is wrong with a piece that should be nothing but the player's steady tone, on both sides; empty when nothing
/// is. What the player itself left out does not count.
inline QString faultsOf(const AudioPuller::Piece& piece, double frequency, ToneProcess& player)
{
    const std::vector<playergaps::Gap>& gaps = player.gaps();
    for (const int channel : {0, 1}) {
        const std::vector<float> audio = side(piece, channel);
        const auto faults
            = playergaps::unexplained(audioanalysis::toneFaults(audio, 48000, frequency), gaps, piece.startMs);
        const double level = usualLevelDb(audio, frequency);
        if (!faults.empty() || !isFull(level))
            return QStringLiteral("channel %1: %2 dB, %3")
                .arg(channel)
                .arg(level)
                .arg(audioanalysis::describe(faults));
    }
    return QString();
}

}

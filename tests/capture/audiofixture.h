// What the tests with a real audio server share.
#pragma once

#include "audioanalysis.h"
#include "audiopuller.h"
#include "privateaudioserver.h"
#include "toneprocess.h"

#include <QProcess>
#include <QString>
#include <QStringList>

#include <cmath>
#include <csignal>
#include <unistd.h>
#include <vector>

namespace audiotest {

inline constexpr int limitMs = 20'000; // against hanging
inline constexpr double playedDb = -12.04; // amplitude 0.25
inline constexpr double unheardDb = playedDb - 60;
inline constexpr double tone = 441.7; // hertz; see audioanalysis::toneFaults()
inline constexpr double otherTone = 1013;

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

inline double levelDb(const std::vector<float>& audio, double frequency)
{
    return audioanalysis::levelDb(audio, 48000, frequency);
}

inline bool isFull(double levelDb)
{
    return std::abs(levelDb - playedDb) < 0.2;
}

/// Listens until it is right. (QTRY_VERIFY would listen once more after that.)
template <typename Condition>
bool comesTrue(Condition isRight)
{
    for (int i = 0; i < limitMs / 200; ++i) {
        if (isRight())
            return true;
    }
    return false;
}

/// The tone is there, as it was played: waits until it is.
inline bool hears(AudioPuller& puller, double frequency)
{
    return comesTrue([&] { return isFull(puller.levelDb(frequency)); });
}

/// The next audio, channels alternating, whose left side is the steady tone that was played; after many tries what
/// came last. On a machine that is busy elsewhere players and server miss cycles now and then; a capture that loses
/// audio does so every time.
inline std::vector<float> cleanAudio(AudioPuller& puller, int ms, double frequency)
{
    std::vector<float> audio;
    for (int i = 0; i < 20; ++i) {
        audio = puller.listen(ms);
        const std::vector<float> left = audioanalysis::channelOf(audio, 2, 0);
        if (isFull(levelDb(left, frequency)) && audioanalysis::toneFaults(left, 48000, frequency).empty())
            break;
    }
    return audio;
}

inline bool isSilent(const std::vector<float>& audio)
{
    return !audio.empty() && audioanalysis::peakDb(audio) == audioanalysis::silenceDb;
}

/// Silence, sample by sample: waits until it is.
inline bool hearsNothing(AudioPuller& puller)
{
    return comesTrue([&] { return isSilent(puller.listen(200)); });
}

}

// What the tests with a real sound server share.
#pragma once

#include "privatesoundserver.h"
#include "soundanalysis.h"
#include "soundpuller.h"
#include "toneprocess.h"

#include <QProcess>
#include <QString>
#include <QStringList>

#include <cmath>
#include <csignal>
#include <unistd.h>
#include <vector>

namespace soundtest {

inline constexpr int limitMs = 20'000; // against hanging
inline constexpr double playedDb = -12.04; // amplitude 0.25
inline constexpr double unheardDb = playedDb - 60;
inline constexpr double tone = 441.7; // hertz; see soundanalysis::toneFaults()
inline constexpr double otherTone = 1013;

/// Sound of this process and its children goes to a server of the test's own.
struct ServerForTest {
    explicit ServerForTest(const SoundServerOptions& options = SoundServerOptions()) : server(options)
    {
        server.apply();
    }

    PrivateSoundServer server;
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

inline double levelDb(const std::vector<float>& sound, double frequency)
{
    return soundanalysis::levelDb(sound, 48000, frequency);
}

inline bool isFull(double levelDb)
{
    return std::abs(levelDb - playedDb) < 0.2;
}

/// Listens until it sounds right. (QTRY_VERIFY would listen once more after that.)
template <typename Condition>
bool comesTrue(Condition soundsRight)
{
    for (int i = 0; i < limitMs / 200; ++i) {
        if (soundsRight())
            return true;
    }
    return false;
}

/// The tone is there, as it was played: waits until it is.
inline bool hears(SoundPuller& puller, double frequency)
{
    return comesTrue([&] { return isFull(puller.levelDb(frequency)); });
}

/// The next sound, channels alternating, whose left side is the steady tone that was played; after many tries what
/// came last. On a machine that is busy elsewhere players and server miss cycles now and then; a capture that loses
/// sound does so every time.
inline std::vector<float> cleanSound(SoundPuller& puller, int ms, double frequency)
{
    std::vector<float> sound;
    for (int i = 0; i < 20; ++i) {
        sound = puller.listen(ms);
        const std::vector<float> left = soundanalysis::channelOf(sound, 2, 0);
        if (isFull(levelDb(left, frequency)) && soundanalysis::toneFaults(left, 48000, frequency).empty())
            break;
    }
    return sound;
}

inline bool isSilent(const std::vector<float>& sound)
{
    return !sound.empty() && soundanalysis::peakDb(sound) == soundanalysis::silenceDb;
}

/// Silence, sample by sample: waits until it is.
inline bool hearsNothing(SoundPuller& puller)
{
    return comesTrue([&] { return isSilent(puller.listen(200)); });
}

}

// SoundScene: a recording of a window while something plays.
#include "soundscene.h"

#include <QTest>

#include <algorithm>
#include <cmath>

namespace {

constexpr int rate = 48000;
constexpr double thereDb = -40.0; // a player's tone is at -12

}

SoundScene::SoundScene(
    const QByteArray& display, quint32 window, const PrivateSoundServer& server, const QString& source)
    : RecordingScene(display, window)
{
    const QString runtimeDirectory = QStringLiteral("XDG_RUNTIME_DIR");
    recorder.setVariable(runtimeDirectory, server.environment().value(runtimeDirectory));
    command.audioSource = source;
}

bool SoundScene::record(int recordingMs)
{
    if (!startRecording())
        return false;
    // The recorder's own clock is asked only near the end: every question is a line in its log.
    constexpr int askedForMs = 5000;
    QTest::qWait(std::max(recordingMs - askedForMs, 0));
    return waitUntilRecorded(recordingMs) && stopAndExit();
}

QString soundOf(qint64 pid)
{
    return QStringLiteral("app-pid:%1").arg(pid);
}

Heard::Heard(const QString& path)
{
    MediaFile file(path);
    const std::optional<MediaSound> sound = file.sound();
    if (!sound || sound->sampleRate != rate)
        return;
    // A file may start with what the encoder puts before time 0, or with nothing at all.
    const auto shift = std::ptrdiff_t(std::lround(sound->startMs * samplesPerMs));
    const auto size = std::ptrdiff_t(sound->channels.first().size());
    samples_.resize(std::size_t(std::max<std::ptrdiff_t>(size + shift, 0)));
    for (const std::vector<float>& channel : sound->channels) {
        for (std::ptrdiff_t i = std::max<std::ptrdiff_t>(-shift, 0); i < size; ++i)
            samples_[std::size_t(i + shift)] += channel[std::size_t(i)] / float(sound->channels.size());
    }
}

soundanalysis::Samples Heard::part(double fromMs, double toMs) const
{
    return soundanalysis::between(samples_, rate, fromMs, toMs);
}

double Heard::levelDb(double frequency, double fromMs, double toMs) const
{
    return soundanalysis::levelDb(part(fromMs, toMs), rate, frequency);
}

double Heard::rmsDb(double fromMs, double toMs) const
{
    return soundanalysis::rmsDb(part(fromMs, toMs));
}

std::vector<soundanalysis::ToneFault> Heard::toneFaults(double frequency, double fromMs, double toMs) const
{
    return soundanalysis::toneFaults(part(fromMs, toMs), rate, frequency);
}

double Heard::firstMs(double frequency, double fromMs) const
{
    return firstMsWhere(frequency, fromMs, true);
}

double Heard::goneMs(double frequency, double fromMs) const
{
    return firstMsWhere(frequency, fromMs, false);
}

double Heard::firstMsWhere(double frequency, double fromMs, bool there) const
{
    for (double ms = fromMs; ms + 100.0 <= durationMs(); ms += 10.0) {
        if ((levelDb(frequency, ms, ms + 100.0) > thereDb) == there)
            return ms;
    }
    return -1.0;
}

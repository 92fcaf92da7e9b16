// AudioScene: a recording of a window while something plays.
#include "audioscene.h"

#include <QTest>

#include <algorithm>
#include <cmath>

namespace {

constexpr int rate = 48000;
constexpr double thereDb = -40.0; // a player's tone is at -12

}

AudioScene::AudioScene(
    const QByteArray& display, quint32 window, const PrivateAudioServer& server, const QString& source)
    : RecordingScene(display, window)
{
    const QString runtimeDirectory = QStringLiteral("XDG_RUNTIME_DIR");
    recorder.setVariable(runtimeDirectory, server.environment().value(runtimeDirectory));
    command.audioSource = source;
}

bool AudioScene::record(int recordingMs)
{
    if (!startRecording())
        return false;
    // The recorder's own clock is asked only near the end: every question is a line in its log.
    constexpr int askedForMs = 5000;
    QTest::qWait(std::max(recordingMs - askedForMs, 0));
    return waitUntilRecorded(recordingMs) && stopAndExit();
}

QString audioOf(qint64 pid)
{
    return QStringLiteral("app-pid:%1").arg(pid);
}

Heard::Heard(const QString& path)
{
    MediaFile file(path);
    const std::optional<MediaAudio> audio = file.audio();
    if (!audio || audio->sampleRate != rate)
        return;
    // A file may start with what the encoder puts before time 0, or with nothing at all.
    const auto shift = std::ptrdiff_t(std::lround(audio->startMs * samplesPerMs));
    const auto size = std::ptrdiff_t(audio->channels.first().size());
    samples_.resize(std::size_t(std::max<std::ptrdiff_t>(size + shift, 0)));
    for (const std::vector<float>& channel : audio->channels) {
        for (std::ptrdiff_t i = std::max<std::ptrdiff_t>(-shift, 0); i < size; ++i)
            samples_[std::size_t(i + shift)] += channel[std::size_t(i)] / float(audio->channels.size());
    }
}

audioanalysis::Samples Heard::part(double fromMs, double toMs) const
{
    return audioanalysis::between(samples_, rate, fromMs, toMs);
}

double Heard::levelDb(double frequency, double fromMs, double toMs) const
{
    return audioanalysis::levelDb(part(fromMs, toMs), rate, frequency);
}

double Heard::rmsDb(double fromMs, double toMs) const
{
    return audioanalysis::rmsDb(part(fromMs, toMs));
}

std::vector<audioanalysis::ToneFault> Heard::toneFaults(double frequency, double fromMs, double toMs) const
{
    return audioanalysis::toneFaults(part(fromMs, toMs), rate, frequency);
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

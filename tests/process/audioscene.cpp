// AudioScene: a recording of a window while something plays.
#include "audioscene.h"

#include "playergaps.h"

#include <QDateTime>
#include <QRegularExpression>
#include <QTest>

#include <algorithm>
#include <cmath>

namespace {

constexpr int rate = 48000;
constexpr double thereDb = -40.0; // a player's tone is at -12
/// A recorder's own clock is asked only near the end of a recording: every question is a line in its log.
constexpr int askedForMs = 3000;

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
    QTest::qWait(std::max(recordingMs - askedForMs, 0));
    return waitUntilRecorded(recordingMs) && stopAndExit();
}

double AudioScene::originMs()
{
    if (originMs_)
        return *originMs_;
    // A click with a time is keyed by how much later that is than the start.
    const qint64 clickedAtMs = QDateTime::currentMSecsSinceEpoch();
    const QString start = QStringLiteral("Recorder mouse click received global QPointF(-9998,-9998)");
    if (!launcher.send("click|-9998|-9998|-1|-1|" + QByteArray::number(clickedAtMs) + '\n') || !waitForLine(start))
        return 0.0;
    static const QRegularExpression rawTime(QStringLiteral("raw recording ms (\\d+) "));
    const qint64 rawMs = rawTime.match(restOfLine(log(), start)).captured(1).toLongLong();
    if (rawMs > 0) // the clock runs
        originMs_ = double(clickedAtMs - rawMs) - playergaps::wallClockLeadMs();
    return originMs_.value_or(0.0);
}

namespace {

template <typename Step>
bool forAll(const std::vector<AudioScene*>& scenes, QByteArray& story, Step step)
{
    for (AudioScene* scene : scenes) {
        if (step(*scene))
            continue;
        story = scene->command.audioSource.toUtf8() + ": " + scene->story();
        return false;
    }
    return true;
}

}

bool startTogether(const std::vector<AudioScene*>& scenes, QByteArray& story)
{
    return forAll(scenes, story, [](AudioScene& scene) { return scene.start(); })
        && forAll(scenes, story, [](AudioScene& scene) { return scene.launcher.waitForReceived(1, hangLimitMs); });
}

bool endTogether(const std::vector<AudioScene*>& scenes, int recordingMs, QByteArray& story)
{
    QTest::qWait(std::max(recordingMs - askedForMs, 0));
    const auto hasRecorded
        = [recordingMs](AudioScene& scene) { return scene.waitUntilRecorded(recordingMs) && scene.originMs() > 0.0; };
    const auto hasEnded
        = [](AudioScene& scene) { return scene.recorder.waitForEnd() && scene.recorder.exitCode() == 0; };
    return forAll(scenes, story, hasRecorded)
        && forAll(scenes, story, [](AudioScene& scene) { return scene.stop().has_value(); })
        && forAll(scenes, story, [](AudioScene& scene) { return scene.launcher.send("{\"action\":\"exit\"}\n"); })
        && forAll(scenes, story, hasEnded);
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
    worstJoinMs_ = audio->worstJoinMs;
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

double Heard::usualLevelDb(double frequency, double fromMs, double toMs) const
{
    return audioanalysis::usualLevelDb(part(fromMs, toMs), rate, frequency);
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

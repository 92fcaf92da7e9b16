// AudioScene: a recording of a window while something plays, and what is heard in its file.
#pragma once

#include "audioanalysis.h"
#include "mediafile.h"
#include "privateaudioserver.h"
#include "recordingscene.h"

#include <QString>

#include <optional>
#include <vector>

/// A RecordingScene whose recorder hears an audio server.
class AudioScene : public RecordingScene {
public:
    /// The audio is that of a process, or for an empty source that of the display.
    AudioScene(const QByteArray& display, quint32 window, const PrivateAudioServer& server, const QString& source);

    /// Starts, records for so long, stops and waits for the end. False, with story(), when anything goes wrong.
    bool record(int recordingMs);

    /// When the recording clock stood at 0, in milliseconds of the monotonic clock. Ask first while it runs; 0 when
    /// the recorder does not tell.
    double originMs();

private:
    std::optional<double> originMs_;
};

/// Recordings beside each other. False, with the story of the one that failed, when anything goes wrong.
bool startTogether(const std::vector<AudioScene*>& scenes, QByteArray& story);
/// Waits until each has recorded so long, stops them and waits for their end.
bool endTogether(const std::vector<AudioScene*>& scenes, int recordingMs, QByteArray& story);

/// The audio source for a process.
QString audioOf(qint64 pid);

/// The audio of a recording, one channel at 48000 Hz whose time 0 is that of the file.
class Heard {
public:
    /// The sum of both sides, halved.
    explicit Heard(const QString& path);

    bool isThere() const { return !samples_.empty(); }
    double durationMs() const { return double(samples_.size()) / samplesPerMs; }
    /// How far a block's own time ever was from where the one before it ends.
    double worstJoinMs() const { return worstJoinMs_; }
    /// Between two times of the file.
    audioanalysis::Samples part(double fromMs, double toMs) const;
    /// In dB of a full-scale sine.
    double levelDb(double frequency, double fromMs, double toMs) const;
    /// See audioanalysis.
    double usualLevelDb(double frequency, double fromMs, double toMs) const;
    double rmsDb(double fromMs, double toMs) const;
    std::vector<audioanalysis::ToneFault> toneFaults(double frequency, double fromMs, double toMs) const;
    /// When a tone is first there for 0.1 s, in 10 ms; below 0 when never.
    double firstMs(double frequency, double fromMs = 0.0) const;
    /// When it is first gone for 0.1 s.
    double goneMs(double frequency, double fromMs) const;

private:
    double firstMsWhere(double frequency, double fromMs, bool there) const;

    static constexpr double samplesPerMs = 48.0;
    std::vector<float> samples_;
    double worstJoinMs_ = 0.0;
};

// BeepPlayer: the audio of the truth window.
#pragma once

#include <QByteArray>
#include <QString>

#include <memory>

/// Plays the beeps of truthbeeps to PipeWire, each at its time to the sample, and exact silence between them; a
/// sample's time is that of the graph's clock at the start of its cycle, and on. The constructor returns once audio
/// flows, or with a text in errorString(). One thread.
class BeepPlayer {
public:
    /// The name that the player has among the applications that play.
    explicit BeepPlayer(const QString& applicationName);
    ~BeepPlayer();
    BeepPlayer(const BeepPlayer&) = delete;
    BeepPlayer& operator=(const BeepPlayer&) = delete;

    QString errorString() const;

    /// What it left out itself since the last call, because it was late, as lines "gap AT LENGTH" in milliseconds of
    /// the monotonic clock.
    QByteArray newGaps();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// The durations of samples as a fragmented MP4 states them. FFmpeg's demuxer does not hand them out: its packets
// carry guesses from the frame rate, or nothing.
#pragma once

#include <QHash>
#include <QList>
#include <QString>

/// Durations of each track's samples in the order of the file, in units of the track's time scale, by track id. Empty
/// for a file without fragments; of a cut-off file, what its complete headers say.
QHash<quint32, QList<qint64>> fragmentSampleDurations(const QString& path);

// The offset of a truth window's recorded audio to its video.
#pragma once

#include <QList>
#include <QtGlobal>

struct MediaAudio;

/// From the window's clock to the time line of the file.
struct TruthClock {
    quint32 originMs = 0; ///< wall clock of some painting, low 32 bits of the milliseconds
    double fileMs = 0.0; ///< when the file shows what happened then
    double rate = 1.0; ///< milliseconds of the file in one of the clock

    double toFile(quint32 clockMs) const { return fileMs + double(qint32(clockMs - originMs)) * rate; }
    /// The clock's time of a time in the file; whole milliseconds.
    quint32 toClock(double ms) const;
};

/// A beep and its flash.
struct TruthBeep {
    double fileMs = 0.0; ///< when the flash is due in the file
    double offsetMs = 0.0; ///< how much later the beep starts; negative: earlier
};

struct TruthAudio {
    /// Flashes at least 0.2 s inside both video and audio: each should be heard.
    int flashes = 0;
    int missedBeeps = 0; ///< of those, the ones without a beep
    int strayBeeps = 0; ///< beeps without a flash
    QList<TruthBeep> beeps; ///< in the order of time
    double meanMs = 0.0; ///< of the offsets; not-a-number without beeps, as are the two below
    double worstMs = 0.0; ///< the offset that is furthest from 0
    double driftMsPerMinute = 0.0; ///< how fast the offsets grow, by least squares; 0 for a single beep
};

/// The frames' times are those of the first and the last one. Which beep belongs to which flash is told by the
/// uneven distances between them, so that an offset of seconds is seen as what it is; up to 5 s are searched.
TruthAudio measureBeeps(const MediaAudio& audio, const TruthClock& clock, double firstFrameMs, double lastFrameMs);

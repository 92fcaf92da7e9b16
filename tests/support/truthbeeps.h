// When the truth window flashes and beeps: a rule that the window and the report of its recording both know.
#pragma once

#include "audioanalysis.h"

#include <QtGlobal>

/// One beep a second, at a wall-clock time that the second decides: two neighbours are 0.6 to 1.4 s apart and no row
/// of distances comes again soon, so that audio that is late by a whole beep is not taken for audio in time. Times
/// are the wall clock of the barcode (TruthStamp::clockMs), its low 32 bits.
namespace truthbeeps {

inline constexpr audioanalysis::Beep beep{1000.0, 60.0, 2.0};
inline constexpr float amplitude = 0.5f; ///< of full scale

/// A flash is as long as two or three frames of a recording.
inline constexpr quint32 flashMs = 100;

/// When the beep of a second starts. The second is a clock / 1000.
quint32 startMs(quint32 second);

/// Is a painting of that time to show the flash?
bool flashes(quint32 clockMs);

/// The audio at a time, in milliseconds of the wall clock's low 32 bits; what a full-scale sine would be is 1.
float sample(double clockMs);

}

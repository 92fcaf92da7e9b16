// What a player says about the gaps in its own audio, held against what was recorded of it.
#pragma once

#include "audioanalysis.h"

#include <QByteArray>

#include <optional>
#include <vector>

namespace playergaps {

/// Milliseconds of the monotonic clock.
struct Gap {
    double atMs = 0.0;
    double lengthMs = 0.0;
};

/// From a player's line "gap AT LENGTH"; nothing from any other line.
std::optional<Gap> parse(const QByteArray& line);

/// How far the wall clock is ahead of the monotonic clock now, milliseconds.
double wallClockLeadMs();

/// The faults that no gap explains; the others go to the test's output. A fault's times count from originMs on the
/// monotonic clock. What a recorder loses while its player loses nothing stays.
std::vector<audioanalysis::ToneFault> unexplained(
    const std::vector<audioanalysis::ToneFault>& faults, const std::vector<Gap>& gaps, double originMs);

}

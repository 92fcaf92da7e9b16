// What samples hold: levels, silence, the onsets of beeps, and the faults of a long tone. Pure arithmetic on one
// channel of samples whose full scale is 1.
#pragma once

#include <QString>
#include <QtGlobal>

#include <cstddef>
#include <span>
#include <vector>

namespace audioanalysis {

using Samples = std::span<const float>;

inline constexpr double silenceDb = -200.0; ///< what the levels below say of exact silence, and of no samples

std::vector<float> fromInt16(std::span<const qint16> samples);
/// One channel of samples whose channels alternate.
std::vector<float> channelOf(Samples interleaved, int channels, int index);
/// The samples between two times, cut to those that there are. Milliseconds from the first sample.
Samples between(Samples samples, int rate, double fromMs, double toMs);

/// How strong one frequency is: 0 dB for a sine of full scale. Other tones do not leak into it when they are further
/// away than four periods per length of the samples (40 Hz for 100 ms).
double levelDb(Samples samples, int rate, double frequency);
/// The same of most pieces of 100 ms, whatever some of them lack: the level at which a tone is there, not whether it
/// is there all the time.
double usualLevelDb(Samples samples, int rate, double frequency);
double rmsDb(Samples samples); ///< 0 dB for a square wave of full scale; a sine has -3 dB
double peakDb(Samples samples);

struct Run {
    std::size_t first = 0;
    std::size_t length = 0;
};
/// The longest run of samples that are exactly zero.
Run longestZeroRun(Samples samples);

/// A beep: a sine that rises and falls as half a cosine wave.
struct Beep {
    double frequency = 1000.0; ///< Hz
    double lengthMs = 60.0; ///< from the first sample to the last
    double rampMs = 2.0; ///< of each of its ends
};
/// One sample of a beep of amplitude 1, this long after its start; 0 before its start and after its end.
double beepSample(const Beep& beep, double ms);

/// Where the beeps start, in milliseconds from the first sample: where their envelope passes half of its height, less
/// half a ramp. Exact to 0.05 ms for a beep on silence and to 0.3 ms after AAC at 128 kbit/s, whose echoes before an
/// onset stay below half of the height. The height is the loudest beep's; what is below a quarter of it, shorter or
/// longer than a beep is none. A beep that begins or ends outside of the samples is not found.
std::vector<double> beepOnsetsMs(Samples samples, int rate, const Beep& beep);

/// Where a tone is not the one steady sine that it should be.
struct ToneFault {
    double fromMs = 0.0; ///< from the first sample, as is toMs; each is exact to 25 ms
    double toMs = 0.0;
    double size = 0.0; ///< what is no sine of the tone's height, as a share of the tone; 1 for a tone that stops
};

/// All places at which a tone that should fill the samples has a gap, a click, another level, or a part missing or
/// twice. Faults within 50 ms are one. The first and last 20 ms are not judged. A part of nearly whole periods that
/// is missing leaves no trace in any tone, so the frequency decides what could hide: in 441.7 Hz two samples at
/// 48000 Hz do not, nor does any whole number of milliseconds up to 33, nor 2^n samples from there to 8192. A
/// frequency that is off by up to 300 ppm, or wanders within that, is no fault, and neither is what AAC does to a
/// tone.
std::vector<ToneFault> toneFaults(Samples samples, int rate, double frequency);

/// For failure messages.
QString describe(const std::vector<ToneFault>& faults);

}

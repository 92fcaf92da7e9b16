// How loud one tone is in interleaved samples.
#pragma once

#include <cstddef>
#include <vector>

/// The amplitude of a sine of that frequency (hertz) in one channel; 1 is full scale. Over whole periods it is exact;
/// otherwise the tones beside it leak in: a Hann window keeps those that are 10 / seconds hertz away below -60 dB.
double toneLevel(const std::vector<float>& samples, int channels, int channel, double frequency, int rate = 48000);

/// The same for a part of them, in frames.
double toneLevel(const std::vector<float>& samples, std::size_t firstFrame, std::size_t frames, int channels,
    int channel, double frequency, int rate = 48000);

/// Amplitude ratio in decibels; -200 for nothing at all.
double decibels(double level);

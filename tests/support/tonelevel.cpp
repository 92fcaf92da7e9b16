// How loud one tone is in interleaved samples.
#include "tonelevel.h"

#include <algorithm>
#include <cmath>
#include <complex>

double toneLevel(const std::vector<float>& samples, int channels, int channel, double frequency, int rate)
{
    return toneLevel(samples, 0, samples.size() / std::size_t(channels), channels, channel, frequency, rate);
}

double toneLevel(const std::vector<float>& samples, std::size_t firstFrame, std::size_t frames, int channels,
    int channel, double frequency, int rate)
{
    constexpr double pi = 3.14159265358979323846;
    const std::size_t end = std::min(firstFrame + frames, samples.size() / std::size_t(channels));
    if (end <= firstFrame)
        return 0;
    std::complex<double> sum = 0;
    double weights = 0;
    for (std::size_t frame = firstFrame; frame < end; ++frame) {
        const double position = double(frame - firstFrame);
        const double weight = 0.5 - 0.5 * std::cos(2 * pi * (position + 0.5) / double(end - firstFrame));
        const double sample = double(samples[frame * std::size_t(channels) + std::size_t(channel)]);
        sum += weight * sample * std::polar(1.0, -2 * pi * std::fmod(frequency * position / rate, 1.0));
        weights += weight;
    }
    return 2 * std::abs(sum) / weights;
}

double decibels(double level)
{
    return 20 * std::log10(std::max(level, 1e-10));
}

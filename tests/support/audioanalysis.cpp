// Levels, silence and beeps.
#include "audioanalysis.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

namespace audioanalysis {

namespace {

constexpr double pi = std::numbers::pi;

double toDb(double amplitude)
{
    return amplitude > 0.0 ? std::max(20.0 * std::log10(amplitude), silenceDb) : silenceDb;
}

/// The amplitude of one frequency around every sample: the mean of the demodulated signal over whole half periods,
/// in which the tone's mirror frequency cancels itself. As long as the samples.
std::vector<double> envelopeOf(Samples samples, int rate, double frequency)
{
    constexpr int halfPeriods = 4;
    const double step = 2.0 * pi * frequency / rate;
    const auto width = std::ptrdiff_t(std::max(std::lround(halfPeriods * rate / (2.0 * frequency)), 1L));
    std::vector<std::complex<double>> sums{0.0}; // of everything before a sample
    for (std::size_t i = 0; i < samples.size(); ++i)
        sums.push_back(sums.back() + double(samples[i]) * std::polar(1.0, -step * double(i)));
    std::vector<double> envelope;
    const auto size = std::ptrdiff_t(samples.size());
    for (std::ptrdiff_t i = 0; i < size; ++i) {
        // An odd number of samples would be centred on one of them; an even one lies half a sample before.
        const std::ptrdiff_t first = std::clamp(i - width / 2, std::ptrdiff_t(0), size);
        const std::ptrdiff_t past = std::clamp(i - width / 2 + width, std::ptrdiff_t(0), size);
        envelope.push_back(2.0 * std::abs(sums[std::size_t(past)] - sums[std::size_t(first)]) / double(width));
    }
    return envelope;
}

}

std::vector<float> fromInt16(std::span<const qint16> samples)
{
    std::vector<float> result;
    result.reserve(samples.size());
    for (const qint16 sample : samples)
        result.push_back(float(sample) / 32768.0f);
    return result;
}

std::vector<float> channelOf(Samples interleaved, int channels, int index)
{
    std::vector<float> result;
    result.reserve(interleaved.size() / std::size_t(channels));
    for (std::size_t i = std::size_t(index); i < interleaved.size(); i += std::size_t(channels))
        result.push_back(interleaved[i]);
    return result;
}

Samples between(Samples samples, int rate, double fromMs, double toMs)
{
    const auto place = [&](double ms) {
        return std::size_t(std::clamp(std::round(ms * rate / 1000.0), 0.0, double(samples.size())));
    };
    const std::size_t first = place(fromMs);
    return samples.subspan(first, std::max(place(toMs), first) - first);
}

double levelDb(Samples samples, int rate, double frequency)
{
    std::complex<double> sum = 0.0;
    double weights = 0.0;
    const double step = 2.0 * pi * frequency / rate;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double place = (double(i) + 0.5) / double(samples.size());
        const double weight = 0.5 - 0.5 * std::cos(2.0 * pi * place);
        sum += weight * double(samples[i]) * std::polar(1.0, -step * double(i));
        weights += weight;
    }
    return weights > 0.0 ? toDb(2.0 * std::abs(sum) / weights) : silenceDb;
}

double usualLevelDb(Samples samples, int rate, double frequency)
{
    constexpr double pieceMs = 100.0;
    const double lengthMs = double(samples.size()) * 1000.0 / rate;
    std::vector<double> levels;
    for (double ms = 0.0; ms + pieceMs <= lengthMs; ms += pieceMs)
        levels.push_back(levelDb(between(samples, rate, ms, ms + pieceMs), rate, frequency));
    if (levels.empty())
        return silenceDb;
    const auto middle = levels.begin() + std::ptrdiff_t(levels.size() / 2);
    std::nth_element(levels.begin(), middle, levels.end());
    return *middle;
}

double rmsDb(Samples samples)
{
    double sum = 0.0;
    for (const float sample : samples)
        sum += double(sample) * double(sample);
    return samples.empty() ? silenceDb : toDb(std::sqrt(sum / double(samples.size())));
}

double peakDb(Samples samples)
{
    float peak = 0.0f;
    for (const float sample : samples)
        peak = std::max(peak, std::abs(sample));
    return toDb(double(peak));
}

Run longestZeroRun(Samples samples)
{
    Run longest;
    Run run;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        if (samples[i] != 0.0f)
            run.length = 0;
        else if (run.length++ == 0)
            run.first = i;
        if (run.length > longest.length)
            longest = run;
    }
    return longest;
}

double beepSample(const Beep& beep, double ms)
{
    if (ms < 0.0 || ms >= beep.lengthMs)
        return 0.0;
    const double toTheEndMs = std::min(ms, beep.lengthMs - ms);
    const double height = toTheEndMs < beep.rampMs ? 0.5 - 0.5 * std::cos(pi * toTheEndMs / beep.rampMs) : 1.0;
    return height * std::sin(2.0 * pi * beep.frequency * ms / 1000.0);
}

std::vector<double> beepOnsetsMs(Samples samples, int rate, const Beep& beep)
{
    const std::vector<double> envelope = envelopeOf(samples, rate, beep.frequency);
    const double loudest = envelope.empty() ? 0.0 : *std::max_element(envelope.begin(), envelope.end());
    std::vector<double> onsets;
    if (loudest <= 0.0)
        return onsets;
    const double msPerSample = 1000.0 / rate;
    std::size_t i = 0;
    const auto advance = [&](double level, bool above) {
        while (i < envelope.size() && (envelope[i] >= level) == above)
            ++i;
    };
    advance(loudest / 4, true); // what began before the samples is no beep
    for (;;) {
        advance(loudest / 4, false);
        std::size_t rise = i;
        advance(loudest / 4, true);
        if (i == envelope.size())
            return onsets;
        // The height of the beep is that of its middle, whatever its rims overshoot.
        const double height = envelope[rise + (i - rise) / 2];
        while (envelope[rise] < height / 2)
            ++rise;
        std::size_t fall = i;
        while (fall > rise && envelope[fall - 1] < height / 2)
            --fall;
        const double lengthMs = double(fall - rise) * msPerSample + beep.rampMs;
        if (rise == 0 || std::abs(lengthMs - beep.lengthMs) > beep.lengthMs / 4)
            continue;
        const double part = (height / 2 - envelope[rise - 1]) / (envelope[rise] - envelope[rise - 1]);
        onsets.push_back((double(rise) - 1.0 + part) * msPerSample - beep.rampMs / 2);
    }
}

}

// Faults of a long tone: every few milliseconds of it are compared with the sine that fits a wider window best.
#include "audioanalysis.h"

#include <QStringList>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

namespace audioanalysis {

namespace {

constexpr double pi = std::numbers::pi;
constexpr double partMs = 5.0; // what is judged at once
constexpr double windowMs = 40.0; // where the sine is fitted; the part is its middle
constexpr double oneFaultMs = 50.0;
constexpr double largestShare = 0.04; // of the tone; what AAC leaves beside a sine stays below 0.02
constexpr double farthestHeight = 0.1; // of a window's sine from the tone's, as a share of it

/// One part of the tone.
struct Part {
    double centreMs = 0.0;
    double height = 0.0; // amplitude of the window's sine
    double residual = 0.0; // what the part has besides, as the amplitude of a sine with as much energy
};

/// Fits and compares; its tables belong to one rate and frequency.
class ToneWindow {
public:
    ToneWindow(int rate, double frequency)
        : size_(std::size_t(std::lround(windowMs * rate / 1000.0))),
          part_(std::size_t(std::lround(partMs * rate / 1000.0)))
    {
        for (std::size_t i = 0; i < size_; ++i) {
            turns_.push_back(std::polar(1.0, -2.0 * pi * frequency / rate * double(i)));
            weights_.push_back(1.0 - std::cos(2.0 * pi * (double(i) + 0.5) / double(size_)));
        }
    }

    std::size_t size() const { return size_; }
    std::size_t part() const { return part_; }

    /// The window begins at the first of the samples; its centre in the result is counted from there.
    Part measure(const float* samples, int rate) const
    {
        std::complex<double> sum = 0.0;
        for (std::size_t i = 0; i < size_; ++i)
            sum += weights_[i] * double(samples[i]) * turns_[i];
        const std::complex<double> sine = 2.0 * sum / double(size_);
        const std::size_t first = (size_ - part_) / 2;
        double energy = 0.0;
        for (std::size_t i = first; i < first + part_; ++i) {
            const double difference = double(samples[i]) - (sine * std::conj(turns_[i])).real();
            energy += difference * difference;
        }
        return {double(size_) * 500.0 / rate, std::abs(sine), std::sqrt(2.0 * energy / double(part_))};
    }

private:
    std::size_t size_;
    std::size_t part_;
    std::vector<std::complex<double>> turns_;
    std::vector<double> weights_; // 1 on average
};

double median(std::vector<double> values)
{
    const auto middle = values.begin() + std::ptrdiff_t(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

}

std::vector<ToneFault> toneFaults(Samples samples, int rate, double frequency)
{
    const ToneWindow window(rate, frequency);
    std::vector<Part> parts;
    std::vector<double> heights;
    for (std::size_t first = 0; first + window.size() <= samples.size(); first += window.part()) {
        parts.push_back(window.measure(samples.data() + first, rate));
        parts.back().centreMs += double(first) * 1000.0 / rate;
        heights.push_back(parts.back().height);
    }
    const double height = heights.empty() ? 0.0 : median(heights);
    if (height <= 0.0) // too short for any tone, or silence
        return {ToneFault{0.0, double(samples.size()) * 1000.0 / rate, 1.0}};
    std::vector<ToneFault> faults;
    for (const Part& part : parts) {
        const double share = part.residual / height;
        const double heightError = std::abs(part.height - height) / height;
        if (share <= largestShare && heightError <= farthestHeight)
            continue;
        if (faults.empty() || part.centreMs - faults.back().toMs > oneFaultMs)
            faults.push_back({part.centreMs, part.centreMs, 0.0});
        faults.back().toMs = part.centreMs;
        faults.back().size = std::max({faults.back().size, share, heightError});
    }
    return faults;
}

QString describe(const std::vector<ToneFault>& faults)
{
    QStringList texts;
    for (const ToneFault& fault : faults) {
        texts << QStringLiteral("%1 % from %2 to %3 ms")
                     .arg(fault.size * 100.0, 0, 'f', 1)
                     .arg(fault.fromMs, 0, 'f', 1)
                     .arg(fault.toMs, 0, 'f', 1);
    }
    return texts.isEmpty() ? QStringLiteral("no fault") : texts.join(QStringLiteral(", "));
}

}

// The filter and the controller.
#include "audiodrift.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace {

/// Filters for this many places between two samples; between them the two nearest are mixed.
constexpr int places = 256;
constexpr int taps = 16;
constexpr int halfTaps = taps / 2;

/// How fast the samples return to their own places without a correction: too slow to be heard.
constexpr double glide = 1e-4;

using Filter = std::array<float, taps>;

/// Weights of the 16 samples around a place: 7 before the sample in front of it, 8 behind that.
Filter filterFor(double place)
{
    std::array<double, taps> weights{};
    double sum = 0;
    for (int tap = 0; tap < taps; ++tap) {
        const double distance = tap - (halfTaps - 1) - place;
        const double angle = std::numbers::pi * distance;
        const double sine = std::abs(distance) < 1e-9 ? 1 : std::sin(angle) / angle;
        const double across = angle / halfTaps; // Blackman's window
        const double window
            = std::abs(distance) >= halfTaps ? 0 : 0.42 + 0.5 * std::cos(across) + 0.08 * std::cos(2 * across);
        weights[size_t(tap)] = sine * window;
        sum += weights[size_t(tap)];
    }
    Filter filter{};
    for (size_t tap = 0; tap < filter.size(); ++tap)
        filter[tap] = float(weights[tap] / sum);
    return filter;
}

const std::array<Filter, places + 1>& filters()
{
    static const auto table = [] {
        std::array<Filter, places + 1> all{};
        for (size_t place = 0; place < all.size(); ++place)
            all[place] = filterFor(double(place) / places);
        return all;
    }();
    return table;
}

double fraction(double position)
{
    return position - std::floor(position);
}

}

void VariableResampler::reset()
{
    held_.assign(size_t(2 * (reach - 1)), 0.F);
    position_ = reach - 1;
}

void VariableResampler::process(std::span<const float> input, double step, std::vector<float>& stereo)
{
    held_.insert(held_.end(), input.begin(), input.end());
    generate(step, stereo);
    const auto used = qint64(std::floor(position_)) - (reach - 1);
    held_.erase(held_.begin(), held_.begin() + used * 2);
    position_ -= double(used);
}

void VariableResampler::flush(std::vector<float>& stereo)
{
    const std::array<float, 2 * reach> silence{};
    held_.insert(held_.end(), silence.begin(), silence.end());
    generate(1, stereo);
    reset();
}

double VariableResampler::heldFrames() const
{
    const size_t frames = held_.size() / 2;
    return double(frames) - position_;
}

void VariableResampler::generate(double step, std::vector<float>& stereo)
{
    const qint64 end = qint64(held_.size() / 2) - reach; // what can be made lies before it
    while (position_ < double(end)) {
        const double between = fraction(position_);
        if (step == 1 && between == 0) {
            copyWhole(end, stereo);
            return;
        }
        interpolate(stereo);
        if (step != 1) {
            position_ += step;
            continue;
        }
        // The nearest whole position is reached at last, and then kept.
        const bool down = between < 0.5;
        const bool arrives = down ? between <= glide : 1 - between <= glide;
        position_ = arrives ? std::round(position_) + 1 : position_ + (down ? 1 - glide : 1 + glide);
    }
}

void VariableResampler::copyWhole(qint64 end, std::vector<float>& stereo)
{
    const auto first = qint64(position_);
    stereo.insert(stereo.end(), held_.begin() + first * 2, held_.begin() + end * 2);
    position_ = double(end);
}

void VariableResampler::interpolate(std::vector<float>& stereo) const
{
    const double place = fraction(position_) * places;
    const auto below = size_t(place);
    const auto mix = float(place - double(below));
    const Filter& lower = filters()[below];
    const Filter& upper = filters()[below + 1];
    const float* frame = held_.data() + (qint64(position_) - (reach - 1)) * 2;
    float left = 0;
    float right = 0;
    for (size_t tap = 0; tap < taps; ++tap) {
        const float weight = lower[tap] + (upper[tap] - lower[tap]) * mix;
        left += weight * frame[2 * tap];
        right += weight * frame[2 * tap + 1];
    }
    stereo.push_back(left);
    stereo.push_back(right);
}

namespace {

constexpr double smoothingMs = 5000; ///< how far back the estimate looks
constexpr double returnMs = 10000; ///< how long an error takes to go back
constexpr double deadBandMs = 1.5; ///< errors below are left alone
constexpr double settledMs = 0.2; ///< where a correction ends
constexpr double settledDrift = 1e-5;
constexpr double mostCorrection = 1e-3; ///< of the speed; too little to be heard

}

void DriftController::restart()
{
    *this = DriftController();
}

double DriftController::step(double errorMs, double blockMs)
{
    // A tracker of value and slope with two equal time constants.
    const double keep = std::exp(-blockMs / smoothingMs);
    const double expected = errorMs_ + (drift_ - correction_) * blockMs;
    const double surprise = errorMs - expected;
    errorMs_ = expected + (1 - keep * keep) * surprise;
    drift_ += (1 - keep) * (1 - keep) * surprise / blockMs;

    if (std::abs(errorMs_) > deadBandMs)
        active_ = true;
    else if (std::abs(errorMs_) < settledMs && std::abs(drift_) < settledDrift)
        active_ = false;
    correction_ = active_ ? std::clamp(drift_ + errorMs_ / returnMs, -mostCorrection, mostCorrection) : 0;
    return 1 / (1 + correction_);
}

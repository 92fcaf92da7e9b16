// Keeps the audio of one clock in step with another: the speed that this takes, and the samples at that speed.
#pragma once

#include <QtGlobal>

#include <span>
#include <vector>

/**
 * Stereo samples run slightly faster or slower, by the values between the samples (windowed sine cardinal). At the
 * speed 1 the samples stay as they are, bit for bit. Changes of the speed make no click.
 */
class VariableResampler {
public:
    /// Forgets what is held: what comes next begins after silence.
    void reset();
    /// Appends to stereo. step is how many frames of the input make one of the output, near 1. The last few frames
    /// are held until what follows them is known.
    void process(std::span<const float> input, double step, std::vector<float>& stereo);
    /// Appends what is held, as if silence followed, and forgets it.
    void flush(std::vector<float>& stereo);
    /// How many frames of output are held, fractions included.
    double heldFrames() const;

private:
    void generate(double step, std::vector<float>& stereo);
    void copyWhole(qint64 end, std::vector<float>& stereo);
    void interpolate(std::vector<float>& stereo) const;

    static constexpr qint64 reach = 8; // frames on either side that an interpolated one is made from

    std::vector<float> held_ = std::vector<float>(size_t(2 * (reach - 1)));
    double position_ = reach - 1; // of the next frame of output, in frames from the start of held_
};

/**
 * Tells the speed from the error, that is how many milliseconds the audio has come to lie before the time that its
 * time stamps name. Small errors are left alone, and errors that only jitter average out; a growing one is held near
 * 0. It tracks error and drift of the clocks together, so that it reacts before much has built up.
 */
class DriftController {
public:
    void restart();
    /// The new step for VariableResampler, after a block of that length arrived with that error.
    double step(double errorMs, double blockMs);

private:
    double errorMs_ = 0; // smoothed
    double drift_ = 0; // by how much the error would grow in 1 ms without correction
    double correction_ = 0; // by how much it shrinks in 1 ms because of the speed
    bool active_ = false;
};

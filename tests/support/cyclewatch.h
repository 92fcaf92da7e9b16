// CycleWatch: what a player of PipeWire left out of its own audio, because it got no processor in time.
#pragma once

#include <spa/node/io.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <ctime>
#include <optional>

/// A graph does not wait: a player that misses a cycle, or is not done with it before the next one starts, leaves a
/// gap. cycleDone() belongs to the data thread, takeGap() to one other thread, restart() to any.
class CycleWatch {
public:
    struct Gap {
        int64_t startNs = 0; ///< monotonic clock
        int64_t lengthNs = 0;
    };

    /// The next cycle follows nothing: the player rested before it.
    void restart() { restarts_ = true; }

    /// After the cycle's audio was handed over. startNs is that of the clock when the player began with it. True when
    /// there is a new gap.
    bool cycleDone(const spa_io_clock& clock)
    {
        if (clock.rate.denom == 0)
            return false;
        const auto ns
            = [&clock](uint64_t frames) { return int64_t(double(frames) * 1e9 * clock.rate.num / clock.rate.denom); };
        const bool follows = !restarts_.exchange(false) && clock.id == clockId_ && clock.position >= nextPosition_;
        Gap gap{int64_t(clock.nsec), 0};
        if (follows && clock.position != nextPosition_) {
            gap.lengthNs = ns(clock.position - nextPosition_);
            gap.startNs -= gap.lengthNs;
        } else if (follows && nowNs() - int64_t(clock.nsec) > ns(clock.duration)) {
            gap.lengthNs = ns(clock.duration);
        }
        clockId_ = clock.id;
        nextPosition_ = clock.position + clock.duration;
        return gap.lengthNs > 0 && add(gap);
    }

    /// The oldest gap that was not taken yet.
    std::optional<Gap> takeGap()
    {
        if (taken_ == added_.load(std::memory_order_acquire))
            return std::nullopt;
        return gaps_[taken_++];
    }

private:
    static int64_t nowNs()
    {
        timespec time{};
        clock_gettime(CLOCK_MONOTONIC, &time);
        return int64_t(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
    }

    /// No memory is allocated and nothing is waited for. A player that leaves out more than there is room for is of
    /// no use, and what is recorded of it is judged without an excuse.
    bool add(const Gap& gap)
    {
        const std::size_t index = added_.load(std::memory_order_relaxed);
        if (index == gaps_.size())
            return false;
        gaps_[index] = gap;
        added_.store(index + 1, std::memory_order_release);
        return true;
    }

    std::array<Gap, 1024> gaps_{};
    std::atomic<std::size_t> added_{0};
    std::size_t taken_ = 0; // the other thread
    std::atomic<bool> restarts_{true};
    uint32_t clockId_ = 0; // data thread, as is the next one
    uint64_t nextPosition_ = 0;
};

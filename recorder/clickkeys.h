// The keys of the click map: recording milliseconds, one click a millisecond.
#pragma once

#include <QMap>

/**
 * Remembers the run of taken keys that the last search walked over. Clicks that share one time take the next
 * free millisecond each; without this, n of them would cost n * n / 2 steps, and a launcher that sends a
 * hundred thousand would stop the control channel. Guarded by the same lock as the map.
 */
class FreeKeyHint {
public:
    /// The first key at or after wanted that the map does not hold, remembered as taken from now on.
    template <typename Value>
    qint64 take(const QMap<qint64, Value>& map, qint64 wanted)
    {
        if (wanted < runStart_ || wanted > runEnd_) {
            runStart_ = wanted;
            runEnd_ = wanted;
        }
        for (auto it = map.lowerBound(runEnd_); it != map.cend() && it.key() == runEnd_; ++it)
            ++runEnd_;
        return runEnd_++;
    }

    /// The key that was taken last is not used.
    void giveBack() { --runEnd_; }

    /// To be called when keys were erased: what was a run may have gaps.
    void forget() { *this = FreeKeyHint(); }

private:
    qint64 runStart_ = 0; ///< every key from runStart_ up to, not including, runEnd_ is taken
    qint64 runEnd_ = 0;
};

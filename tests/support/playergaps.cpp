// Gaps of players.
#include "playergaps.h"

#include <QDebug>
#include <QList>

#include <algorithm>
#include <chrono>

namespace playergaps {

namespace {

/// A fault's place is exact to 25 ms, and a buffer that comes too late can spoil the cycle after it.
constexpr double toleranceMs = 75.0;

template <typename Clock>
double nowMs()
{
    return std::chrono::duration<double, std::milli>(Clock::now().time_since_epoch()).count();
}

}

std::optional<Gap> parse(const QByteArray& line)
{
    const QList<QByteArray> words = line.trimmed().split(' ');
    if (words.size() != 3 || words[0] != "gap")
        return std::nullopt;
    bool atRight = false;
    bool lengthRight = false;
    const Gap gap{words[1].toDouble(&atRight), words[2].toDouble(&lengthRight)};
    return atRight && lengthRight && gap.lengthMs > 0 ? std::optional(gap) : std::nullopt;
}

double wallClockLeadMs()
{
    return nowMs<std::chrono::system_clock>() - nowMs<std::chrono::steady_clock>();
}

std::vector<audioanalysis::ToneFault> unexplained(
    const std::vector<audioanalysis::ToneFault>& faults, const std::vector<Gap>& gaps, double originMs)
{
    std::vector<audioanalysis::ToneFault> rest;
    for (const audioanalysis::ToneFault& fault : faults) {
        const auto explains = [&](const Gap& gap) {
            const double atMs = gap.atMs - originMs;
            return atMs < fault.toMs + toleranceMs && atMs + gap.lengthMs > fault.fromMs - toleranceMs;
        };
        const auto gap = std::find_if(gaps.begin(), gaps.end(), explains);
        if (gap == gaps.end())
            rest.push_back(fault);
        else
            qInfo("The player itself left out %.1f ms at %.1f ms; not judged: %s", gap->lengthMs,
                gap->atMs - originMs, qPrintable(audioanalysis::describe({fault})));
    }
    return rest;
}

}

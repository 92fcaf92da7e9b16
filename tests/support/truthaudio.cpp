// Matches beeps with flashes.
#include "truthaudio.h"

#include "mediafile.h"
#include "truthbeeps.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace {

constexpr double searchedMs = 5000.0;
constexpr double clusterMs = 60.0; // offsets of one recording lie together
constexpr double farthestMs
    = 200.0; // of a beep from where the cluster expects it; beeps are three times as far apart
constexpr double marginMs = 200.0;
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();

/// When the beeps start in the file, in milliseconds; rising.
std::vector<double> heardBeeps(const MediaAudio& audio)
{
    std::vector<float> mixed(audio.channels.first().size());
    for (const std::vector<float>& channel : audio.channels) {
        for (std::size_t i = 0; i < mixed.size(); ++i)
            mixed[i] += channel[i] / float(audio.channels.size());
    }
    std::vector<double> starts = audioanalysis::beepOnsetsMs(mixed, audio.sampleRate, truthbeeps::beep);
    for (double& start : starts)
        start += audio.startMs;
    return starts;
}

/// When the flashes are due in the file; rising.
std::vector<double> flashesBetween(const TruthClock& clock, double fromMs, double toMs)
{
    std::vector<double> flashes;
    const quint32 past = clock.toClock(toMs) + 2000;
    // Differences stay right when the clock passes its end.
    for (quint32 clockMs = clock.toClock(fromMs); qint32(past - clockMs) > 0; clockMs += 1000) {
        const double flash = clock.toFile(truthbeeps::startMs(clockMs / 1000));
        if (flash >= fromMs && flash <= toMs)
            flashes.push_back(flash);
    }
    return flashes;
}

/// The offset at which the most beeps meet flashes.
double likeliestOffset(const std::vector<double>& beeps, const std::vector<double>& flashes)
{
    std::vector<double> offsets;
    for (const double beep : beeps) {
        const auto first = std::lower_bound(flashes.begin(), flashes.end(), beep - searchedMs);
        for (auto flash = first; flash != flashes.end() && *flash <= beep + searchedMs; ++flash)
            offsets.push_back(beep - *flash);
    }
    std::sort(offsets.begin(), offsets.end());
    double best = 0.0;
    std::ptrdiff_t most = 0;
    for (auto first = offsets.begin(), past = first; first != offsets.end(); ++first) {
        while (past != offsets.end() && *past <= *first + clusterMs)
            ++past;
        const double middle = *(first + (past - first) / 2);
        if (past - first > most || (past - first == most && std::abs(middle) < std::abs(best))) {
            most = past - first;
            best = middle;
        }
    }
    return best;
}

double driftOf(const QList<TruthBeep>& beeps, double meanMs)
{
    double meanTime = 0.0;
    for (const TruthBeep& beep : beeps)
        meanTime += beep.fileMs / double(beeps.size());
    double products = 0.0;
    double squares = 0.0;
    for (const TruthBeep& beep : beeps) {
        products += (beep.fileMs - meanTime) * (beep.offsetMs - meanMs);
        squares += (beep.fileMs - meanTime) * (beep.fileMs - meanTime);
    }
    constexpr double msPerMinute = 60'000.0;
    return squares > 0.0 ? products / squares * msPerMinute : 0.0;
}

void sumUp(TruthAudio& result)
{
    result.meanMs = result.worstMs = result.driftMsPerMinute = notANumber;
    if (result.beeps.isEmpty())
        return;
    result.meanMs = result.worstMs = 0.0;
    for (const TruthBeep& beep : std::as_const(result.beeps)) {
        result.meanMs += beep.offsetMs / double(result.beeps.size());
        if (std::abs(beep.offsetMs) > std::abs(result.worstMs))
            result.worstMs = beep.offsetMs;
    }
    result.driftMsPerMinute = driftOf(result.beeps, result.meanMs);
}

}

quint32 TruthClock::toClock(double ms) const
{
    return originMs + quint32(qint32(std::lround((ms - fileMs) / rate)));
}

TruthAudio measureBeeps(const MediaAudio& audio, const TruthClock& clock, double firstFrameMs, double lastFrameMs)
{
    const std::vector<double> beeps = heardBeeps(audio);
    const double firstMs = std::min(firstFrameMs, audio.startMs);
    const double lastMs = std::max(lastFrameMs, audio.startMs + audio.durationMs());
    const std::vector<double> flashes = flashesBetween(clock, firstMs - searchedMs, lastMs + searchedMs);
    const double offset = likeliestOffset(beeps, flashes);

    TruthAudio result;
    std::vector<double> heard; // flashes
    for (const double beep : beeps) {
        const auto after = std::lower_bound(flashes.begin(), flashes.end(), beep - offset - farthestMs);
        if (after == flashes.end() || *after > beep - offset + farthestMs) {
            ++result.strayBeeps;
            continue;
        }
        result.beeps.append({*after, beep - *after});
        heard.push_back(*after);
    }
    const double fromMs = std::max(firstFrameMs, audio.startMs) + marginMs;
    const double toMs = std::min(lastFrameMs, audio.startMs + audio.durationMs()) - marginMs;
    for (const double flash : flashes) {
        if (flash < fromMs || flash > toMs)
            continue;
        ++result.flashes;
        result.missedBeeps += !std::binary_search(heard.begin(), heard.end(), flash);
    }
    sumUp(result);
    return result;
}

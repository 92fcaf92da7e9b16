// The comparison of a file with what was asked for, and with what the recorder said of it.
#include "judgement.h"

#include <cstdlib>

namespace {

constexpr qint64 toleranceMs = 1000; // a slow start of the audio or a loaded machine is no fault
constexpr qsizetype mostGaps = 3;

QString seconds(qint64 ms)
{
    return QStringLiteral("%1 s").arg(double(ms) / 1000, 0, 'f', 2);
}

void judgeVideo(const Inspection::Video& video, const Expectation& expectation, QStringList& complaints)
{
    if (video.frames == 0) {
        complaints += QStringLiteral("the video holds no frame");
        return;
    }
    if (video.badFrames > 0)
        complaints += QStringLiteral("%1 of %2 frames cannot be decoded").arg(video.badFrames).arg(video.frames);
    for (const Inspection::Gap& gap : video.gaps.mid(0, mostGaps))
        complaints += QStringLiteral("the video holds no frame for %1 from %2 on; it stands still there")
                          .arg(seconds(gap.lengthMs), seconds(gap.fromMs));
    if (video.gaps.size() > mostGaps)
        complaints += QStringLiteral("the video stands still in %1 more places").arg(video.gaps.size() - mostGaps);
    if (expectation.durationMs && std::llabs(*expectation.durationMs - video.endMs) > toleranceMs)
        complaints += QStringLiteral("the video ends after %1, although the recording lasted %2")
                          .arg(seconds(video.endMs), seconds(*expectation.durationMs));
}

void judgeAudio(const Inspection::Audio& audio, const Expectation& expectation, QStringList& complaints)
{
    if (audio.badBlocks > 0)
        complaints += QStringLiteral("%1 blocks of the audio cannot be decoded").arg(audio.badBlocks);
    if (expectation.durationMs && std::llabs(*expectation.durationMs - audio.lengthMs) > toleranceMs)
        complaints += QStringLiteral("the audio lasts %1, although the recording lasted %2")
                          .arg(seconds(audio.lengthMs), seconds(*expectation.durationMs));
}

}

QStringList judge(const Inspection& inspection, const Expectation& expectation)
{
    QStringList complaints;
    if (!inspection.error.isEmpty())
        complaints += QStringLiteral("the file cannot be read to its end: %1").arg(inspection.error);
    if (inspection.video)
        judgeVideo(*inspection.video, expectation, complaints);
    else
        complaints += QStringLiteral("the file holds no video");
    if (inspection.audio && expectation.withAudio)
        judgeAudio(*inspection.audio, expectation, complaints);
    else if (!inspection.audio && expectation.withAudio)
        complaints += QStringLiteral("the file holds no audio");
    if (expectation.durationMs && expectation.lengthMs
        && *expectation.durationMs < *expectation.lengthMs - toleranceMs)
        complaints += QStringLiteral("the recording lasted %1, not the %2 that were asked for")
                          .arg(seconds(*expectation.durationMs), seconds(*expectation.lengthMs))
            + (expectation.earlyEnd.isEmpty() ? QString() : QLatin1String(": ") + expectation.earlyEnd);
    return complaints;
}

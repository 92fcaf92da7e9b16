// What a recording of the truth window says about its recorder: lost frames, time, colour and position
// errors, and how well its audio is in step.
#pragma once

#include "truthaudio.h"

#include <QList>
#include <QPointF>
#include <QRectF>
#include <QRgb>
#include <QSize>
#include <QString>

#include <array>
#include <memory>
#include <optional>

class QImage;

/// What the recording was made of. Points are in window pixels.
struct TruthQuery {
    QSize window;
    std::optional<QRectF> whereTheWindowIs; ///< pixels of the frame; without it, letterboxed by the usual rule
    std::optional<QPointF> pointer; ///< where the pointer rested; on the field
    QList<QPointF> markers; ///< where clicks were made; on the field
    bool beeps = false; ///< the window flashed and beeped
};

/// Presentation time against the painted clock, after the median difference is taken away. Milliseconds.
struct TruthTiming {
    double medianMs = 0.0; ///< of the absolute errors, as are the two below
    double p95Ms = 0.0;
    double worstMs = 0.0;
    /// How fast the errors grow; positive: the file runs slow. Painting and capture beat against each other by
    /// several milliseconds, so only a recording of minutes tells a drift from that.
    double driftMsPerMinute = 0.0;
};

/// One colour patch over all frames and the middle of its pixels: absolute error of red, green, blue, 0 to
/// 255. The means are not-a-number when no frame was measured.
struct TruthPatch {
    QRgb expected = 0;
    std::array<double, 3> mean{};
    std::array<int, 3> max{};
};

/// The pointer over the frames in which it was found whole. Pixels of the frame.
struct TruthPointer {
    QPointF expected;
    int framesSeen = 0;
    double medianErrorPx = 0.0; ///< not-a-number when it was never seen, as is the one below
    double worstErrorPx = 0.0;
};

/// One click marker. Positions and radius in pixels of the frame, times in milliseconds of the file. In its
/// last half second a marker is so small and faint that an encoder may move it by a pixel or swallow it.
struct TruthMarker {
    struct Sample {
        double ptsMs = 0.0;
        double radius = 0.0;
        double errorPx = 0.0; ///< distance of its centre from the expected point
    };

    static constexpr double leastMeasuredRadius = 5.0; ///< smaller samples do not count in the errors below

    QPointF expected;
    QList<Sample> samples; ///< one per frame in which it was seen
    double firstSeenPtsMs = 0.0; ///< not-a-number when it was never seen, as are those below
    double lastSeenPtsMs = 0.0;
    double medianErrorPx = 0.0;
    double worstErrorPx = 0.0;
};

struct TruthReport {
    QString error; ///< empty when the whole file was measured
    QSize canvas; ///< pixels
    QRectF whereTheWindowIs; ///< pixels of the frame
    bool coloursTagged = false; ///< false: the colours below were measured on a guess

    int framesInFile = 0;
    int framesDecoded = 0; ///< those whose barcode was read
    double firstFrameMs = 0.0; ///< presentation times
    double lastFrameMs = 0.0;
    int missedSlots = 0;
    /// The window repainted itself more than twice per slot, so that no two frames may show the same
    /// painting.
    bool animated = false;
    double repaintIntervalMs = 0.0; ///< mean time between paintings; 0 when the counter never moved
    int repeatedFrames = 0; ///< frames that show the painting of the frame before; counted only when animated
    int framesLost() const { return missedSlots + repeatedFrames; }

    std::optional<TruthTiming> timing; ///< nothing when the window was not animated
    /// A frame shows a painting that is half a repaint interval old on average, which is taken into account.
    std::optional<TruthClock> clock; ///< likewise
    QList<TruthPatch> patches;
    std::optional<TruthPointer> pointer; ///< present when asked for
    QList<TruthMarker> markers; ///< as asked for

    /// From the first packet's time to the end of the last one; nothing without such a stream, or for frames without
    /// a file, as is the audio.
    std::optional<double> videoDurationMs;
    std::optional<double> audioDurationMs;
    std::optional<TruthAudio> audio; ///< present when asked for, the window was animated and the file has audio
};

/// How many frames are missing between those that are there: recording has a slot every 41 ms, and a gap
/// above 61 ms between two presentation times holds at least one empty slot.
int missedSlots(const QList<double>& ptsMs);

/// Measures a recording frame by frame.
class TruthMeter {
public:
    TruthMeter(const TruthQuery& query, QSize canvas);
    ~TruthMeter();
    TruthMeter(const TruthMeter&) = delete;
    TruthMeter& operator=(const TruthMeter&) = delete;

    /// The next frame, QImage::Format_RGB32, in the order of presentation.
    void add(const QImage& frame, double ptsMs);
    /// What the frames up to now say.
    TruthReport report() const;

private:
    struct Measurements;
    std::unique_ptr<Measurements> measurements_;
};

/// Measures the recording in a file.
TruthReport measureTruth(const QString& path, const TruthQuery& query);

// What a recording of the truth window says about its recorder.
#include "truthreport.h"

#include "mediafile.h"
#include "truthoverlay.h"
#include "truthscene.h"

#include <QImage>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <vector>

namespace {

constexpr double slotMs = 41.0;
constexpr double longestGapMs = 61.0; // one slot and a half
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();

/// The value that the given share (0 to 1) of the values does not exceed.
double percentile(std::vector<double> values, double share)
{
    if (values.empty())
        return notANumber;
    std::sort(values.begin(), values.end());
    const auto rank = std::ptrdiff_t(std::ceil(share * double(values.size()))) - 1;
    return values[std::size_t(std::clamp(rank, std::ptrdiff_t(0), std::ptrdiff_t(values.size()) - 1))];
}

double distance(const QPointF& a, const QPointF& b)
{
    return std::hypot(a.x() - b.x(), a.y() - b.y());
}

/// A frame whose barcode was read. The clock is that of the painting, counted from the first such frame.
struct Stamped {
    double ptsMs;
    double clockMs;
    quint32 counter;
};

/// The mean of the middle half of the values, which neither late frames nor a beat move.
double middleMean(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const auto quarter = std::ptrdiff_t(values.size() / 4);
    const double sum = std::accumulate(values.begin() + quarter, values.end() - quarter, 0.0);
    return sum / double(std::ptrdiff_t(values.size()) - 2 * quarter);
}

/// How the differences change from the first third of the frames to the last, per millisecond of the clock.
double slopeOf(const std::vector<Stamped>& frames, const std::vector<double>& differences)
{
    const auto third = std::ptrdiff_t(frames.size() / 3);
    if (third == 0)
        return 0.0;
    std::vector<double> clocks;
    for (const Stamped& frame : frames)
        clocks.push_back(frame.clockMs);
    const auto change = [third](const std::vector<double>& values) {
        return middleMean({values.end() - third, values.end()})
            - middleMean({values.begin(), values.begin() + third});
    };
    const double time = change(clocks);
    return time > 0.0 ? change(differences) / time : 0.0;
}

TruthTiming timingOf(const std::vector<Stamped>& frames)
{
    std::vector<double> differences;
    for (const Stamped& frame : frames)
        differences.push_back(frame.ptsMs - frame.clockMs);
    const double offset = percentile(differences, 0.5);
    std::vector<double> errors;
    for (const double difference : differences)
        errors.push_back(std::abs(difference - offset));
    constexpr double msPerMinute = 60'000.0;
    return {percentile(errors, 0.5), percentile(errors, 0.95), percentile(errors, 1.0),
        slopeOf(frames, differences) * msPerMinute};
}

/// Paintings are stamped in whole milliseconds that are cut off, and are half an interval old when they are captured.
TruthClock clockOf(const std::vector<Stamped>& frames, quint32 firstClockMs, double repaintIntervalMs)
{
    std::vector<double> differences;
    std::vector<double> clocks;
    for (const Stamped& frame : frames) {
        differences.push_back(frame.ptsMs - frame.clockMs);
        clocks.push_back(frame.clockMs);
    }
    constexpr double cutOffMs = 0.5; // on average
    const double slope = slopeOf(frames, differences);
    const double atOrigin = middleMean(differences) - slope * middleMean(clocks);
    return {firstClockMs, atOrigin - repaintIntervalMs / 2 - cutOffMs, 1.0 + slope};
}

/// One patch's errors, summed up.
struct PatchErrors {
    std::array<double, 3> sum{};
    std::array<int, 3> max{};
    qint64 pixels = 0;

    void add(QRgb seen, QRgb expected)
    {
        const std::array errors{std::abs(qRed(seen) - qRed(expected)), std::abs(qGreen(seen) - qGreen(expected)),
            std::abs(qBlue(seen) - qBlue(expected))};
        for (std::size_t channel = 0; channel < errors.size(); ++channel) {
            sum[channel] += errors[channel];
            max[channel] = std::max(max[channel], errors[channel]);
        }
        ++pixels;
    }
};

/// The whole pixels inside a rectangle.
QRect inside(const QRectF& area)
{
    const QPoint topLeft(int(std::ceil(area.left())), int(std::ceil(area.top())));
    return {topLeft, QPoint(int(std::floor(area.right())) - 1, int(std::floor(area.bottom())) - 1)};
}

}

int missedSlots(const QList<double>& ptsMs)
{
    int missed = 0;
    for (qsizetype i = 1; i < ptsMs.size(); ++i) {
        const double gap = ptsMs[i] - ptsMs[i - 1];
        if (gap > longestGapMs)
            missed += int(std::lround(gap / slotMs)) - 1;
    }
    return missed;
}

struct TruthMeter::Measurements {
    TruthQuery query;
    QSize canvas;
    QRectF where; // pixels of the frame, as everything here
    QList<QRect> patchAreas; // the middle of each
    QRect field;
    double arrowScale;

    QList<double> ptsMs;
    std::vector<Stamped> stamped;
    quint32 firstClockMs = 0;
    std::array<PatchErrors, truthscene::patchColours.size()> patches;
    std::vector<double> pointerErrors;
    QList<TruthMarker> markers;

    void place();
    void stamp(double framePtsMs, const TruthStamp& read);
    void measurePatches(const QImage& frame);
    void measurePointer(const QImage& frame);
    void measureMarkers(const QImage& frame, double framePtsMs);
    QList<TruthPatch> patchReport() const;
    QList<TruthMarker> markerReport() const;
    QPointF onCanvas(const QPointF& inWindow) const { return truthscene::toImage(inWindow, query.window, where); }
};

void TruthMeter::Measurements::place()
{
    where = query.whereTheWindowIs.value_or(truthscene::letterboxed(query.window, canvas));
    const truthscene::Layout layout = truthscene::layout(query.window);
    for (const QRect& patch : layout.patches) {
        // The middle half of each side: scaling and halved chroma blur the rims.
        const QRectF area = truthscene::toImage(QRectF(patch), query.window, where);
        const double marginX = area.width() / 4;
        const double marginY = area.height() / 4;
        patchAreas.append(inside(area.adjusted(marginX, marginY, -marginX, -marginY)) & QRect({}, canvas));
    }
    constexpr double blurred = 16.0; // as far as a block of the encoder reaches
    field = inside(truthscene::toImage(QRectF(layout.field), query.window, where)
                       .adjusted(blurred, blurred, -blurred, -blurred))
        & QRect({}, canvas);
    arrowScale = std::max(where.width() / query.window.width(), 1.0);
    for (const QPointF& marker : query.markers)
        markers.append({onCanvas(marker), {}, notANumber, notANumber, notANumber, notANumber});
}

void TruthMeter::Measurements::stamp(double framePtsMs, const TruthStamp& read)
{
    if (stamped.empty())
        firstClockMs = read.clockMs;
    // The clock is 32 bits wide and may pass its end: differences stay right.
    stamped.push_back({framePtsMs, double(qint32(read.clockMs - firstClockMs)), read.counter});
}

void TruthMeter::Measurements::measurePatches(const QImage& frame)
{
    for (std::size_t i = 0; i < patches.size(); ++i) {
        const QRect& area = patchAreas[qsizetype(i)];
        for (int y = area.top(); y <= area.bottom(); ++y) {
            for (int x = area.left(); x <= area.right(); ++x)
                patches[i].add(frame.pixel(x, y), truthscene::patchColours[i]);
        }
    }
}

void TruthMeter::Measurements::measurePointer(const QImage& frame)
{
    if (const std::optional<QPointF> tip = truthoverlay::findPointer(frame, field, arrowScale))
        pointerErrors.push_back(distance(*tip, onCanvas(*query.pointer)));
}

void TruthMeter::Measurements::measureMarkers(const QImage& frame, double framePtsMs)
{
    constexpr double farthest = 48.0; // a spot further away is another click's
    std::vector<std::optional<TruthMarker::Sample>> best(std::size_t(markers.size()));
    for (const truthoverlay::Spot& spot : truthoverlay::findMarkers(frame, field)) {
        const auto nearest = std::min_element(markers.cbegin(), markers.cend(), [&](const auto& a, const auto& b) {
            return distance(a.expected, spot.centre) < distance(b.expected, spot.centre);
        });
        const double error = distance(nearest->expected, spot.centre);
        auto& sample = best[std::size_t(nearest - markers.cbegin())];
        if (error <= farthest && (!sample || error < sample->errorPx))
            sample = TruthMarker::Sample{framePtsMs, spot.radius, error};
    }
    for (std::size_t i = 0; i < best.size(); ++i) {
        if (best[i])
            markers[qsizetype(i)].samples.append(*best[i]);
    }
}

QList<TruthPatch> TruthMeter::Measurements::patchReport() const
{
    QList<TruthPatch> report;
    for (std::size_t i = 0; i < patches.size(); ++i) {
        TruthPatch patch{truthscene::patchColours[i], {}, patches[i].max};
        for (std::size_t channel = 0; channel < patch.mean.size(); ++channel)
            patch.mean[channel] = patches[i].sum[channel] / double(patches[i].pixels);
        report.append(patch);
    }
    return report;
}

QList<TruthMarker> TruthMeter::Measurements::markerReport() const
{
    QList<TruthMarker> report = markers;
    for (TruthMarker& marker : report) {
        std::vector<double> errors;
        for (const TruthMarker::Sample& sample : std::as_const(marker.samples)) {
            if (sample.radius >= TruthMarker::leastMeasuredRadius)
                errors.push_back(sample.errorPx);
        }
        if (!marker.samples.isEmpty()) {
            marker.firstSeenPtsMs = marker.samples.first().ptsMs;
            marker.lastSeenPtsMs = marker.samples.last().ptsMs;
        }
        marker.medianErrorPx = percentile(errors, 0.5);
        marker.worstErrorPx = percentile(errors, 1.0);
    }
    return report;
}

TruthMeter::TruthMeter(const TruthQuery& query, QSize canvas) : measurements_(std::make_unique<Measurements>())
{
    measurements_->query = query;
    measurements_->canvas = canvas;
    measurements_->place();
}

TruthMeter::~TruthMeter() = default;

void TruthMeter::add(const QImage& frame, double ptsMs)
{
    Measurements& all = *measurements_;
    all.ptsMs.append(ptsMs);
    const std::optional<TruthStamp> read = truthcode::decode(frame, all.where);
    if (!read || frame.size() != all.canvas)
        return;
    all.stamp(ptsMs, *read);
    all.measurePatches(frame);
    if (all.query.pointer)
        all.measurePointer(frame);
    if (!all.markers.isEmpty())
        all.measureMarkers(frame, ptsMs);
}

TruthReport TruthMeter::report() const
{
    const Measurements& all = *measurements_;
    TruthReport report;
    report.canvas = all.canvas;
    report.whereTheWindowIs = all.where;
    report.framesInFile = int(all.ptsMs.size());
    report.framesDecoded = int(all.stamped.size());
    report.missedSlots = missedSlots(all.ptsMs);
    if (!all.ptsMs.isEmpty()) {
        report.firstFrameMs = all.ptsMs.first();
        report.lastFrameMs = all.ptsMs.last();
    }

    if (!all.stamped.empty()) {
        const quint32 paintings = (all.stamped.back().counter - all.stamped.front().counter) & 0xffffff;
        if (paintings > 0)
            report.repaintIntervalMs = all.stamped.back().clockMs / paintings;
        report.animated = paintings > 0 && report.repaintIntervalMs < slotMs / 2;
    }
    if (report.animated) {
        for (std::size_t i = 1; i < all.stamped.size(); ++i)
            report.repeatedFrames += all.stamped[i].counter == all.stamped[i - 1].counter;
        report.timing = timingOf(all.stamped);
        report.clock = clockOf(all.stamped, all.firstClockMs, report.repaintIntervalMs);
    }

    report.patches = all.patchReport();
    if (all.query.pointer) {
        report.pointer = TruthPointer{all.onCanvas(*all.query.pointer), int(all.pointerErrors.size()),
            percentile(all.pointerErrors, 0.5), percentile(all.pointerErrors, 1.0)};
    }
    report.markers = all.markerReport();
    return report;
}

namespace {

/// What the file says beside its frames.
void addAudio(MediaFile& file, const TruthQuery& query, TruthReport& report)
{
    const QList<MediaPacket> packets = file.packets();
    const auto durationOf = [&](const MediaStream* stream) {
        double fromMs = std::numeric_limits<double>::infinity();
        double toMs = -fromMs;
        for (const MediaPacket& packet : packets) {
            if (stream && packet.stream == stream->index) {
                fromMs = std::min(fromMs, packet.ptsMs);
                toMs = std::max(toMs, packet.ptsMs + packet.durationMs);
            }
        }
        return toMs >= fromMs ? std::optional(toMs - fromMs) : std::nullopt;
    };
    report.videoDurationMs = durationOf(file.videoStream());
    report.audioDurationMs = durationOf(file.audioStream());
    if (!query.beeps || !report.clock)
        return;
    if (const std::optional<MediaAudio> audio = file.audio())
        report.audio = measureBeeps(*audio, *report.clock, report.firstFrameMs, report.lastFrameMs);
}

}

TruthReport measureTruth(const QString& path, const TruthQuery& query)
{
    TruthReport failed;
    MediaFile file(path);
    const MediaStream* const video = file.videoStream();
    if (!truthscene::fits(query.window)) {
        failed.error = QStringLiteral("a truth window of %1x%2 does not exist")
                           .arg(query.window.width())
                           .arg(query.window.height());
        return failed;
    }
    if (!video) {
        failed.error = file.isValid() ? QStringLiteral("%1: no video stream").arg(path) : file.errorString();
        return failed;
    }
    TruthMeter meter(query, video->size);
    bool coloursTagged = true;
    file.forEachFrame([&](const MediaFrame& frame) {
        coloursTagged = coloursTagged && frame.coloursTagged;
        meter.add(frame.image, frame.ptsMs);
        return true;
    });
    TruthReport report = meter.report();
    report.coloursTagged = coloursTagged && report.framesInFile > 0;
    addAudio(file, query, report);
    report.error = file.errorString();
    return report;
}

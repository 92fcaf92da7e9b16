// Clicks: keyed by recording time as they are reported (main thread), drawn as fading discs on the frames of
// that time (worker thread). clickMutex is the only lock between the two and is never held while painting.
#include "gstrecorder.h"

#include "clickmarker.h"

#include <QDebug>
#include <QPainter>
#include <QPointF>

#include <algorithm>
#include <iterator>

namespace {

constexpr int overlayDelayMs = 0; // a marker sits at the click's own time; only logged
constexpr qsizetype mostPendingClicks = 250000; // about 25 MB; frames prune what is older than 2 s

bool isFraction(double value)
{
    return value >= 0.0 && value <= 1.0; // false for NaN
}

std::optional<QPointF> clickInImage(const GstRecorder::MouseClick& click, const FrameGeometry& geometry)
{
    if (const auto inside = geometry.insideImage(click.globalX, click.globalY))
        return inside;
    if (click.hasNormalized)
        return geometry.normalizedToImage(click.normalizedX, click.normalizedY);
    return std::nullopt;
}

}

void GstRecorder::addClick(
    double globalX, double globalY, double normalizedX, double normalizedY, long long timestampMs)
{
    const CheckedLock lock(clickMutex);
    MouseClick click{globalX, globalY, 0.0, 0.0, false};
    if (isFraction(normalizedX) && isFraction(normalizedY)) {
        click.normalizedX = normalizedX;
        click.normalizedY = normalizedY;
        click.hasNormalized = true;
    }

    followWallClockLocked();
    const qint64 nowAtMs = wallClock.now();
    const qint64 receiveDelayMs = timestampMs >= 1 ? nowAtMs - timestampMs : 0;
    const qint64 startedAtMs = recordingStartedAtMs.load(std::memory_order_acquire);
    qint64 rawMs = 0;
    if (timestampMs >= 1 && startedAtMs >= 1)
        rawMs = std::max<qint64>(timestampMs - (startedAtMs + clockCorrection(timestampMs)), 0);
    else if (recordingClock.isValid()) // started under this lock
        rawMs = std::max<qint64>(recordingClock.elapsed(), 0);

    const qint64 key = freeClickKey.take(clicks, rawMs);
    if (clicks.size() >= mostPendingClicks && !makeRoomForClick(key)) {
        freeClickKey.giveBack();
        return;
    }
    clicks.insert(key, click);
    qDebug() << "Recorder mouse click received"
             << "global" << QPointF(globalX, globalY) << "normalized" << QPointF(click.normalizedX, click.normalizedY)
             << "has normalized" << click.hasNormalized << "timestamp" << timestampMs << "receive delay ms"
             << receiveDelayMs << "raw recording ms" << rawMs << "overlay delay ms" << overlayDelayMs
             << "display recording ms" << key;
}

qint64 GstRecorder::clockCorrection(long long timestampMs) const
{
    return recordingClock.isValid() ? wallClock.correctionFor(timestampMs, recordingClock.elapsed()) : 0;
}

void GstRecorder::followWallClock()
{
    const CheckedLock lock(clickMutex);
    followWallClockLocked();
}

/// The wall clock may be set while it is recorded. Clicks are stamped in it.
void GstRecorder::followWallClockLocked()
{
    const qint64 byMs = recordingClock.isValid() ? wallClock.follow(recordingClock) : 0;
    if (byMs == 0)
        return;
    recordingStartedAtMs.fetch_add(byMs, std::memory_order_acq_rel);
    qWarning() << "Wall clock was set, or the machine slept; mouse clicks follow it, ms:" << byMs;
}

/// At the limit the click that is farthest ahead gives way: its frame comes last, or never when its time is wrong.
/// False when that is the new one.
bool GstRecorder::makeRoomForClick(qint64 key)
{
    if (!clickLimitLogged) {
        qWarning() << "Recorder drops the mouse clicks farthest ahead while as many are pending:" << clicks.size();
        clickLimitLogged = true;
    }
    if (key > clicks.lastKey())
        return false;
    clicks.erase(std::prev(clicks.end())); // no part of the run that the new key ends
    return true;
}

/// A copy of the clicks that a frame of this time shows, in the order of their keys; what no later frame can show is
/// dropped. A click that arrives meanwhile waits for the next frame.
std::vector<GstRecorder::LiveClick> GstRecorder::liveClicks(long long timestampMs)
{
    const CheckedLock lock(clickMutex);
    const auto expired = [timestampMs](const QMap<qint64, MouseClick>::iterator& entry) {
        return clickmarker::expired(timestampMs, entry.key());
    };
    if (clicks.removeIf(expired) > 0)
        freeClickKey.forget();
    std::vector<LiveClick> live;
    for (auto entry = clicks.cbegin(); entry != clicks.cend() && entry.key() <= timestampMs; ++entry)
        live.push_back({entry.key(), *entry});
    return live;
}

/// The rows that markers touch.
RowSet GstRecorder::markerRows(
    const FrameGeometry& geometry, const std::vector<LiveClick>& live, long long timestampMs)
{
    RowSet rows;
    for (const LiveClick& entry : live) {
        const auto inImage = clickInImage(entry.click, geometry);
        if (!inImage)
            continue;
        const double centre = geometry.toCanvas(*inImage).y();
        const double radius = clickmarker::radius(clickmarker::fade(timestampMs - entry.keyMs));
        rows.add(geometry.canvasRows(centre - radius, centre + radius));
    }
    return rows;
}

void GstRecorder::drawClicks(
    QPainter& painter, const FrameGeometry& geometry, const std::vector<LiveClick>& live, long long timestampMs)
{
    painter.setPen(Qt::NoPen);
    for (const LiveClick& entry : live) {
        const auto inImage = clickInImage(entry.click, geometry);
        if (!inImage)
            continue;
        const double fade = clickmarker::fade(timestampMs - entry.keyMs);
        const double radius = clickmarker::radius(fade);
        painter.setBrush(QColor(230, 0, 25, clickmarker::alpha(fade)));
        painter.drawEllipse(geometry.toCanvas(*inImage), radius, radius);
    }
}

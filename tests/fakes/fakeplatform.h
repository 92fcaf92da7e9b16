// A platform whose every answer the test sets. One state for the whole process; reset() between tests.
#pragma once

#include "rowset.h"

#include <QImage>
#include <QPointF>
#include <QRectF>

#include <atomic>
#include <functional>
#include <optional>
#include <vector>

namespace fakeplatform {

/// What the fake answers, and what it was asked. Set it before the recorder is made; the functions run on whatever
/// thread asks.
struct State {
    std::vector<bool> preflightAnswers{true}; ///< one an ask, the last one repeats
    bool requestAnswer = true;
    int preflightCalls = 0;
    int requestCalls = 0;
    int enrolments = 0;

    /// The window's image; called with the number of images asked for before (0 first).
    std::function<QImage(int)> image;
    /// Which rows of it the source says may have changed; nothing set: all, unless it is the same image as before.
    std::function<RowSet(int)> changedRows;
    bool imageWasUnusable = false; ///< a null image is one that the system has, but cannot be used
    std::function<std::optional<QRectF>()> bounds;
    std::function<std::optional<QPointF>()> pointer;
    std::vector<quint32> openedWindows; ///< ids, in the order of opening

    std::optional<quint32> peerUserId = 1000;
    int peerUserIdCalls = 0;
    quint32 ownUserId = 1000;
    std::optional<qint64> availableMemory;
    /// So many calls of the seam of the memory succeed, and then none; nothing set: all.
    std::optional<int> memoryCallsLeft;
    std::optional<quint32> administratorsGroup;
};

State& state();
void reset();

/// Sources made and not yet destroyed, which may happen on a thread that nobody waits for.
std::atomic<int>& openWindows();
/// Bytes, of memory and of addresses, that were taken and not yet given back. Images end on any thread.
std::atomic<std::size_t>& memoryTaken();
/// Bytes that emptyMemory() was told, since the start.
std::atomic<std::size_t>& memoryEmptied();

/// An opaque image in the seam's format for opaque windows.
QImage solidImage(int width, int height, QRgb colour);

}

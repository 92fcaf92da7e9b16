// Frames of a truth window that was never on a screen, for the tests of the report.
#pragma once

#include "truthreport.h"
#include "truthscene.h"

#include <QDebug>

#include <cmath>

namespace truthframes {

constexpr QSize windowSize(640, 480);

inline TruthQuery plainQuery()
{
    return {windowSize, std::nullopt, std::nullopt, {}};
}

inline QImage windowWith(const TruthStamp& stamp)
{
    QImage window = truthscene::paintStill(windowSize);
    truthscene::paintAnimated(window, stamp);
    return window;
}

/// A frame every 41 ms of a window that repaints itself every 8 ms.
struct Frame {
    double ptsMs;
    TruthStamp stamp;
};

inline QList<Frame> steadyFrames(int count, quint32 firstClockMs = 1'000'000)
{
    QList<Frame> frames;
    for (int i = 0; i < count; ++i)
        frames.append(Frame{i * 41.0, {quint32(i * 41 / 8), firstClockMs + quint32(i) * 41}});
    return frames;
}

inline bool about(double value, double expected, double tolerance)
{
    if (std::abs(value - expected) <= tolerance)
        return true;
    qWarning() << value << "instead of" << expected;
    return false;
}

}

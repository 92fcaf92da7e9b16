// MacBench: the simulated Mac around a test, and the check at its end.
#pragma once

#include "logcapture.h"
#include "macsim.h"

#include <QTest>

/// Make it before the objects under test, and call it last: MAC_IS_CLEAN() fails the test when the program left
/// objects behind, released too much, or let a stream run.
struct MacBench {
    MacBench() { macsim::reset(); }
    ~MacBench() { macsim::reset(); }
    MacBench(const MacBench&) = delete;
    MacBench& operator=(const MacBench&) = delete;

    LogCapture log;
};

inline QString macVerdict()
{
    return QString::fromStdString(macsim::verdict());
}

#define MAC_IS_CLEAN() QCOMPARE(macVerdict(), QString())

/// Generous bound for conditions that hold within milliseconds on an idle machine.
inline constexpr int patienceMs = 20000;

inline constexpr qint64 fiveSecondsNs = 5000000000;
inline constexpr qint64 twoSecondsNs = 2000000000;

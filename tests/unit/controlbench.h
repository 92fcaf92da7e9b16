// ControlBench: a recorder that only listens, and the launcher that talks to it.
#pragma once

#include "recorderbench.h"

#include <QByteArray>
#include <QStringList>

inline const QByteArray pauseLine("{\"action\":\"pause\"}\n");
inline const QByteArray unpauseLine("{\"action\":\"unpause\"}\n");

/// Make a PrivateTempDir before it.
struct ControlBench : RecorderBench {
    ControlBench() : recorder(makeIdleRecorder())
    {
        if (!launcher.waitForConnection(patienceMs))
            qFatal("The recorder did not connect");
    }

    RecorderProbe probe() { return RecorderProbe(*recorder); }

    /// Sends lines, each with its line feed, and returns when they are obeyed: a pause comes last.
    void tell(const QByteArray& lines)
    {
        probe().paused().store(false);
        QVERIFY(launcher.send(lines + pauseLine));
        QTRY_VERIFY_WITH_TIMEOUT(probe().paused().load(), patienceMs);
    }

    /// The stored clicks in the order of their keys: "X Y NX NY hasNormalized", separated by "; ".
    QString clicks()
    {
        QStringList parts;
        for (const RecorderProbe::MouseClick& click : std::as_const(probe().clicks())) {
            parts.append(QStringLiteral("%1 %2 %3 %4 %5")
                             .arg(click.globalX)
                             .arg(click.globalY)
                             .arg(click.normalizedX)
                             .arg(click.normalizedY)
                             .arg(click.hasNormalized));
        }
        return parts.join(QStringLiteral("; "));
    }

    std::unique_ptr<GstRecorder> recorder; ///< destroyed before the launcher and the log
};

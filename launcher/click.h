// Click: one mouse click as the recorder is told about it.
#pragma once

#include <QByteArray>
#include <QLocale>
#include <QPointF>

struct Click {
    static constexpr double unknown = -1.0;

    QPointF global; ///< global screen points, origin top left, y down
    QPointF normalized{unknown, unknown}; ///< fractions of the window
    qint64 atMs = 0; ///< wall clock of the press, milliseconds since the epoch

    /// The line for the control socket, with its line feed.
    QByteArray line() const
    {
        const auto text
            = [](double number) { return QByteArray::number(number, 'f', QLocale::FloatingPointShortest); };
        return "click|" + text(global.x()) + '|' + text(global.y()) + '|' + text(normalized.x()) + '|'
            + text(normalized.y()) + '|' + QByteArray::number(atMs) + '\n';
    }
};

// The parts of a line of the recorder's log.
#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace logtext {

/// The quoted text behind the last appearance of a label in a line; empty when there is none.
QString quotedAfter(const QByteArray& line, const QByteArray& label);

/// The whole number behind the last appearance of a label in a line.
std::optional<qint64> numberAfter(const QByteArray& line, const QByteArray& label);

/// Without the place in the source, which a line ends with, and without the line feed.
QString withoutPlace(const QByteArray& text);

}

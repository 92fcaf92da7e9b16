// Lines for stderr, which may be a pipe that nobody reads or a terminal that is stopped.
#pragma once

#include <QByteArray>

namespace stderrlines {

/**
 * Writes a line (with its line feed, or whatever ends it) when stderr takes it at once, else drops it; never waits
 * for a reader. Lines do not mix: when only the beginning of one is taken, the rest of it comes first with the next
 * call; without memory for that rest the line ends there, and counts as dropped. Any thread. Throws nothing. Returns
 * how many lines were dropped before this one, and only when this one was taken; else 0.
 */
quint64 write(const QByteArray& line);

/// The same for a text that is no line of the log: dropped ones are not counted.
void writeBeside(const QByteArray& text);

}

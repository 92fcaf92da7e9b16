// Cuts a byte stream into lines, with a bound on what one line may cost.
#pragma once

#include <QByteArray>

#include <functional>

namespace linesplitter {

/// The longest line that is looked at, in bytes; a longer one is dropped whole.
inline constexpr qsizetype longestLine = qsizetype(1024) * 1024;

/**
 * Hands every complete line in buffer (ended by a line feed; trimmed of white space; empty ones left out) to
 * handle, in order, and leaves what follows the last line feed in the buffer. A line longer than longestLine
 * is dropped, also while it is still arriving: discarding then stays true until its line feed is seen.
 */
void takeLines(QByteArray& buffer, bool& discarding, const std::function<void(const QByteArray&)>& handle);

}

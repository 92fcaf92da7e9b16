// The framing of the control channel.
#include "linesplitter.h"

void linesplitter::takeLines(
    QByteArray& buffer, bool& discarding, const std::function<void(const QByteArray&)>& handle)
{
    QByteArray pending;
    pending.swap(buffer); // a handler may end in a nested call; it then finds an empty buffer
    qsizetype start = 0;
    for (qsizetype end = pending.indexOf('\n'); end >= 0; end = pending.indexOf('\n', start)) {
        const bool tooLong = discarding || end - start > longestLine;
        discarding = false;
        if (!tooLong) {
            const QByteArray line = pending.mid(start, end - start).trimmed();
            if (!line.isEmpty())
                handle(line);
        }
        start = end + 1;
    }
    if (discarding)
        return;
    if (pending.size() - start > longestLine) {
        discarding = true;
        return;
    }
    buffer = pending.mid(start);
}

// Control bytes: what a launcher sends, in pieces, through the recorder's socket and slot.
//
// The first byte says how many bytes a piece has (0: all of them). Where "long" follows, bytes come behind a line
// that is as long as the longest.
#include "idlerecorder.h"
#include "linesplitter.h"

#include <QAbstractEventDispatcher>
#include <QJsonDocument>
#include <QJsonObject>

#include <sys/socket.h>

namespace {

constexpr std::string_view behindLongLine = "long";
constexpr std::size_t mostPieces = 8;
constexpr qint64 startedAtMs = 1'700'000'000'000;

/// What the bytes come to, read as a whole.
struct Expected {
    qsizetype clicks = 0;
    bool stops = false;
    bool exits = false;
    bool paused = false;
    bool hasLegacyList = false;
    QByteArray kept; ///< of a line that has not ended
};

qsizetype legacyClicks(const QByteArray& list)
{
    return list.count('|') / 2;
}

void expectLine(Expected& expected, const QByteArray& line)
{
    if (line.startsWith("click|")) {
        expected.clicks += line.count('|') >= 4;
    } else if (line.startsWith('|')) {
        expected.hasLegacyList = true;
        expected.clicks += legacyClicks(line);
    } else {
        const QString action = QJsonDocument::fromJson(line)[QLatin1String("action")].toString();
        expected.stops |= action == QLatin1String("stop");
        expected.exits |= action == QLatin1String("exit");
        if (action == QLatin1String("pause") || action == QLatin1String("unpause"))
            expected.paused = action == QLatin1String("pause");
    }
}

Expected expect(const QByteArray& bytes)
{
    Expected expected;
    QList<QByteArray> lines = bytes.split('\n');
    expected.kept = lines.takeLast();
    for (const QByteArray& line : std::as_const(lines))
        expectLine(expected, line.trimmed());
    if (!expected.kept.startsWith('|'))
        return expected;
    expected.hasLegacyList = true;
    if (expected.kept.count('|') > 1) {
        expected.clicks += legacyClicks(expected.kept);
        expected.kept.clear();
    }
    return expected;
}

class Bench {
public:
    Bench() { endTimers(); }

    void run(fuzz::Input input);

private:
    void reset(bool longLineIsThere);
    void send(std::string_view bytes, std::size_t pieceSize);
    void check(const Expected& expected, bool inPieces);
    void checkBuffer(const QByteArray& bytes, const Expected& expected);
    void checkClicks();
    bool hasReply();
    bool endTimers();

    fuzz::IdleRecorder idle_;
    RecorderProbe probe_ = idle_.probe();
};

void Bench::reset(bool longLineIsThere)
{
    static const QByteArray longLine(linesplitter::longestLine, 'x');
    probe_.forgetClicks();
    probe_.recordingStartedAtMs().store(startedAtMs);
    probe_.paused().store(false);
    probe_.stopAcknowledged() = false;
    probe_.exitRequested() = false;
    probe_.discardingLongLine() = false;
    probe_.controlBuffer() = longLineIsThere ? longLine : QByteArray();
}

void Bench::send(std::string_view bytes, std::size_t pieceSize)
{
    while (!bytes.empty()) {
        const std::string_view piece = bytes.substr(0, pieceSize);
        bytes.remove_prefix(piece.size());
        const ssize_t sent = ::send(idle_.launcherDescriptor(), piece.data(), piece.size(), MSG_NOSIGNAL);
        fuzz::require(sent == ssize_t(piece.size()), "the socket takes a piece");
        probe_.controlSocket()->waitForReadyRead(0);
        fuzz::require(probe_.controlSocket()->bytesAvailable() == 0, "the slot reads all that is there");
    }
}

/// The answer to a stop, once.
bool Bench::hasReply()
{
    char reply[64];
    const ssize_t size = ::recv(idle_.launcherDescriptor(), reply, sizeof(reply), MSG_DONTWAIT);
    if (size <= 0)
        return false;
    fuzz::require(
        std::string_view(reply, std::size_t(size)) == "{\"duration\":0}\n", "a reply is one line with the duration");
    return true;
}

/// Those that would end the process; there is no event loop here.
bool Bench::endTimers()
{
    const auto timers
        = QAbstractEventDispatcher::instance()->findChildren<QObject*>(QString(), Qt::FindDirectChildrenOnly);
    qDeleteAll(timers);
    return !timers.isEmpty();
}

void Bench::checkClicks()
{
    const auto isFraction = [](double value) { return value >= 0.0 && value <= 1.0; };
    const QMap<qint64, RecorderProbe::MouseClick>& clicks = probe_.clicks();
    for (auto entry = clicks.cbegin(); entry != clicks.cend(); ++entry) {
        fuzz::require(entry.key() >= 0, "a click's time is no earlier than the recording");
        fuzz::require(entry->hasNormalized ? isFraction(entry->normalizedX) && isFraction(entry->normalizedY)
                                           : entry->normalizedX == 0.0 && entry->normalizedY == 0.0,
            "a normalized position is a pair of fractions");
    }
}

/// A list in pieces is taken as it comes; all else is the same however it is cut.
void Bench::check(const Expected& expected, bool inPieces)
{
    const bool exits = endTimers();
    const bool replies = hasReply();
    fuzz::require(exits == probe_.exitRequested(), "an exit that was asked for comes");
    fuzz::require(replies == probe_.stopAcknowledged(), "a stop is answered");
    checkClicks();
    if (inPieces && expected.hasLegacyList)
        return;
    fuzz::require(probe_.clicks().size() == expected.clicks, "every click counts, once");
    fuzz::require(replies == expected.stops, "a stop is answered, and nothing else");
    fuzz::require(exits == expected.exits, "an exit is obeyed, and nothing else");
    fuzz::require(probe_.paused().load() == expected.paused, "the last pause or unpause counts");
}

void Bench::checkBuffer(const QByteArray& bytes, const Expected& expected)
{
    if (probe_.discardingLongLine()) {
        fuzz::require(bytes.size() > linesplitter::longestLine && probe_.controlBuffer().isEmpty(),
            "only a line that is too long is dropped, and nothing of it is kept");
        return;
    }
    fuzz::require(probe_.controlBuffer() == expected.kept, "of an unfinished line all is kept");
}

void Bench::run(fuzz::Input input)
{
    const auto first = input.take<uint8_t>();
    const bool longLineIsThere = input.rest().starts_with(behindLongLine);
    if (longLineIsThere)
        input.takeBytes(behindLongLine.size());
    const std::string_view sent = input.rest();
    reset(longLineIsThere);
    const bool inPieces = first != 0;
    const std::size_t pieceSize = inPieces ? std::max<std::size_t>(first, sent.size() / mostPieces + 1)
                                           : std::max<std::size_t>(sent.size(), 1);
    const QByteArray bytes = probe_.controlBuffer() + QByteArray(sent.data(), qsizetype(sent.size()));
    send(sent, pieceSize);
    const Expected expected = expect(bytes);
    check(expected, pieceSize < sent.size());
    if (pieceSize >= sent.size() || !expected.hasLegacyList)
        checkBuffer(bytes, expected);
}

void run(fuzz::Input input)
{
    static Bench bench;
    bench.run(input);
}

const fuzz::Target controlBytes{"controlbytes", run, {}};

}

ORVANTIS_FUZZ_TARGET(controlBytes)

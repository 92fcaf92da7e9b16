// Which lines of the log are events, and what they are called. Everything that comes from the log is shown as plain
// text, cut to a length.
#include "runstory.h"

#include "explanation.h"
#include "logtext.h"
#include "plaintext.h"

#include <QRegularExpression>

#include <cstdlib>

namespace {

constexpr qsizetype mostEvents = 200; // of one run
constexpr qint64 mostClicks = 20;
constexpr qsizetype longestText = 300; // characters
constexpr qint64 lateMs = 100; // a report that took longer is worth a word
constexpr qint64 longestStartMs = 24LL * 3600 * 1000; // from the start to the first frame; more is another clock

const QByteArray identity = "Debug: recorder process identity pid";

QString shown(const QString& text)
{
    const QString plain = plainText(text);
    return plain.size() <= longestText ? plain : plain.left(longestText) + QStringLiteral(" ...");
}

QString shown(const QByteArray& bytes)
{
    constexpr qsizetype mostBytes = 4 * longestText;
    return shown(QString::fromUtf8(bytes.left(mostBytes)));
}

/// The word behind a label, without quotes.
QString wordAfter(const QByteArray& line, const QByteArray& label)
{
    const qsizetype at = line.lastIndexOf(label + ' ');
    return at < 0 ? QString() : shown(line.mid(at + label.size() + 1).split(' ').first().trimmed());
}

QString heldOrNot(const QString& truth)
{
    return truth == QLatin1String("true") ? QStringLiteral("held") : QStringLiteral("not held");
}

QString seconds(qint64 ms)
{
    return QString::number(double(ms) / 1000, 'f', 3);
}

}

bool RunStory::begins(const QByteArray& line)
{
    return line.startsWith(identity);
}

void RunStory::append(Event event, const QString& key)
{
    const auto known = places_.constFind(key);
    if (known != places_.constEnd()) {
        ++events_[*known].count;
        return;
    }
    if (events_.size() >= mostEvents) {
        ++leftOut_;
        return;
    }
    places_.insert(key, events_.size());
    events_.append(std::move(event));
}

void RunStory::tell(const QString& text, std::optional<qint64> atMs)
{
    append({atMs, text, QString()}, text);
}

/// It stands some lines below the start, and belongs to it. Without a start it has an event of its own.
void RunStory::tellVersion(const QString& version)
{
    const bool isOfAStart = !events_.isEmpty() && events_.first().isStart;
    if (!isOfAStart)
        tell(QStringLiteral("the recorder has ") + version);
    else if (!hasVersion_)
        events_.first().text += QLatin1String(", ") + version;
    hasVersion_ = true;
}

/// One event of two lines. Two threads write them, in any order.
void RunStory::tellReadiness(std::optional<qint64> atMs, bool launcherIsTold)
{
    const QString key = QStringLiteral("ready");
    if (!places_.contains(key))
        append({std::nullopt, QStringLiteral("ready: the window has given images"), QString()}, key);
    const auto place = places_.constFind(key);
    if (place == places_.constEnd())
        return; // beyond the bound
    Event& event = events_[*place];
    if (atMs)
        event.atMs = atMs;
    if (launcherIsTold && !launcherIsTold_)
        event.text += QLatin1String(", and the launcher is told");
    launcherIsTold_ = launcherIsTold_ || launcherIsTold;
}

void RunStory::add(const QByteArray& line)
{
    if (addComplaint(line))
        return;
    if (addStart(line) || addStreams(line) || addCourse(line) || addClick(line) || addEnd(line))
        isRecognised_ = true;
}

bool RunStory::addStart(const QByteArray& line)
{
    if (begins(line)) {
        const QString text = QStringLiteral("the recorder starts as process %1").arg(wordAfter(line, "identity pid"));
        append({std::nullopt, text, QString(), 1, true}, text);
    } else if (line.startsWith("Debug: recorder version")) {
        tellVersion(
            QStringLiteral("version %1, Qt %2").arg(wordAfter(line, "recorder version"), wordAfter(line, "Qt")));
    } else if (line.startsWith("Debug: invalid param count")) {
        tell(QStringLiteral("it was started with too few arguments, and did nothing"));
    } else if (line.startsWith("Debug: FFmpeg recorder starting")) {
        const std::optional<qint64> width = logtext::numberAfter(line, "canvas");
        const QString height
            = width ? wordAfter(line, "canvas " + QByteArray::number(*width)) : QStringLiteral("unknown");
        tell(QStringLiteral("it is to record window %1 on a canvas of %2x%3 into %4")
                 .arg(shown(logtext::quotedAfter(line, " window")))
                 .arg(width.value_or(0))
                 .arg(height, shown(logtext::quotedAfter(line, " output"))));
    } else if (line.startsWith("Debug: macOS screen recording preflight before request")) {
        tell(QStringLiteral("permission to capture windows: %1").arg(heldOrNot(wordAfter(line, "before request"))));
    } else if (line.startsWith("Debug: macOS screen recording request result")) {
        tell(QStringLiteral("the permission is requested: %1 now")
                 .arg(heldOrNot(wordAfter(line, "preflight after request"))));
    } else if (line.startsWith("Debug: recorder permission preflight completed")) {
        tell(QStringLiteral("it was only to check the permission to capture windows: %1")
                 .arg(heldOrNot(wordAfter(line, "screenCaptureAllowed"))));
    } else {
        return false;
    }
    return true;
}

bool RunStory::addStreams(const QByteArray& line)
{
    if (line.startsWith("Debug: macOS CoreGraphics capture configured for window")) {
        tell(QStringLiteral("window %1 is captured").arg(wordAfter(line, "for window")));
    } else if (line.startsWith("Debug: FFmpeg recorder using video encoder")) {
        tell(QStringLiteral("video encoder %1, %2 bit/s, into %3")
                 .arg(shown(logtext::quotedAfter(line, "video encoder")), wordAfter(line, "bitrate"),
                     shown(logtext::quotedAfter(line, " output"))));
    } else if (line.startsWith("Debug: FFmpeg recorder using audio encoder")) {
        tell(QStringLiteral("audio encoder %1, %2 Hz, %3 channels")
                 .arg(shown(logtext::quotedAfter(line, "audio encoder")), wordAfter(line, "sample rate"),
                     wordAfter(line, "channels")));
    } else if (line.startsWith("Debug: macOS ScreenCaptureKit audio capture configured")) {
        tell(wordAfter(line, "app-only") == QLatin1String("true")
                ? QStringLiteral("audio of one application, %1")
                      .arg(shown(logtext::quotedAfter(line, "requested device")))
                : QStringLiteral("audio of everything that plays"));
    } else if (line.startsWith("Debug: macOS ScreenCaptureKit audio capture started")) {
        tell(QStringLiteral("the audio capture has started"));
    } else if (line.startsWith("Debug: Unix audio capture received PCM")) {
        const bool isSilent = logtext::numberAfter(line, "peak") == 0;
        tell(isSilent ? QStringLiteral("the first audio arrives, silent at first")
                      : QStringLiteral("the first audio arrives"));
    } else {
        return false;
    }
    return true;
}

bool RunStory::addCourse(const QByteArray& line)
{
    if (line.startsWith("Debug: sending frame come")) {
        if (hasStopped_ && !places_.contains(QStringLiteral("ready")))
            tell(QStringLiteral("the launcher is told that it is ready, although the window gave no image: the stop "
                                "is answered"));
        else
            tellReadiness(std::nullopt, true);
    } else if (line.startsWith("Debug: Recorder ready; delaying first encoded frame")) {
        const qint64 delayMs = logtext::numberAfter(line, "first encoded frame").value_or(0);
        tellReadiness(-delayMs, false);
        tell(QStringLiteral("the first frame is due %1 s after that").arg(seconds(delayMs)), 0);
    } else if (line.startsWith("Debug: FFmpeg recorder stop requested")) {
        tell(QStringLiteral("the launcher asks for the end; the file is not finished yet"));
    } else {
        return false;
    }
    return true;
}

bool RunStory::addClick(const QByteArray& line)
{
    if (!line.startsWith("Debug: Recorder mouse click received"))
        return false;
    const std::optional<qint64> atMs = logtext::numberAfter(line, "raw recording ms");
    const std::optional<qint64> wallMs = logtext::numberAfter(line, " timestamp");
    if (atMs && wallMs && !firstFrameWallMs_)
        firstFrameWallMs_ = *wallMs - *atMs;
    static const QRegularExpression point(QStringLiteral("global QPointF\\(([-0-9.e+]+),([-0-9.e+]+)\\)"));
    const QRegularExpressionMatch place = point.match(QString::fromLatin1(line.left(longestText)));
    if (++clicks_ > mostClicks)
        return true;
    QString text = QStringLiteral("click at %1, %2").arg(place.captured(1), place.captured(2));
    const qint64 delayMs = logtext::numberAfter(line, "receive delay ms").value_or(0);
    if (delayMs > lateMs)
        text += QStringLiteral(", reported %1 s late").arg(seconds(delayMs));
    append({atMs, text, QString()}, text + QString::number(clicks_));
    return true;
}

bool RunStory::addEnd(const QByteArray& line)
{
    if (line.startsWith("Debug: FFmpeg recorder finalized output")) {
        tell(QStringLiteral("the file is finished: %1").arg(shown(logtext::quotedAfter(line, "finalized output"))));
    } else if (line.startsWith("Debug: FFmpeg recorder stopped, duration")) {
        hasStopped_ = true;
        const qint64 durationMs = logtext::numberAfter(line, "stopped, duration").value_or(0);
        tell(durationMs > 0 ? QStringLiteral("stopped; the recording lasts %1 s").arg(seconds(durationMs))
                            : QStringLiteral("stopped; nothing was recorded"),
            durationMs > 0 ? std::optional(durationMs) : std::nullopt);
    } else if (line.startsWith("Debug: recorder exiting")) {
        hasEnded_ = true;
        tell(QStringLiteral("the recorder ends with exit code %1").arg(wordAfter(line, "exiting")));
    } else {
        return false;
    }
    return true;
}

/// Warnings and worse. Those that mean the same are one event.
bool RunStory::addComplaint(const QByteArray& line)
{
    QString level;
    for (const char* known : {"Warning", "Critical", "Fatal"}) {
        if (line.startsWith(QByteArray(known) + ": "))
            level = QString::fromLatin1(known).toLower();
    }
    if (level.isEmpty())
        return false;
    ++complaints_;
    const std::optional<Explanation> explanation = Explanation::of(line);
    const bool isKnown = explanation && explanation->isKnown;
    isRecognised_ = isRecognised_ || !explanation || isKnown;
    // The usual thing in a log of millions of lines.
    if (isKnown && places_.contains(explanation->sentence)) {
        ++events_[places_[explanation->sentence]].count;
        return true;
    }
    if (events_.size() >= mostEvents) {
        ++leftOut_;
        return true;
    }
    const QString text = shown(logtext::withoutPlace(line.mid(line.indexOf(' ') + 1)));
    const QString meaning = isKnown ? explanation->sentence
        : explanation               ? QStringLiteral("a text that this version does not know")
                                    : QStringLiteral("nothing to do; what it leads to is told by other lines");
    append({std::nullopt, level + QLatin1String(": ") + text, meaning}, isKnown ? meaning : level + text);
    return true;
}

std::optional<qint64> RunStory::firstFrameMs() const
{
    if (!firstFrameWallMs_ || !startedAt_.isValid())
        return std::nullopt;
    const qint64 ms = *firstFrameWallMs_ - startedAt_.toMSecsSinceEpoch();
    return ms >= 0 && ms < longestStartMs ? std::optional(ms) : std::nullopt;
}

QString RunStory::timeOf(const Event& event) const
{
    constexpr int width = 10;
    const std::optional<qint64> firstFrame = firstFrameMs();
    QString text;
    if (event.isStart && firstFrame)
        text = seconds(0);
    else if (event.atMs)
        text = seconds(*event.atMs + firstFrame.value_or(0));
    return text.rightJustified(width) + QLatin1String("  ");
}

QStringList RunStory::toLines(bool isCutOff) const
{
    QStringList lines;
    if (startedAt_.isValid())
        lines += QStringLiteral("Log of %1 UTC").arg(startedAt_.toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz")));
    lines += firstFrameMs() ? QStringLiteral("Seconds since the recorder started, where the log tells:")
                            : QStringLiteral("Seconds since the first frame, where the log tells:");
    const QString indent = timeOf(Event());
    for (const Event& event : events_) {
        const QString times = event.count > 1 ? QStringLiteral(" (%1 times)").arg(event.count) : QString();
        lines += timeOf(event) + event.text + times;
        if (!event.meaning.isEmpty())
            lines += indent + QLatin1String("    -> ") + event.meaning;
    }
    if (clicks_ > mostClicks)
        lines += indent + QStringLiteral("and %1 more clicks").arg(clicks_ - mostClicks);
    if (leftOut_ > 0)
        lines += indent + QStringLiteral("and %1 more lines that are not shown").arg(leftOut_);
    if (complaints_ == 0)
        lines += indent + QStringLiteral("no warnings");
    if (isCutOff)
        lines += indent + QStringLiteral("the log is cut off in the middle of a line");
    else if (!hasEnded_)
        lines += indent
            + QStringLiteral("the log ends here: the recorder was killed, still runs, or the rest was cut off");
    return lines;
}

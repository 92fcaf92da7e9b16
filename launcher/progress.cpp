// Progress on a terminal, or as plain lines.
#include "progress.h"

#include "stderrlines.h"

#include <QLocale>

#include <unistd.h>

namespace {

constexpr qint64 showEveryMs = 1000;

bool standardErrorIsCapableTerminal()
{
    const QByteArray terminal = qgetenv("TERM");
    return ::isatty(STDERR_FILENO) == 1 && !terminal.isEmpty() && terminal != "dumb";
}

void print(const char* before, const QString& text, const char* after)
{
    stderrlines::write(before + text.toLocal8Bit() + after);
}

}

Progress::Progress(bool quiet) : quiet_(quiet), changesOneLine_(standardErrorIsCapableTerminal()) { }

void Progress::step(const QString& text)
{
    if (quiet_)
        return;
    closeLine();
    print("", text, "\n");
}

void Progress::warn(const QString& text)
{
    closeLine();
    print("record-window: ", text, "\n");
}

void Progress::recorded(const Recorded& recorded)
{
    if (quiet_)
        return;
    QString line = timeText(recorded.elapsedMs);
    if (recorded.frames >= 0)
        line += QStringLiteral("  %1 frames").arg(recorded.frames);
    if (recorded.fileSize >= 0)
        line += QLatin1String("  ") + sizeText(recorded.fileSize);
    if (recorded.clicks > 0)
        line
            += QStringLiteral("  %1 click%2").arg(recorded.clicks).arg(QLatin1String(recorded.clicks > 1 ? "s" : ""));
    show(line);
}

void Progress::copied(double done)
{
    constexpr int whole = 100;
    const int percent = int(done * whole);
    const bool isTooEarly = percent < whole && shownAt_.isValid() && shownAt_.elapsed() < showEveryMs;
    if (quiet_ || percent == percentShown_ || isTooEarly)
        return;
    percentShown_ = percent;
    shownAt_.start();
    show(QStringLiteral("making the WebM copy  %1 %").arg(percent));
    if (percent >= whole)
        closeLine();
}

void Progress::show(const QString& line)
{
    if (changesOneLine_)
        print("\r\033[K", line, "");
    else
        print("", line, "\n");
    lineIsOpen_ = changesOneLine_;
}

void Progress::closeLine()
{
    if (lineIsOpen_)
        print("", QString(), "\n");
    lineIsOpen_ = false;
}

QString timeText(qint64 elapsedMs)
{
    const qint64 seconds = elapsedMs / 1000;
    const auto twoDigits = [](qint64 number) { return QStringLiteral("%1").arg(number, 2, 10, QLatin1Char('0')); };
    const QString minutesAndSeconds = twoDigits(seconds / 60 % 60) + QLatin1Char(':') + twoDigits(seconds % 60);
    const qint64 hours = seconds / 3600;
    return hours > 0 ? QStringLiteral("%1:%2").arg(hours).arg(minutesAndSeconds) : minutesAndSeconds;
}

QString sizeText(qint64 bytes)
{
    return QLocale::c().formattedDataSize(bytes, 1, QLocale::DataSizeSIFormat);
}

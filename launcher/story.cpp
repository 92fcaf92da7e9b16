// Line by line, with a bound for the length of a line and for the number of runs.
#include "story.h"

#include "plaintext.h"
#include "runstory.h"

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

namespace {

constexpr qint64 longestLine = qint64(64) * 1024; // bytes; the recorder's have a few hundred
constexpr int mostRuns = 20;

/// The name of a log begins with when it was made; an invalid time when this one does not.
QDateTime startOf(const QString& path)
{
    static const QRegularExpression form(
        QStringLiteral("^([0-9]{8}T[0-9]{6}\\.[0-9]{3})[0-9]*Z.*-orvantis-recorder-log\\.txt$"));
    const QRegularExpressionMatch match = form.match(QFileInfo(path).fileName());
    QDateTime time = QDateTime::fromString(match.captured(1), QStringLiteral("yyyyMMddTHHmmss.zzz"));
    time.setTimeSpec(Qt::UTC);
    return time;
}

class Teller {
public:
    explicit Teller(const QDateTime& startedAt) : run_(startedAt) { }

    void add(const QByteArray& line)
    {
        if (RunStory::begins(line) && (hasBegun_ || !run_.isEmpty()))
            nextRun();
        hasBegun_ = hasBegun_ || RunStory::begins(line);
        run_.add(line);
    }
    QString end(bool isCutOff)
    {
        finishRun(isCutOff);
        if (runs_ > mostRuns)
            lines_ += QStringLiteral("\nand %1 more runs").arg(runs_ - mostRuns);
        if (runs_ > 1)
            lines_.prepend(QStringLiteral("The file holds the logs of %1 runs.\n").arg(runs_));
        return runs_ == 0 ? QString() : lines_.join(QLatin1Char('\n')) + QLatin1Char('\n');
    }

private:
    void nextRun()
    {
        finishRun(false);
        run_ = RunStory(); // the name of the file is that of the first one
    }
    void finishRun(bool isCutOff)
    {
        if (run_.isEmpty() || ++runs_ > mostRuns)
            return;
        if (runs_ > 1)
            lines_ += QStringLiteral("\nRun %1").arg(runs_);
        lines_ += run_.toLines(isCutOff);
    }

    RunStory run_;
    QStringList lines_;
    qint64 runs_ = 0;
    bool hasBegun_ = false;
};

}

Story tellStory(const QString& path)
{
    const QString shown = plainText(path);
    const QFileInfo info(path);
    QFile file(path);
    if (!info.exists())
        return {QString(), QStringLiteral("there is no file %1").arg(shown)};
    if (!info.isFile())
        return {QString(), QStringLiteral("%1 is no file").arg(shown)};
    if (!file.open(QIODevice::ReadOnly))
        return {QString(), QStringLiteral("cannot read %1: %2").arg(shown, file.errorString())};
    if (file.size() == 0)
        return {QString(), QStringLiteral("%1 is empty").arg(shown)};
    Teller teller(startOf(path));
    bool goesOn = false; // a line that is longer than what is read at once
    while (!file.atEnd()) {
        const QByteArray line = file.readLine(longestLine);
        if (line.isEmpty())
            break;
        if (!goesOn)
            teller.add(line);
        goesOn = !line.endsWith('\n');
    }
    const QString text = teller.end(goesOn);
    if (file.error() != QFileDevice::NoError)
        return {QString(), QStringLiteral("cannot read %1: %2").arg(shown, file.errorString())};
    return text.isEmpty() ? Story{QString(), QStringLiteral("%1 is no log of the recorder").arg(shown)}
                          : Story{text, QString()};
}

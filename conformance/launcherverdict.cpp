// The judgement of launcher-check: every rule of the control protocol that a launcher can break.
#include "launcherverdict.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>

namespace {

constexpr int argumentCount = 10;
constexpr int smallestCanvas = 16; // pixels
constexpr int longestSocketPath = 100; // bytes
constexpr qint64 soonMs = 10'000; // from the end of a recorder to that of its launcher

QString text(const char* literal)
{
    return QString::fromLatin1(literal);
}

bool isWhole(const QByteArray& argument, int least)
{
    bool ok = false;
    const int value = argument.toInt(&ok);
    return ok && value >= least;
}

/// Empty, or what is wrong with the first wrong one.
QString faultOfArguments(const QByteArrayList& arguments)
{
    if (arguments.size() != argumentCount)
        return QStringLiteral("the recorder takes ten arguments and got %1").arg(arguments.size());
    const auto wrong = [&](int position, const char* what) {
        return QStringLiteral("argument %1 is \"%2\": %3")
            .arg(position)
            .arg(QString::fromUtf8(arguments[position - 1]), text(what));
    };
    const QFileInfo logs(QString::fromUtf8(arguments[0]));
    if (!logs.isDir() || !logs.isWritable())
        return wrong(1, "no directory that can be written, so there is no log");
    if (arguments[1] != "qt-window-capture")
        return wrong(2, "the capture command is qt-window-capture");
    if (arguments[2].isEmpty())
        return wrong(3, "no output file");
    bool isNumber = false;
    if (arguments[3].toULongLong(&isNumber); !isNumber)
        return wrong(4, "the window's id is a decimal number");
    for (const int position : {5, 6}) {
        bool ok = false;
        if (arguments[position - 1].toInt(&ok); !ok)
            return wrong(position, "the screen's origin is a whole number");
    }
    for (const int position : {7, 8}) {
        if (!isWhole(arguments[position - 1], smallestCanvas))
            return wrong(position, "the canvas is whole pixels, 16 at least; anything else counts as 16");
    }
    bool isScale = false;
    if (arguments[8].toDouble(&isScale); !isScale)
        return wrong(9, "the scale is a number");
    return QString();
}

/// Empty, or what the recorder would make of the line without a word.
QString faultOfLine(const QByteArray& line)
{
    static const QRegularExpression action(
        QStringLiteral("^\\s*\\{\\s*\"action\"\\s*:\\s*\"(stop|exit|pause|unpause)\"\\s*\\}\\s*$"));
    const QString shown = QString::fromUtf8(line.left(60));
    if (action.match(QString::fromUtf8(line)).hasMatch() || line.trimmed().isEmpty())
        return QString();
    if (!line.startsWith("click|") && !line.startsWith('|'))
        return QStringLiteral("\"%1\" is no line of the protocol and is ignored").arg(shown);
    QByteArrayList fields = line.trimmed().split('|');
    const bool list = line.startsWith('|');
    fields.removeFirst();
    if (list ? fields.size() % 2 != 0 : fields.size() < 4 || fields.size() > 5)
        return QStringLiteral("\"%1\" has %2 numbers").arg(shown).arg(fields.size());
    for (qsizetype i = 0; i < fields.size(); ++i) {
        bool ok = false;
        if (!list && i == 4)
            fields[i].toLongLong(&ok);
        else
            fields[i].toDouble(&ok);
        if (!ok)
            return QStringLiteral("in \"%1\", \"%2\" counts as 0").arg(shown, QString::fromUtf8(fields[i]));
    }
    return QString();
}

QString faultOfLines(const LauncherNotes& notes)
{
    for (const LauncherNotes::Event& event : notes.journal) {
        QString fault = event.name == "line" ? faultOfLine(event.details) : QString();
        if (!fault.isEmpty())
            return fault;
    }
    return QString();
}

/// Empty, or what is wrong with the order of what the launcher said.
QString faultOfOrder(const LauncherCase& launcherCase, const LauncherNotes& notes)
{
    const auto ready = notes.first("ready");
    const auto stop = notes.first("line", R"({"action":"stop"})");
    const auto exit = notes.first("line", R"({"action":"exit"})");
    const auto replied = notes.first("replied");
    if (notes.first("impatient") || (launcherCase.readinessComes && stop && (!ready || *stop < *ready)))
        return QStringLiteral("\"stop\" came before the readiness byte was sent");
    if (notes.first("early"))
        return QStringLiteral("it went on talking between \"stop\" and the duration");
    if (launcherCase.answers && exit && (!replied || *exit < *replied))
        return QStringLiteral("\"exit\" came before the duration was sent");
    if (exit
        && std::any_of(notes.journal.begin() + *exit + 1, notes.journal.end(),
            [](const LauncherNotes::Event& event) { return event.name == "line"; }))
        return QStringLiteral("it went on talking after \"exit\"");
    const auto stops = std::count_if(notes.journal.begin(), notes.journal.end(),
        [](const LauncherNotes::Event& event) { return event.name == "line" && event.details.contains("\"stop\""); });
    return stops > 1 ? QStringLiteral("it sent \"stop\" %1 times").arg(stops) : QString();
}

void judgeStart(const LauncherCase& launcherCase, const LauncherNotes& notes, QList<Finding>& findings)
{
    const QString arguments = faultOfArguments(notes.arguments);
    findings.append(finding(text("arguments"), arguments.isEmpty(), text("ten, each of its form"), arguments));
    findings.append(advice(text("environment"), notes.endsWithLauncher, text("ORVANTIS_END_WITH_LAUNCHER=1"),
        text("without ORVANTIS_END_WITH_LAUNCHER=1 the recorder goes on when the launcher crashes")));
    if (QByteArray(launcherCase.mode) == "nobody")
        return;
    const auto connected = notes.first("connected");
    if (!connected) {
        findings.append(finding(text("socket"), false, QString(),
            text("nobody listens under orvantis-recorder in the directory that TMPDIR names")));
        return;
    }
    const QByteArrayList details = notes.journal[*connected].details.split(' '); // attempts, mode, own, length
    findings.append(finding(text("socket"), details.value(3).toInt() < longestSocketPath,
        text("listens under orvantis-recorder in TMPDIR"),
        QStringLiteral("the socket's path has %1 bytes, which is too long elsewhere")
            .arg(QString::fromLatin1(details.value(3)))));
    findings.append(advice(text("listening"), details.value(0) == "1", text("before the recorder was started"),
        QStringLiteral("attempt %1 to connect was the first that succeeded: listen before you start the recorder")
            .arg(QString::fromLatin1(details.value(0)))));
    findings.append(advice(text("private"), details.value(1) == "700" && details.value(2) == "1",
        text("nobody else can connect: the directory has mode 0700"),
        QStringLiteral("the socket's directory has mode 0%1 and is %2: others may connect")
            .arg(QString::fromLatin1(details.value(1)), text(details.value(2) == "1" ? "its own" : "another's"))));
}

void judgeTalk(const LauncherCase& launcherCase, const LauncherNotes& notes, QList<Finding>& findings)
{
    if (!notes.first("connected") || launcherCase.launcherIsKilled)
        return;
    const QString lines = faultOfLines(notes);
    findings.append(finding(text("lines"), lines.isEmpty(), text("all are of the protocol"), lines));
    const QString order = faultOfOrder(launcherCase, notes);
    findings.append(finding(text("order"), order.isEmpty(), text("each line in its place"), order));
    const bool stopped = notes.first("line", R"({"action":"stop"})").has_value();
    const QString stop = text("\"stop\" was sent");
    if (launcherCase.answers && launcherCase.readinessComes)
        findings.append(
            finding(text("stop"), stopped, stop, text("no {\"action\":\"stop\"} came, with a line feed")));
    else if (launcherCase.answers)
        findings.append(advice(text("stop"), stopped, stop,
            text("also without readiness \"stop\" is answered, and the duration tells what is there")));
    if (launcherCase.result == LauncherCase::Result::Success)
        findings.append(finding(text("exit"), notes.first("line", R"({"action":"exit"})").has_value(),
            text("\"exit\" was sent after the duration"), text("no {\"action\":\"exit\"} came, with a line feed")));
}

void judgeEnd(const LauncherCase& launcherCase, const LauncherNotes& notes, QList<Finding>& findings)
{
    if (launcherCase.launcherIsKilled) {
        findings.append(advice(text("recorder"), !notes.recorderLeft, text("it ended with its launcher"),
            text("it lives on when its launcher is killed")));
        return;
    }
    findings.append(finding(
        text("end"), !notes.timedOut, text("the launcher ended"), text("the launcher did not end within the limit")));
    if (notes.timedOut)
        return;
    const qint64 waitedMs = notes.endedAtMs - notes.lastSeenAtMs;
    if (launcherCase.endsByItself)
        findings.append(finding(text("notices"), waitedMs <= soonMs, text("the end of the recorder was noticed"),
            QStringLiteral("the launcher needed %1 s to notice that the recorder had ended").arg(waitedMs / 1000)));
    findings.append(finding(text("recorder"), !notes.recorderLeft, text("it does not outlive the launcher"),
        text("the launcher ended and left its recorder behind: SIGTERM, then SIGKILL")));
    const bool success = notes.exitCode == 0;
    if (launcherCase.result != LauncherCase::Result::Either) {
        const bool expected = launcherCase.result == LauncherCase::Result::Success;
        findings.append(finding(text("result"), success == expected,
            expected ? text("the launcher reports success") : text("the launcher reports the failure"),
            expected ? text("the launcher reports a failure, and there was none")
                     : text("the launcher ends with 0, as if all were well")));
    }
    findings.append(advice(text("leftovers"), notes.leftovers.isEmpty(), text("no temporary file is left"),
        QStringLiteral("left in TMPDIR: %1").arg(notes.leftovers.join(QLatin1String(", ")))));
}

}

QList<Finding> judgeLauncher(const LauncherCase& launcherCase, const LauncherNotes& notes)
{
    if (!notes.error.isEmpty())
        return {
            finding(text("launcher"), false, QString(), QStringLiteral("it cannot be started: %1").arg(notes.error))};
    if (!notes.recorderStarted)
        return {finding(
            text("launcher"), false, QString(), text("it never started the recorder that stands for {recorder}"))};
    QList<Finding> findings;
    judgeStart(launcherCase, notes, findings);
    judgeTalk(launcherCase, notes, findings);
    judgeEnd(launcherCase, notes, findings);
    return findings;
}

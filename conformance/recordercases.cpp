// The cases of recorder-check: every rule of the control protocol that a recorder can break.
#include "recordercases.h"

#include <QFile>
#include <QRegularExpression>

#include <csignal>

namespace {

constexpr int connectLimitMs = 10'000;
constexpr int readyLimitMs = 30'000;
constexpr int answerLimitMs = 60'000;
constexpr int exitLimitMs = 10'000;
constexpr int attemptsLimitMs = 20'000; // 5 s of attempts to connect, and the end behind them
constexpr int momentMs = 1000; // in which a recorder that does something wrong would do it
constexpr int launcherIsGone = 3; // exit code

const QByteArray stop = "{\"action\":\"stop\"}\n";
const QByteArray exitLine = "{\"action\":\"exit\"}\n";

QString text(const char* literal)
{
    return QString::fromLatin1(literal);
}

bool isAnswered(const QByteArray& received)
{
    return received.endsWith('\n');
}

QString shown(const QByteArray& bytes)
{
    return bytes.isEmpty() ? text("nothing")
                           : QLatin1Char('"') + QString::fromUtf8(bytes.left(80)).trimmed() + QLatin1Char('"');
}

/// Of exactly the readiness byte and one duration; -1 for anything else.
qint64 durationIn(const QByteArray& received)
{
    static const QRegularExpression form(QStringLiteral("^1\\{\"duration\":(\\d+)\\}\n$"));
    const QRegularExpressionMatch match = form.match(QString::fromUtf8(received));
    return match.hasMatch() ? match.captured(1).toLongLong() : -1;
}

/// False: the rest of the case has no sense.
bool begin(RecorderSession& session, QList<Finding>& findings)
{
    if (!session.start()) {
        findings.append(finding(text("start"), false, QString(), text("the recorder cannot be started")));
        return false;
    }
    const bool connected = session.waitForConnection(connectLimitMs);
    findings.append(finding(text("connection"), connected, text("made in time"), text("none in time")));
    return connected;
}

bool becomeReady(RecorderSession& session, QList<Finding>& findings)
{
    const bool came = session.waitForReceived([](const QByteArray& bytes) { return !bytes.isEmpty(); }, readyLimitMs);
    const bool right = came && session.received() == "1";
    findings.append(finding(text("readiness"), right, text("one byte \"1\""),
        QStringLiteral("not one byte \"1\" but %1").arg(shown(session.received()))));
    return right;
}

void stopAndCompare(RecorderSession& session, QList<Finding>& findings, const QByteArray& line = stop)
{
    session.send(line);
    session.waitForReceived(isAnswered, answerLimitMs);
    findings.append(finding(text("answer"), durationIn(session.received()) >= 0,
        text("the byte, then one line with the duration"),
        QStringLiteral("not the byte and one line with the duration but %1").arg(shown(session.received()))));
}

void endWith(RecorderSession& session, int code, int limitMs, QList<Finding>& findings)
{
    const bool ended = session.recorder.waitForEnd(limitMs);
    findings.append(finding(text("end"), ended && session.recorder.exitCode() == code,
        QStringLiteral("in time, with %1").arg(code),
        ended ? QStringLiteral("with %1, not %2").arg(session.recorder.exitCode()).arg(code) : text("not in time")));
}

void compareFile(RecorderSession& session, QList<Finding>& findings)
{
    findings.append(finding(text("file"), !session.finishedFile().isEmpty(), text("closed, and named by the log"),
        text("the log names no closed file that is there")));
}

QList<Finding> recording(const RecorderSettings& settings)
{
    QList<Finding> findings;
    RecorderSession session(settings);
    if (!begin(session, findings) || !becomeReady(session, findings))
        return findings;
    const qint64 readyAtMs = session.sinceStartMs();
    session.send("click|10|20|0.5|0.5\nclick|10|20|0.5|0.5|1700000000000\n");
    session.staysFor(2 * momentMs);
    findings.append(finding(text("silence"), session.received() == "1", text("nothing is said while it records"),
        QStringLiteral("said while it recorded: %1").arg(shown(session.received().mid(1)))));
    stopAndCompare(session, findings);
    const qint64 longestMs = session.sinceStartMs() - readyAtMs;
    const qint64 durationMs = durationIn(session.received());
    findings.append(finding(text("duration"), durationMs > 0 && durationMs <= longestMs,
        text("not longer than the recording took"),
        QStringLiteral("%1 ms in a recording of %2 ms").arg(durationMs).arg(longestMs)));
    compareFile(session, findings);
    session.send(exitLine);
    endWith(session, 0, exitLimitMs, findings);
    findings.append(finding(text("afterwards"), durationIn(session.received()) == durationMs,
        text("nothing more is said"), QStringLiteral("in all it said %1").arg(shown(session.received()))));
    return findings;
}

/// Lines that mean nothing, a line in pieces, several in one: none disturbs the rest.
QList<Finding> lines(const RecorderSettings& settings)
{
    constexpr qsizetype tooLong = 3 << 19; // 1.5 MiB
    QList<Finding> findings;
    RecorderSession session(settings);
    if (!begin(session, findings) || !becomeReady(session, findings))
        return findings;
    session.send(
        "click|1|2|3\nclick|a|b|c|d|e\n\n  \r\nnonsense\n{\"action\":\"STOP\"}\n{\"action\":5}\n[\n\xff\xfe\n");
    session.send("{\"action\":\"pause\"}\n{\"action\":\"unpause\"}\n|10|20|30|40\n");
    session.send(QByteArray(tooLong, 'x') + '\n');
    const bool lives = session.staysFor(momentMs);
    findings.append(finding(text("nonsense"), lives && session.received() == "1", text("is ignored"),
        lives ? QStringLiteral("was answered: %1").arg(shown(session.received().mid(1)))
              : text("ended the recorder")));
    session.send("\t {\"action\": ");
    session.staysFor(momentMs / 5);
    stopAndCompare(session, findings, "\"stop\" } \r\n");
    return findings;
}

QList<Finding> repeatedStop(const RecorderSettings& settings)
{
    QList<Finding> findings;
    RecorderSession session(settings);
    if (!begin(session, findings) || !becomeReady(session, findings))
        return findings;
    session.send(stop);
    stopAndCompare(session, findings);
    session.send(stop);
    session.staysFor(momentMs);
    findings.append(finding(text("answers"), session.received().count('\n') == 1, text("one only"),
        QStringLiteral("%1 of them").arg(session.received().count('\n'))));
    return findings;
}

QList<Finding> earlyStop(const RecorderSettings& settings)
{
    QList<Finding> findings;
    RecorderSession session(settings);
    if (begin(session, findings)) {
        stopAndCompare(session, findings);
        compareFile(session, findings);
    }
    return findings;
}

QList<Finding> noWindow(const RecorderSettings& settings)
{
    RecorderSettings other = settings;
    other.window = QStringLiteral("1");
    QList<Finding> findings;
    RecorderSession session(other);
    if (!begin(session, findings))
        return findings;
    const bool lives = session.staysFor(momentMs);
    findings.append(finding(text("silence"), lives && session.received().isEmpty(),
        text("no readiness without an image"),
        lives ? QStringLiteral("said without an image: %1").arg(shown(session.received())) : text("it has ended")));
    stopAndCompare(session, findings);
    return findings;
}

QList<Finding> noOutput(const RecorderSettings& settings)
{
    QList<Finding> findings;
    RecorderSession session(settings);
    QFile obstacle(session.command.logDirectory + QLatin1String("/file"));
    if (!obstacle.open(QIODevice::WriteOnly))
        return {finding(text("preparation"), false, QString(), obstacle.errorString())};
    session.command.output = obstacle.fileName() + QLatin1String("/recording.mp4");
    if (!begin(session, findings))
        return findings;
    session.send(stop);
    session.waitForReceived(isAnswered, answerLimitMs);
    findings.append(finding(text("answer"), session.received() == "{\"duration\":0}\n",
        text("the duration 0, without the readiness byte"),
        QStringLiteral("not {\"duration\":0} alone but %1").arg(shown(session.received()))));
    return findings;
}

QList<Finding> exitAlone(const RecorderSettings& settings)
{
    QList<Finding> findings;
    RecorderSession session(settings);
    if (!begin(session, findings) || !becomeReady(session, findings))
        return findings;
    session.staysFor(momentMs);
    session.send(exitLine);
    endWith(session, 0, answerLimitMs, findings);
    findings.append(finding(text("answer"), session.received() == "1", text("none"),
        QStringLiteral("answered without a stop: %1").arg(shown(session.received()))));
    compareFile(session, findings);
    return findings;
}

QList<Finding> launcherGone(const RecorderSettings& settings)
{
    QList<Finding> findings;
    RecorderSession session(settings);
    session.recorder.setVariable(QStringLiteral("ORVANTIS_END_WITH_LAUNCHER"), QStringLiteral("1"));
    if (!begin(session, findings) || !becomeReady(session, findings))
        return findings;
    session.hangUp();
    endWith(session, launcherIsGone, answerLimitMs, findings);
    compareFile(session, findings);
    return findings;
}

QList<Finding> launcherGoneUnasked(const RecorderSettings& settings)
{
    QList<Finding> findings;
    RecorderSession session(settings);
    if (!begin(session, findings) || !becomeReady(session, findings))
        return findings;
    session.hangUp();
    findings.append(finding(text("goes on"), session.staysFor(momentMs), text("without its launcher"),
        text("it ended with its launcher, and ORVANTIS_END_WITH_LAUNCHER is not set")));
    session.recorder.send(SIGTERM);
    endWith(session, 128 + SIGTERM, answerLimitMs, findings);
    compareFile(session, findings);
    return findings;
}

QList<Finding> noLauncher(const RecorderSettings& settings)
{
    QList<Finding> findings;
    RecorderSession session(settings, false);
    session.recorder.setVariable(QStringLiteral("ORVANTIS_END_WITH_LAUNCHER"), QStringLiteral("1"));
    if (!session.start())
        return {finding(text("start"), false, QString(), text("the recorder cannot be started"))};
    endWith(session, launcherIsGone, attemptsLimitMs, findings);
    return findings;
}

QList<Finding> fewArguments(const RecorderSettings& settings)
{
    QList<Finding> findings;
    RecorderSession session(settings);
    QStringList arguments = session.command.arguments();
    arguments.removeLast();
    if (!session.start(arguments))
        return {finding(text("start"), false, QString(), text("the recorder cannot be started"))};
    endWith(session, 0, exitLimitMs, findings);
    findings.append(finding(text("log"), countLines(session.log(), text("invalid param count")) == 1,
        text("says \"invalid param count\""), text("does not say \"invalid param count\"")));
    return findings;
}

}

const QList<RecorderCase>& recorderCases()
{
    static const QList<RecorderCase> cases{
        {"recording", "clicks, stops, exits", recording},
        {"lines", "sends lines that mean nothing, lines in pieces, a line of 1.5 MiB", lines},
        {"repeated-stop", "sends \"stop\" three times", repeatedStop},
        {"early-stop", "sends \"stop\" before the readiness", earlyStop},
        {"no-window", "names a window that there is not", noWindow},
        {"no-output", "names an output that cannot be made", noOutput},
        {"exit-alone", "sends \"exit\" without \"stop\"", exitAlone},
        {"hang-up", "closes the connection, with ORVANTIS_END_WITH_LAUNCHER=1", launcherGone},
        {"hang-up-unasked", "closes the connection, without that variable", launcherGoneUnasked},
        {"no-launcher", "does not listen, with ORVANTIS_END_WITH_LAUNCHER=1", noLauncher},
        {"few-arguments", "gives nine arguments", fewArguments},
    };
    return cases;
}

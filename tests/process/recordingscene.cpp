// RecordingScene: the steps that most recordings of the tests share.
#include "recordingscene.h"

#include "recordedfile.h"

#include <QDir>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTest>

RecordingScene::RecordingScene(const QByteArray& display, quint32 window) : recorder(display)
{
    command.logDirectory = directory.filePath(QStringLiteral("log"));
    command.output = directory.filePath(QStringLiteral("out.mp4"));
    command.window = QString::number(window);
    QDir().mkpath(command.logDirectory);
    // As a session has it; without one Qt complains on stderr.
    recorder.setVariable(QStringLiteral("XDG_RUNTIME_DIR"), directory.path());
}

bool RecordingScene::start()
{
    return launcher.isListening() && recorder.start(command.arguments()) && launcher.waitForConnection(hangLimitMs);
}

bool RecordingScene::startRecording()
{
    return start() && launcher.waitForReceived(1, hangLimitMs) && launcher.received() == "1";
}

bool RecordingScene::waitForLine(const QString& start, int count)
{
    return QTest::qWaitFor([&] { return countLines(log(), start) >= count; }, hangLimitMs);
}

bool RecordingScene::waitUntilRecorded(int recordingMs)
{
    // A click without a time is keyed by the recording clock when it arrives, and the log tells the key.
    const QString probe = QStringLiteral("Recorder mouse click received global QPointF(-9999,-9999)");
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < hangLimitMs) {
        const int before = countLines(log(), probe);
        if (!launcher.send("click|-9999|-9999|-1|-1\n") || !waitForLine(probe, before + 1))
            return false;
        const QList<LogLine> lines = log();
        for (auto line = lines.crbegin(); line != lines.crend(); ++line) {
            if (!line->text.startsWith(probe))
                continue;
            static const QRegularExpression rawTime(QStringLiteral("raw recording ms (\\d+) "));
            if (rawTime.match(line->text).captured(1).toInt() >= recordingMs)
                return true;
            break;
        }
        QTest::qWait(20);
    }
    return false;
}

bool RecordingScene::waitForFragments(int count)
{
    return QTest::qWaitFor([&] { return topLevelBoxes(command.output).count("mdat") >= count; }, hangLimitMs);
}

std::optional<qint64> RecordingScene::stop()
{
    launcher.clearReceived();
    const auto isWhole = [](const QByteArray& received) { return received.contains('\n'); };
    if (!launcher.send("{\"action\":\"stop\"}\n") || !launcher.waitForReceived(isWhole, hangLimitMs))
        return std::nullopt;
    return durationIn(launcher.received());
}

bool RecordingScene::exit()
{
    return launcher.send("{\"action\":\"exit\"}\n") && recorder.waitForEnd();
}

bool RecordingScene::stopAndExit()
{
    return stop().has_value() && exit() && recorder.exitCode() == 0;
}

QByteArray RecordingScene::story()
{
    const QByteArray end
        = recorder.isRunning() ? QByteArray("it runs") : "exit code " + QByteArray::number(recorder.exitCode());
    return "launcher got: " + launcher.received() + "\n" + end + "\n" + recorder.standardError().right(6000);
}

std::optional<qint64> durationIn(const QByteArray& reply)
{
    static const QRegularExpression form(QStringLiteral("\\A\\{\"duration\":(0|[1-9][0-9]*)\\}\\n\\z"));
    const QRegularExpressionMatch match = form.match(QString::fromLatin1(reply));
    return match.hasMatch() ? std::optional(match.captured(1).toLongLong()) : std::nullopt;
}

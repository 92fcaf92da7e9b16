// Starting and steering the test window.
#include "windowprocess.h"

#include <QCoreApplication>
#include <QDir>

namespace {

constexpr int answerLimitMs = 30'000; // a millisecond when nothing else runs

}

WindowProcess::WindowProcess(const WindowStart& start)
{
    const QRect& at = start.geometry;
    QStringList arguments{QString::number(at.x()), QString::number(at.y()), QString::number(at.width()),
        QString::number(at.height()), QString::number(start.depth), QString::number(start.border),
        QString::number(start.pixel, 16)};
    if (start.overrideRedirect)
        arguments << QStringLiteral("override");
    process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process_.start(QDir(QCoreApplication::applicationDirPath()).filePath(QStringLiteral("testwindow")), arguments);
    const QByteArray line = readLine();
    if (!line.startsWith("window ")) {
        error_ = QStringLiteral("testwindow: %1, %2").arg(process_.errorString(), QString::fromUtf8(line));
        return;
    }
    id_ = line.mid(7).toUInt();
    if (start.mapped && !send("map"))
        id_ = 0;
}

WindowProcess::~WindowProcess()
{
    process_.closeWriteChannel();
    if (!process_.waitForFinished(answerLimitMs))
        kill();
}

bool WindowProcess::send(const QByteArray& command)
{
    process_.write(command + '\n');
    const QByteArray answer = readLine();
    if (answer != "ok")
        error_ = QStringLiteral("testwindow: %1: %2").arg(QString::fromUtf8(command), QString::fromUtf8(answer));
    return answer == "ok";
}

void WindowProcess::post(const QByteArray& commands)
{
    answers_ = 0;
    process_.write(commands);
    process_.waitForBytesWritten(answerLimitMs);
}

int WindowProcess::answersRead()
{
    process_.waitForReadyRead(0);
    while (process_.canReadLine())
        answers_ += process_.readLine() == "ok\n";
    return answers_;
}

void WindowProcess::kill()
{
    process_.kill();
    process_.waitForFinished(answerLimitMs);
}

QByteArray WindowProcess::readLine()
{
    while (!process_.canReadLine()) {
        if (!process_.waitForReadyRead(answerLimitMs))
            return QByteArray();
    }
    return process_.readLine().trimmed();
}

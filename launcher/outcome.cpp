// The two forms of the result.
#include "outcome.h"

#include "progress.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

QJsonValue textOrNull(const QString& text)
{
    return text.isEmpty() ? QJsonValue() : QJsonValue(text);
}

template <typename T>
QJsonValue numberOrNull(const std::optional<T>& number)
{
    return number ? QJsonValue(*number) : QJsonValue();
}

}

QByteArray Outcome::toJson() const
{
    const QJsonObject object{
        {QStringLiteral("file"), textOrNull(file)},
        {QStringLiteral("durationMs"), numberOrNull(durationMs)},
        {QStringLiteral("logFile"), textOrNull(logFile)},
        {QStringLiteral("recorderExitCode"), numberOrNull(recorderExitCode)},
        {QStringLiteral("error"), textOrNull(error)},
    };
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

QByteArray Outcome::toText() const
{
    QString text;
    if (!file.isEmpty())
        text += QStringLiteral("file      %1\n").arg(file);
    if (durationMs)
        text += QStringLiteral("duration  %1 s\n").arg(double(*durationMs) / 1000, 0, 'f', 3);
    if (!file.isEmpty())
        text += QStringLiteral("size      %1\n").arg(sizeText(QFileInfo(file).size()));
    if (!logFile.isEmpty())
        text += QStringLiteral("log       %1\n").arg(logFile);
    return text.toLocal8Bit();
}

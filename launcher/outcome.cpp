// The two forms of the result.
#include "outcome.h"

#include "plaintext.h"
#include "progress.h"

#include <QFileInfo>
#include <QJsonArray>
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

QJsonValue objectOrNull(const QJsonObject& object)
{
    return object.isEmpty() ? QJsonValue() : QJsonValue(object);
}

QString streamsText(const Inspection& inspection)
{
    QString text;
    if (inspection.video)
        text += QStringLiteral("video     %1x%2, %3 frames in %4 s, %5\n")
                    .arg(inspection.video->size.width())
                    .arg(inspection.video->size.height())
                    .arg(inspection.video->frames)
                    .arg(double(inspection.video->endMs) / 1000, 0, 'f', 3)
                    .arg(inspection.video->codec);
    if (inspection.audio)
        text += QStringLiteral("audio     %1 s, %2\n")
                    .arg(double(inspection.audio->lengthMs) / 1000, 0, 'f', 3)
                    .arg(inspection.audio->codec);
    else
        text += QStringLiteral("audio     none\n");
    return text;
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
        {QStringLiteral("warnings"), QJsonArray::fromStringList(warnings)},
        {QStringLiteral("video"), objectOrNull(inspection ? inspection->videoJson() : QJsonObject())},
        {QStringLiteral("audio"), objectOrNull(inspection ? inspection->audioJson() : QJsonObject())},
        {QStringLiteral("sha256"), textOrNull(sha256)},
        {QStringLiteral("share"), textOrNull(share)},
        {QStringLiteral("contactSheet"), textOrNull(contactSheet)},
    };
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

QByteArray Outcome::toText() const
{
    QString text;
    if (!file.isEmpty())
        text += QStringLiteral("file      %1\n").arg(plainText(file));
    if (durationMs)
        text += QStringLiteral("duration  %1 s\n").arg(double(*durationMs) / 1000, 0, 'f', 3);
    if (!file.isEmpty())
        text += QStringLiteral("size      %1\n").arg(sizeText(QFileInfo(file).size()));
    if (inspection)
        text += streamsText(*inspection);
    if (!sha256.isEmpty())
        text += QStringLiteral("sha256    %1\n").arg(sha256);
    if (!share.isEmpty())
        text += QStringLiteral("copy      %1, %2\n").arg(plainText(share), sizeText(QFileInfo(share).size()));
    if (!contactSheet.isEmpty())
        text += QStringLiteral("sheet     %1\n").arg(plainText(contactSheet));
    if (code == ExitCode::Recorded && !logFile.isEmpty())
        text += QStringLiteral("log       %1\n").arg(plainText(logFile));
    return text.toLocal8Bit();
}

// The choice among the windows, and how they are shown.
#include "windowwish.h"

#include "plaintext.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

QList<WindowInfo> matchingWindows(const QList<WindowInfo>& windows, const WindowWish& wish)
{
    if (wish.by != WindowWish::By::Title && wish.by != WindowWish::By::Process)
        return windows;
    const bool isExpression
        = wish.title.size() > 2 && wish.title.startsWith(QLatin1Char('/')) && wish.title.endsWith(QLatin1Char('/'));
    const QRegularExpression expression(
        isExpression ? wish.title.mid(1, wish.title.size() - 2) : QRegularExpression::escape(wish.title),
        isExpression ? QRegularExpression::NoPatternOption : QRegularExpression::CaseInsensitiveOption);
    QList<WindowInfo> matches;
    for (const WindowInfo& window : windows) {
        const bool fits = wish.by == WindowWish::By::Title ? expression.match(window.title).hasMatch()
                                                           : window.process == wish.process;
        if (fits)
            matches.append(window);
    }
    return matches;
}

QString windowTable(const QList<WindowInfo>& windows)
{
    const auto line = [](const QString& id, const QString& size, const QString& process, const QString& title) {
        return QStringLiteral("%1  %2  %3  %4\n").arg(id, -10).arg(size, -11).arg(process, -24).arg(title);
    };
    QString text
        = line(QStringLiteral("window"), QStringLiteral("size"), QStringLiteral("process"), QStringLiteral("title"));
    for (const WindowInfo& window : windows) {
        const QString process = window.process > 0
            ? QStringLiteral("%1 %2").arg(window.process).arg(plainText(window.processName))
            : QStringLiteral("-");
        text += line(QStringLiteral("0x%1").arg(window.id, 0, 16),
            QStringLiteral("%1x%2").arg(window.size.width()).arg(window.size.height()), process,
            plainText(window.title) + (window.isShown ? QString() : QStringLiteral("  (not shown)")));
    }
    return text;
}

QByteArray windowJson(const QList<WindowInfo>& windows)
{
    QJsonArray array;
    for (const WindowInfo& window : windows) {
        array.append(QJsonObject{{QStringLiteral("window"), qint64(window.id)},
            {QStringLiteral("pid"), window.process > 0 ? QJsonValue(window.process) : QJsonValue()},
            {QStringLiteral("process"), window.processName}, {QStringLiteral("title"), window.title},
            {QStringLiteral("width"), window.size.width()}, {QStringLiteral("height"), window.size.height()},
            {QStringLiteral("shown"), window.isShown}});
    }
    return QJsonDocument(array).toJson(QJsonDocument::Compact) + '\n';
}

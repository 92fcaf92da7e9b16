// QDebug has written these lines: texts in quotes with escapes, numbers between blanks.
#include "logtext.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

namespace {

/// Reads a text that QDebug has put in quotes, from the quote on. The escapes are those of JSON, but for a few
/// characters that file names hardly have.
QString unquoted(const QByteArray& quoted)
{
    qsizetype end = 1;
    while (end < quoted.size() && quoted[end] != '"')
        end += quoted[end] == '\\' ? 2 : 1;
    return QJsonDocument::fromJson('[' + quoted.left(end + 1) + ']').array().first().toString();
}

}

QString logtext::quotedAfter(const QByteArray& line, const QByteArray& label)
{
    const qsizetype at = line.lastIndexOf(label + " \"");
    return at < 0 ? QString() : unquoted(line.mid(at + label.size() + 1));
}

std::optional<qint64> logtext::numberAfter(const QByteArray& line, const QByteArray& label)
{
    const qsizetype at = line.lastIndexOf(label + ' ');
    if (at < 0)
        return std::nullopt;
    const qsizetype begin = at + label.size() + 1;
    const qsizetype end = line.indexOf(' ', begin);
    bool ok = false;
    const qint64 number = line.mid(begin, end < 0 ? -1 : end - begin).trimmed().toLongLong(&ok);
    return ok ? std::optional(number) : std::nullopt;
}

QString logtext::withoutPlace(const QByteArray& text)
{
    static const QRegularExpression place(QStringLiteral(" \\([^ ]*:[0-9]+, .*$"));
    return QString::fromUtf8(text.trimmed()).remove(place);
}

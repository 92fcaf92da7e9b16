// Finding and reading the recorder's log file. Its texts are part of the recorder's interface.
#include "recorderlog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

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

/// The first line that holds the label; empty when there is none.
QByteArray lineWith(const QString& path, const QByteArray& label)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    while (!file.atEnd()) {
        QByteArray line = file.readLine();
        if (line.contains(label))
            return line;
    }
    return QByteArray();
}

/// The quoted text behind the last appearance of a label in a line.
QString quotedTextAfter(const QByteArray& line, const QByteArray& label)
{
    const qsizetype at = line.lastIndexOf(label + " \"");
    return at < 0 ? QString() : unquoted(line.mid(at + label.size() + 1));
}

}

QString RecorderLog::path()
{
    if (!path_.isEmpty())
        return path_;
    // The blank behind the number makes it the whole number.
    const QByteArray identity = "recorder process identity pid " + QByteArray::number(recorderPid_) + ' ';
    const QFileInfoList newestFirst
        = QDir(directory_).entryInfoList({QStringLiteral("*-orvantis-recorder-log.txt")}, QDir::Files, QDir::Time);
    for (const QFileInfo& file : newestFirst) {
        if (file.lastModified() >= startedAt_ && !lineWith(file.filePath(), identity).isEmpty()) {
            path_ = file.filePath();
            break;
        }
    }
    return path_;
}

QString RecorderLog::outputInUse()
{
    return quotedTextAfter(lineWith(path(), "FFmpeg recorder using video encoder"), "output");
}

QString RecorderLog::finalizedOutput()
{
    return quotedTextAfter(lineWith(path(), "FFmpeg recorder finalized output"), "FFmpeg recorder finalized output");
}

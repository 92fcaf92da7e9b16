// Finding and reading the recorder's log file. Its texts are part of the recorder's interface. The directory can be
// one where others write, too: what is not of this user is not read.
#include "recorderlog.h"

#include "logtext.h"
#include "privatefile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

constexpr qint64 longestLine
    = qint64(64) * 1024; // bytes; the recorder's have a few hundred, and some of them hold a path

/// False when the file is not of this user, or was last written before the given time. A log that is known is asked
/// for without one: the machine's clock may have been set back.
bool openLog(QFile& file, const QString& path, const QDateTime& writtenSince = {})
{
    const privatefile::Opened opened = privatefile::openToRead(QFile::encodeName(path));
    return opened.descriptor >= 0 && file.open(opened.descriptor, QIODevice::ReadOnly, QFile::AutoCloseHandle)
        && (writtenSince.isNull() || file.fileTime(QFileDevice::FileModificationTime) >= writtenSince);
}

/// The first line that starts with the text; empty when there is none, or when the file is not of this user, or was
/// last written before the given time.
QByteArray lineWith(const QString& path, const QByteArray& start, const QDateTime& writtenSince = {})
{
    QFile file;
    if (!openLog(file, path, writtenSince))
        return QByteArray();
    bool goesOn = false; // a line that is longer than what is read at once
    while (!file.atEnd()) {
        QByteArray line = file.readLine(longestLine);
        if (!goesOn && line.startsWith(start))
            return line;
        goesOn = !line.endsWith('\n');
    }
    return QByteArray();
}

}

QString RecorderLog::path()
{
    if (!path_.isEmpty())
        return path_;
    // The blank behind the number makes it the whole number.
    const QByteArray identity = "Debug: recorder process identity pid " + QByteArray::number(recorderPid_) + ' ';
    const QFileInfoList newestFirst = QDir(directory_)
                                          .entryInfoList({QStringLiteral("*-orvantis-recorder-log.txt")},
                                              QDir::Files | QDir::NoSymLinks, QDir::Time);
    for (const QFileInfo& file : newestFirst) {
        if (!lineWith(file.filePath(), identity, startedAt_).isEmpty()) {
            path_ = file.filePath();
            break;
        }
    }
    return path_;
}

QString RecorderLog::outputInUse()
{
    return logtext::quotedAfter(lineWith(path(), "Debug: FFmpeg recorder using video encoder "), "output");
}

QString RecorderLog::finalizedOutput()
{
    return logtext::quotedAfter(
        lineWith(path(), "Debug: FFmpeg recorder finalized output "), "FFmpeg recorder finalized output");
}

QByteArrayList RecorderLog::newLines()
{
    QFile file;
    if (path().isEmpty() || !openLog(file, path()) || !file.seek(linesReadTo_))
        return {};
    constexpr qint64 mostBytes = qint64(1024) * 1024; // at once; the rest comes with the next call
    const QByteArray bytes = file.read(mostBytes);
    const qsizetype end = bytes.lastIndexOf('\n') + 1;
    linesReadTo_ += end > 0 || bytes.size() < mostBytes ? end : bytes.size(); // such a line is none of the recorder's
    QByteArrayList lines = bytes.left(end).split('\n');
    lines.removeLast(); // behind the last line feed
    return lines;
}

// The recorder replaces the suffix of its argument, whatever it is, and numbers what looks like a pattern. So it is
// given only names that it leaves as they are.
#include "outputname.h"

#include "plaintext.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>

namespace {

/// Suffixes of what the recorder does not write, and nobody means as a part of a name.
bool isOtherMediaSuffix(const QString& suffix)
{
    static const QSet<QString> others{QStringLiteral("webm"), QStringLiteral("gif"), QStringLiteral("mov"),
        QStringLiteral("avi"), QStringLiteral("m4v"), QStringLiteral("mpg"), QStringLiteral("mpeg"),
        QStringLiteral("wmv"), QStringLiteral("flv"), QStringLiteral("ogv"), QStringLiteral("ogg"),
        QStringLiteral("ts"), QStringLiteral("mp3"), QStringLiteral("m4a"), QStringLiteral("wav"),
        QStringLiteral("aac"), QStringLiteral("flac"), QStringLiteral("opus"), QStringLiteral("apng"),
        QStringLiteral("png"), QStringLiteral("jpg"), QStringLiteral("jpeg"), QStringLiteral("webp")};
    return others.contains(suffix.toLower());
}

/// Empty, or why no file can have this name.
QString refusal(const QString& given, const QFileInfo& file)
{
    const QString shown = plainText(given);
    if (given == QLatin1String("-"))
        return QStringLiteral("--output: the video cannot go to standard output; give the name of a file");
    if (given.contains(QChar()))
        return QStringLiteral("--output: '%1' is no file name").arg(shown);
    if (file.fileName().isEmpty() || file.fileName() == QLatin1String("..") || file.isDir())
        return QStringLiteral("--output: '%1' is no file name").arg(shown);
    if (file.isSymbolicLink())
        return QStringLiteral("--output: '%1' is a symbolic link; the recorder does not follow it").arg(shown);
    if (file.exists() && !file.isFile())
        return QStringLiteral("--output: '%1' is a device or a pipe; give the name of a file").arg(shown);
    if (isOtherMediaSuffix(file.suffix()))
        return QStringLiteral("--output: the recorder writes no .%1 file; give a name that ends in .mp4, and make a "
                              "copy of it afterwards")
            .arg(plainText(file.suffix()));
    if (file.absoluteFilePath().contains(QLatin1String("%d"))
        || file.absoluteFilePath().contains(QLatin1String("%03d")))
        return QStringLiteral(
            "--output: '%1' has %d in it, which the recorder replaces by a number; give another name")
            .replace(QLatin1String("%1"), shown);
    return QString();
}

/// A name that is free at this moment.
QString nameWithTime(const QDateTime& now)
{
    const QString base = QStringLiteral("recording-") + now.toString(QStringLiteral("yyyy-MM-dd-HHmmss"));
    QString name = base + QLatin1String(".mp4");
    for (int number = 2; QFileInfo::exists(name); ++number)
        name = QStringLiteral("%1-%2.mp4").arg(base).arg(number);
    return name;
}

}

OutputName chooseOutputName(const QString& given, bool isGiven, const QDateTime& now)
{
    const QString name = isGiven ? given : nameWithTime(now);
    OutputName result;
    const QFileInfo file(name);
    result.error = refusal(name, file);
    if (!result.error.isEmpty())
        return result;
    result.path = QDir::cleanPath(file.absoluteFilePath());
    const QString suffix = file.suffix().toLower();
    if (suffix == QLatin1String("mp4") && !file.completeBaseName().isEmpty())
        return result;
    if (suffix == QLatin1String("mkv") && !file.completeBaseName().isEmpty()) {
        result.path.chop(suffix.size());
        result.path += QLatin1String("mp4");
        result.remark = QStringLiteral("the recording goes to %1: the recorder chooses .mkv by itself, and only when "
                                       "FFmpeg has no usable encoder for MP4")
                            .arg(plainText(QFileInfo(result.path).fileName()));
    } else {
        result.path += QLatin1String(".mp4");
    }
    // The name has become another one.
    result.error = refusal(result.path, QFileInfo(result.path));
    return result;
}

QString fallbackName(const QString& path)
{
    const QFileInfo file(path);
    return file.dir().filePath(file.completeBaseName() + QLatin1String(".mkv"));
}

// A hard link takes a name only when it is free, which a renaming does not.
#include "newfile.h"

#include "plaintext.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryFile>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QString refusalOf(const QString& given, const QFileInfo& file, const QString& suffix)
{
    if (given.contains(QChar()) || file.fileName().isEmpty() || file.isDir())
        return QStringLiteral("'%1' is no file name");
    if (!file.fileName().endsWith(suffix, Qt::CaseInsensitive) || file.fileName().size() == suffix.size())
        return QStringLiteral("'%1' is no name that ends in ") + suffix;
    if (file.isSymbolicLink())
        return QStringLiteral("'%1' is a symbolic link, which is not followed");
    if (file.exists() && !file.isFile())
        return QStringLiteral("'%1' is a device or a pipe; give the name of a file");
    return QString();
}

}

NewFileName chooseNewFile(const QString& option, const QString& given, const QString& suffix, bool overwriting,
    const QString& madeDirectory)
{
    const QFileInfo file(given);
    NewFileName result{QDir::cleanPath(file.absoluteFilePath()), refusalOf(given, file, suffix)};
    const QString directory = QFileInfo(result.path).absolutePath();
    if (!result.error.isEmpty())
        result.error = option + QLatin1String(": ") + result.error.arg(plainText(given));
    else if (file.exists() && !overwriting)
        result.error = QStringLiteral("%1 is there already; --force overwrites it").arg(plainText(result.path));
    else if (directory != madeDirectory && !QFileInfo(directory).isDir())
        result.error = QStringLiteral("%1: there is no directory %2").arg(option, plainText(directory));
    return result;
}

bool isSameFile(const QString& one, const QString& other)
{
    struct stat first { };
    struct stat second { };
    return ::stat(QFile::encodeName(one).constData(), &first) == 0
        && ::stat(QFile::encodeName(other).constData(), &second) == 0 && first.st_dev == second.st_dev
        && first.st_ino == second.st_ino;
}

NewFile::~NewFile()
{
    if (!temporary_.isEmpty())
        ::unlink(QFile::encodeName(temporary_).constData());
}

QString NewFile::make(const QString& path, bool overwriting)
{
    path_ = QFile::encodeName(path);
    overwriting_ = overwriting;
    QTemporaryFile file(QFileInfo(path).absolutePath() + QLatin1String("/record-window-XXXXXX.part"));
    if (!file.open())
        return QStringLiteral("cannot write %1: %2").arg(plainText(path), file.errorString());
    file.setAutoRemove(false);
    temporary_ = file.fileName();
    return QString();
}

QString NewFile::commit()
{
    const QByteArray temporary = QFile::encodeName(temporary_);
    if (!overwriting_ && ::link(temporary.constData(), path_.constData()) == 0)
        return QString(); // the destructor takes the other name away
    struct stat status { };
    const bool isTaken = !overwriting_ && (errno == EEXIST || ::lstat(path_.constData(), &status) == 0);
    if (isTaken)
        return QStringLiteral("%1 is there by now; --force overwrites it").arg(plainText(QFile::decodeName(path_)));
    if (std::rename(temporary.constData(), path_.constData()) != 0)
        return QStringLiteral("cannot write %1: %2")
            .arg(plainText(QFile::decodeName(path_)), QString::fromLocal8Bit(std::strerror(errno)));
    temporary_.clear();
    return QString();
}

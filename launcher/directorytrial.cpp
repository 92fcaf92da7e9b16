// A disk without room refuses the bytes, at the latest when they leave this process.
#include "directorytrial.h"

#include "plaintext.h"
#include "privatefile.h"

#include <QFile>
#include <QTemporaryFile>

namespace {

constexpr qsizetype leastRoom = qsizetype(64) * 1024; // bytes: a log and the first second of a small window

}

QString whyNothingFitsInto(const QString& directory)
{
    QString refusal = QStringLiteral("cannot write into the directory %1").arg(plainText(directory));
    if (!privatefile::makeDirectories(QFile::encodeName(directory)))
        return refusal;
    QTemporaryFile file(directory + QLatin1String("/record-window-XXXXXX"));
    if (!file.open())
        return refusal;
    if (file.write(QByteArray(leastRoom, '\0')) != leastRoom || !file.flush())
        return QStringLiteral("%1: %2").arg(refusal, file.errorString());
    return QString();
}

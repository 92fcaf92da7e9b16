// A recording can be larger than the memory: it is read in pieces.
#include "checksum.h"

#include <QCryptographicHash>
#include <QFile>

QString sha256Of(const QString& path)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file) || file.error() != QFileDevice::NoError)
        return QString();
    return QString::fromLatin1(hash.result().toHex());
}

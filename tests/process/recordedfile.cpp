// Boxes and frames of a recording. An MP4 box is a length of four bytes and a type of four; length 1 stands for one
// of eight bytes behind the type, length 0 for the rest of the file.
#include "recordedfile.h"

#include "mediafile.h"

#include <QFile>
#include <QtEndian>

QList<QByteArray> topLevelBoxes(const QString& path)
{
    QList<QByteArray> types;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return types;
    constexpr qsizetype headerSize = 8;
    for (qint64 position = 0; file.seek(position);) {
        const QByteArray header = file.read(headerSize);
        if (header.size() < headerSize)
            break;
        quint64 size = qFromBigEndian<quint32>(header.constData());
        if (size == 1) {
            const QByteArray longSize = file.read(headerSize);
            size = longSize.size() == headerSize ? qFromBigEndian<quint64>(longSize.constData()) : 0;
        } else if (size == 0) {
            size = quint64(file.size() - position);
        }
        if (size < quint64(headerSize) || size > quint64(file.size() - position))
            break;
        types.append(header.mid(4));
        position += qint64(size);
    }
    return types;
}

Playback playBack(const QString& path)
{
    Playback result;
    MediaFile file(path);
    file.forEachFrame([&](const MediaFrame& frame) {
        result.ptsMs << frame.ptsMs;
        result.last = frame.image;
        return true;
    });
    result.error = file.errorString();
    const QList<QByteArray> boxes = topLevelBoxes(path);
    result.finished = !boxes.isEmpty() && boxes.last() == "mfra";
    return result;
}

QByteArray Playback::description() const
{
    return QByteArray::number(ptsMs.size()) + " frames, the last at "
        + QByteArray::number(ptsMs.isEmpty() ? -1.0 : ptsMs.last()) + " ms, " + (finished ? "" : "not ") + "finished "
        + error.toUtf8();
}

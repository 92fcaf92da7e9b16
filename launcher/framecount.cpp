// Boxes of a fragmented MP4: a length of four bytes, a type of four, the content. A fragment's "moof" has a "traf"
// for each track in it, and each of these a "tfhd" with the number of the track and a "trun" with the number of
// samples.
#include "framecount.h"

#include <QFile>
#include <QtEndian>

namespace {

constexpr qsizetype headerSize = 8;
constexpr quint32 videoTrack = 1;
constexpr qint64 largestBox = qint64(16) * 1024 * 1024; // bytes; a "moof" of a second has some hundred

/// Calls a function with the type and the content of each box, until one is not whole.
template <typename Function>
void forEachBox(const QByteArray& boxes, Function function)
{
    for (qsizetype at = 0; at + headerSize <= boxes.size();) {
        const auto size = qsizetype(qFromBigEndian<quint32>(boxes.constData() + at));
        if (size < headerSize || size > boxes.size() - at)
            return;
        function(boxes.mid(at + 4, 4), boxes.mid(at + headerSize, size - headerSize));
        at += size;
    }
}

/// The second number of a box's content, which follows its version and flags; 0 when there is none.
quint32 numberIn(const QByteArray& content)
{
    return content.size() >= headerSize ? qFromBigEndian<quint32>(content.constData() + 4) : 0;
}

qint64 framesIn(const QByteArray& fragment)
{
    qint64 frames = 0;
    forEachBox(fragment, [&](const QByteArray& type, const QByteArray& track) {
        if (type != "traf")
            return;
        quint32 number = 0;
        forEachBox(track, [&](const QByteArray& inner, const QByteArray& content) {
            if (inner == "tfhd")
                number = numberIn(content);
            else if (inner == "trun" && number == videoTrack)
                frames += numberIn(content);
        });
    });
    return frames;
}

}

qint64 FrameCount::update(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return frames_;
    while (file.seek(position_)) {
        const QByteArray header = file.read(headerSize);
        if (header.size() < headerSize)
            break;
        const qint64 size = qFromBigEndian<quint32>(header.constData());
        const QByteArray type = header.mid(4);
        if (size < headerSize || position_ + size > file.size() || (position_ == 0 && type != "ftyp"))
            break;
        if (type == "moof" && size < largestBox)
            frames_ = qMax<qint64>(frames_, 0) + framesIn(file.read(size - headerSize));
        position_ += size;
    }
    return frames_;
}

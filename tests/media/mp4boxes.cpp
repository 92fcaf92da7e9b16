// The boxes of an MP4 file.
#include "mp4boxes.h"

#include <QFile>
#include <QHash>
#include <QtEndian>

#include <algorithm>

namespace {

constexpr qsizetype headerSize = 8;

/// How many bytes of a box's content come before the boxes in it; -1 for boxes that hold none.
qsizetype bytesBeforeChildren(const QByteArray& type)
{
    static const QHash<QByteArray, qsizetype> known{{"moov", 0}, {"trak", 0}, {"mdia", 0}, {"minf", 0}, {"stbl", 0},
        {"stsd", 8}, {"mp4v", 78}, {"mvex", 0}, {"moof", 0}, {"traf", 0}, {"mfra", 0}};
    return known.value(type, -1);
}

QList<Mp4Box> parseAt(const QByteArray& bytes, qsizetype fileOffset)
{
    QList<Mp4Box> boxes;
    for (qsizetype at = 0; at + headerSize <= bytes.size();) {
        const auto stated = qsizetype(qFromBigEndian<quint32>(bytes.constData() + at));
        const qsizetype size = std::max(stated, headerSize);
        Mp4Box box;
        box.type = bytes.mid(at + 4, 4);
        box.offset = fileOffset + at;
        box.content = bytes.mid(at + headerSize, size - headerSize);
        box.whole = stated >= headerSize && at + size <= bytes.size();
        if (const qsizetype before = bytesBeforeChildren(box.type); before >= 0)
            box.children = parseAt(box.content.mid(before), box.offset + headerSize + before);
        boxes.append(box);
        at += size;
    }
    return boxes;
}

}

namespace mp4boxes {

QList<Mp4Box> parse(const QByteArray& bytes)
{
    return parseAt(bytes, 0);
}

QList<Mp4Box> parseFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? parse(file.readAll()) : QList<Mp4Box>();
}

QList<QByteArray> types(const QList<Mp4Box>& boxes)
{
    QList<QByteArray> list;
    for (const Mp4Box& box : boxes)
        list.append(box.type);
    return list;
}

const Mp4Box* find(const QList<Mp4Box>& boxes, const QByteArray& path)
{
    const QList<Mp4Box>* level = &boxes;
    const Mp4Box* found = nullptr;
    for (const QByteArray& type : path.split('/')) {
        const auto match
            = std::find_if(level->cbegin(), level->cend(), [&](const Mp4Box& box) { return box.type == type; });
        if (match == level->cend())
            return nullptr;
        found = &*match;
        level = &found->children;
    }
    return found;
}

quint32 number32(const Mp4Box& box, qsizetype at)
{
    return at + 4 <= box.content.size() ? qFromBigEndian<quint32>(box.content.constData() + at) : 0;
}

quint64 number64(const Mp4Box& box, qsizetype at)
{
    return at + 8 <= box.content.size() ? qFromBigEndian<quint64>(box.content.constData() + at) : 0;
}

}

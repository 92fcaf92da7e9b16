// The boxes of an MP4 file, read without FFmpeg.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

/// A box and what lies in it. Sizes are bytes; a box whose size points behind the end of what is there ends there
/// and is not whole.
struct Mp4Box {
    QByteArray type; ///< four characters
    qsizetype offset = 0; ///< of the box, from the start of the file
    QByteArray content; ///< what follows size and type
    bool whole = true;
    QList<Mp4Box> children; ///< for the types that are known to hold boxes

    qsizetype end() const { return offset + 8 + content.size(); }
};

namespace mp4boxes {

/// The boxes in the bytes. Boxes of 64-bit size do not occur in these files.
QList<Mp4Box> parse(const QByteArray& bytes);
QList<Mp4Box> parseFile(const QString& path);

QList<QByteArray> types(const QList<Mp4Box>& boxes);

/// The first box of a path such as "moov/trak/mdia", or null.
const Mp4Box* find(const QList<Mp4Box>& boxes, const QByteArray& path);

/// A big-endian number in a box's content.
quint32 number32(const Mp4Box& box, qsizetype at);
quint64 number64(const Mp4Box& box, qsizetype at);

}

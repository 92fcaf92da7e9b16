// The durations of samples as a fragmented MP4 states them (ISO/IEC 14496-12: moof, traf, tfhd, trun, trex).
#include "fragmentdurations.h"

#include <QFile>
#include <QtEndian>

#include <algorithm>
#include <functional>

namespace {

constexpr qsizetype fullBoxHeader = 4; // version and flags, before the fields of a box

/// The 32-bit number at a place, 0 past the end.
quint32 word(const QByteArray& bytes, qsizetype at)
{
    return at >= 0 && at + 4 <= bytes.size() ? qFromBigEndian<quint32>(bytes.constData() + at) : 0;
}

/// Visits the boxes side by side in a piece of a file: type and content.
void forEachBox(const QByteArray& bytes, const std::function<void(const QByteArray&, const QByteArray&)>& visit)
{
    constexpr qsizetype header = 8;
    for (qsizetype at = 0; at + header <= bytes.size();) {
        const auto size = qsizetype(word(bytes, at));
        if (size < header || at + size > bytes.size())
            return;
        visit(bytes.mid(at + 4, 4), bytes.mid(at + header, size - header));
        at += size;
    }
}

class Reader {
public:
    QHash<quint32, QList<qint64>> durations;

    void readMovie(const QByteArray& moov)
    {
        forEachBox(moov, [this](const QByteArray& type, const QByteArray& mvex) {
            if (type != "mvex")
                return;
            forEachBox(mvex, [this](const QByteArray& inner, const QByteArray& trex) {
                // Track, sample description, default duration.
                if (inner == "trex")
                    defaults_[word(trex, fullBoxHeader)] = word(trex, fullBoxHeader + 8);
            });
        });
    }

    void readFragment(const QByteArray& moof)
    {
        forEachBox(moof, [this](const QByteArray& type, const QByteArray& traf) {
            if (type == "traf")
                readTrackFragment(traf);
        });
    }

private:
    void readTrackFragment(const QByteArray& traf)
    {
        quint32 track = 0;
        qint64 defaultDuration = 0;
        forEachBox(traf, [&](const QByteArray& type, const QByteArray& box) {
            if (type == "tfhd") {
                track = word(box, fullBoxHeader);
                const quint32 flags = word(box, 0) & 0xffffff;
                // Track, then those of base offset (8 bytes) and sample description that are there.
                const qsizetype at = fullBoxHeader + 4 + (flags & 0x1 ? 8 : 0) + (flags & 0x2 ? 4 : 0);
                defaultDuration = flags & 0x8 ? word(box, at) : defaults_.value(track);
            } else if (type == "trun") {
                readRun(box, track, defaultDuration);
            }
        });
    }

    void readRun(const QByteArray& trun, quint32 track, qint64 defaultDuration)
    {
        const quint32 flags = word(trun, 0) & 0xffffff;
        const quint32 count = word(trun, fullBoxHeader);
        // Count, then data offset and first flags; per sample: duration, size, flags, time offset, if there.
        qsizetype at = fullBoxHeader + 4 + (flags & 0x1 ? 4 : 0) + (flags & 0x4 ? 4 : 0);
        qsizetype step = 0;
        for (const quint32 field : {0x100u, 0x200u, 0x400u, 0x800u})
            step += flags & field ? 4 : 0;
        for (quint32 i = 0; i < count && at + step <= trun.size(); ++i, at += step)
            durations[track].append(flags & 0x100 ? word(trun, at) : defaultDuration);
    }

    QHash<quint32, qint64> defaults_;
};

}

QHash<quint32, QList<qint64>> fragmentSampleDurations(const QString& path)
{
    Reader reader;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    constexpr qint64 header = 8;
    for (;;) {
        const QByteArray head = file.read(header);
        qint64 size = word(head, 0);
        qint64 read = header;
        if (head.size() == header && size == 1) { // the size follows in 64 bits
            size = qint64(file.read(8).toHex().toULongLong(nullptr, 16));
            read += 8;
        }
        if (head.size() < header || size < read)
            return reader.durations;
        const QByteArray type = head.mid(4);
        if (type == "moov" || type == "moof") {
            const QByteArray box = file.read(std::min(size - read, file.size() - file.pos()));
            if (type == "moov")
                reader.readMovie(box);
            else
                reader.readFragment(box);
        } else if (!file.seek(file.pos() + size - read)) {
            return reader.durations;
        }
    }
}

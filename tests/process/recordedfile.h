// What became of a recording: the structure of its file, and whether it plays.
#pragma once

#include <QByteArray>
#include <QImage>
#include <QList>
#include <QString>

/// The types of the boxes at the top of an MP4 file ("ftyp", "moov", "moof", ...), read without FFmpeg, in their
/// order, up to the last one that is whole. Empty when the file is not there.
QList<QByteArray> topLevelBoxes(const QString& path);

/// A file as a player sees it.
struct Playback {
    QString error; ///< empty when every frame was decoded
    QList<double> ptsMs; ///< of the frames, in their order
    QImage last; ///< QImage::Format_RGB32
    bool finished = false; ///< it ends with the index that only the orderly end of a recording writes

    /// It plays from the first frame to the last, and was ended in order.
    bool isWhole() const { return plays() && finished; }
    /// It plays, as far as it goes.
    bool plays() const { return error.isEmpty() && !ptsMs.isEmpty(); }
    QByteArray description() const;
};

Playback playBack(const QString& path);

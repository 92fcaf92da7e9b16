// FrameCount: how many frames a recording's file holds while it is being written.
#pragma once

#include <QByteArray>
#include <QString>

/// Reads on where the last call ended: the whole fragments of an MP4, of which the first track is the video.
class FrameCount {
public:
    /// Below 0: not known, as the file is no MP4 or has no whole fragment yet.
    qint64 update(const QString& path);

private:
    qint64 position_ = 0; // of the next box, bytes
    qint64 frames_ = -1;
};

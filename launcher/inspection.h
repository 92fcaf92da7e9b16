// Inspection: what a finished recording's file holds, as a player finds it.
#pragma once

#include <QJsonObject>
#include <QList>
#include <QSize>
#include <QString>

#include <optional>

struct Inspection {
    /// A time without frames.
    struct Gap {
        qint64 fromMs = 0;
        qint64 lengthMs = 0;
    };
    struct Video {
        QString codec; ///< as FFmpeg names it
        QSize size;
        qint64 frames = 0;
        qint64 decodedFrames = 0; ///< of a long recording not all are decoded
        qint64 badFrames = 0; ///< could not be decoded
        qint64 endMs = 0; ///< the last frame's time, counted from the first one, and its duration
        qint64 longestGapMs = 0; ///< between two frames
        QList<Gap> gaps; ///< those longer than a second; the first ones
    };
    struct Audio {
        QString codec;
        int rate = 0; ///< Hz
        int channels = 0;
        qint64 lengthMs = 0; ///< from the beginning of the first block to the end of the last one
        qint64 badBlocks = 0; ///< could not be decoded
    };

    QString error; ///< not empty: the file cannot be read, or not to its end
    std::optional<Video> video;
    std::optional<Audio> audio;

    QJsonObject videoJson() const; ///< empty without video
    QJsonObject audioJson() const;
};

/// Reads the whole file. Decodes everything in it, but stops decoding when that has taken decodingLimitMs. Blocks.
Inspection inspectRecording(const QString& path, qint64 decodingLimitMs);

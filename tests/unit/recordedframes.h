// Reads the frames of a finished recording of the numbered window back from its file.
#pragma once

#include "mediafile.h"
#include "numberedwindow.h"

#include <QImage>
#include <QList>
#include <QStringList>

/// A frame of a finished recording of the numbered window.
struct RecordedFrame {
    int number = 0;
    double ptsMs = 0.0;
    QImage image;
};

/// All frames; the window fills the given part of the canvas.
inline QList<RecordedFrame> readFrames(const QString& path, const QRectF& part = QRectF(0, 0, 160, 96))
{
    MediaFile file(path);
    QList<RecordedFrame> frames;
    for (const MediaFrame& frame : file.frames())
        frames.append({NumberedWindow::numberIn(frame.image, part), frame.ptsMs, frame.image});
    if (!file.isValid())
        qFatal("Cannot read %s: %s", qPrintable(path), qPrintable(file.errorString()));
    return frames;
}

inline QList<int> numbersOf(const QList<RecordedFrame>& frames)
{
    QList<int> numbers;
    for (const RecordedFrame& frame : frames)
        numbers.append(frame.number);
    return numbers;
}

/// first, first + 1, ... count of them.
inline QList<int> sequence(int first, qsizetype count)
{
    QList<int> numbers;
    for (int i = 0; i < count; ++i)
        numbers.append(first + i);
    return numbers;
}

inline QString text(const QList<int>& numbers)
{
    QStringList parts;
    for (const int number : numbers)
        parts.append(QString::number(number));
    return parts.join(QLatin1Char(' '));
}

inline bool isBlack(const QImage& image)
{
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            if (qGray(image.pixel(x, y)) > 4)
                return false;
        }
    }
    return true;
}

// NumberedWindow: a fake window that shows the number of each of its images, so that a recording tells which ones
// reached it.
#pragma once

#include "fakeplatform.h"

#include <QColor>
#include <QElapsedTimer>
#include <QImage>
#include <QList>
#include <QPainter>

#include <atomic>
#include <functional>
#include <mutex>

/// Becomes the fake platform's window; lives longer than every recorder that looks at it. Frames are opaque: eight
/// black or white blocks in the upper two thirds are the number's bits, the lower third is grey.
class NumberedWindow {
public:
    static constexpr int width = 160; ///< pixels
    static constexpr int height = 96;
    static constexpr QRgb ground = qRgb(128, 128, 128);

    NumberedWindow()
    {
        clock_.start();
        fakeplatform::state().image = [this](int index) { return image(index); };
    }
    ~NumberedWindow() { fakeplatform::state().image = nullptr; }
    NumberedWindow(const NumberedWindow&) = delete;
    NumberedWindow& operator=(const NumberedWindow&) = delete;

    /// Called with the image's number on the thread that samples before it is made. May block; false means that there
    /// is no image this time. Set it before the recorder is made.
    std::function<bool(int)> beforeImage;
    /// Called with the image's number when nobody needs it any more, on the thread that needed it last: the worker.
    /// May block. Set it before the recorder is made.
    std::function<void(int)> beforeRelease;
    /// The size of an image, 160 x 96 when unset. Set it before the recorder is made.
    std::function<QSize(int)> sizeOf;

    /// How many images were asked for.
    int asked() const { return asked_; }
    /// Milliseconds, on a clock of its own, at which each image was asked for.
    QList<qint64> askedAtMs() const
    {
        const std::lock_guard lock(mutex_);
        return askedAtMs_;
    }
    /// Pixel buffers of this window that are not released yet, and the most there were at one time.
    int liveFrames() const { return live_; }
    int mostLiveFrames() const { return mostLive_; }

    /// The number in a frame of the canvas; the window fills the given part of it.
    static int numberIn(const QImage& canvas, const QRectF& part = QRectF(0, 0, width, height))
    {
        int number = 0;
        for (int bit = 0; bit < bits; ++bit) {
            const QPointF centre = block(bit).center();
            const QPointF at(
                part.x() + centre.x() * part.width() / width, part.y() + centre.y() * part.height() / height);
            if (qGray(canvas.pixel(at.toPoint())) > 127)
                number |= 1 << bit;
        }
        return number;
    }

private:
    static constexpr int bits = 8;

    static QRectF block(int bit)
    {
        constexpr double blockWidth = width / 4.0;
        constexpr double blockHeight = height / 3.0;
        return QRectF((bit % 4) * blockWidth, (bit / 4) * blockHeight, blockWidth, blockHeight);
    }

    struct Buffer {
        NumberedWindow* window;
        int number;
        QImage pixels;
    };

    static void release(void* info)
    {
        auto* buffer = static_cast<Buffer*>(info);
        if (buffer->window->beforeRelease)
            buffer->window->beforeRelease(buffer->number);
        --buffer->window->live_;
        delete buffer;
    }

    QImage image(int number)
    {
        {
            const std::lock_guard lock(mutex_);
            askedAtMs_.append(clock_.elapsed());
        }
        ++asked_;
        if (beforeImage && !beforeImage(number))
            return QImage();
        return paint(number);
    }

    QImage paint(int number)
    {
        const QSize size = sizeOf ? sizeOf(number) : QSize(width, height);
        auto* buffer = new Buffer{this, number, QImage(size, QImage::Format_RGB32)};
        mostLive_ = std::max(mostLive_.load(), ++live_);
        QImage& pixels = buffer->pixels;
        pixels.fill(QColor::fromRgb(ground));
        QPainter painter(&pixels);
        painter.scale(double(pixels.width()) / width, double(pixels.height()) / height);
        for (int bit = 0; bit < bits; ++bit)
            painter.fillRect(block(bit), (number >> bit) & 1 ? Qt::white : Qt::black);
        painter.end();
        return QImage(pixels.constBits(), pixels.width(), pixels.height(), pixels.bytesPerLine(), pixels.format(),
            release, buffer);
    }

    QElapsedTimer clock_;
    mutable std::mutex mutex_;
    QList<qint64> askedAtMs_; // guarded by mutex_
    std::atomic<int> asked_{0};
    std::atomic<int> live_{0};
    std::atomic<int> mostLive_{0}; // written by the thread that samples only
};

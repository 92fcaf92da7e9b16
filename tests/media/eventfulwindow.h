// EventfulWindow: frames of a window whose every event is a random one.
#pragma once

#include "recorderprobe.h"
#include "sharedimages.h"

#include <QImage>
#include <QPoint>
#include <QRandomGenerator>
#include <QRect>
#include <QSize>

#include <algorithm>
#include <cstring>

/// A window that does everything that windows do, at random, and tells what changed as a capture does.
class EventfulWindow {
public:
    using Frame = RecorderProbe::CapturedFrame;

    EventfulWindow(const QSize& size, bool opaque, quint32 seed) : random_(seed), size_(size), opaque_(opaque)
    {
        repaint();
    }

    Frame next()
    {
        switch (random_.bounded(12)) {
        case 0:
            repaint();
            break;
        case 1:
            break; // nothing
        case 2:
            frame_.windowBounds.translate(int(random_.bounded(40)) - 20, int(random_.bounded(40)) - 20);
            break;
        case 3:
            frame_.windowBounds.setSize(size_ / (1 + int(random_.bounded(2))));
            break;
        case 4:
            if (random_.bounded(4) == 0) {
                size_ += QSize(int(random_.bounded(9)) - 4, int(random_.bounded(9)) - 4);
                repaint();
            }
            break;
        case 5:
            opaque_ = opaque_ ? random_.bounded(3) > 0 : random_.bounded(3) == 0;
            repaint();
            break;
        case 6:
            movePointer();
            break;
        case 7:
            ++frame_.imageVersion; // a frame was left out
            [[fallthrough]];
        default:
            scribble(1 + int(random_.bounded(3)));
        }
        if (random_.bounded(3) == 0)
            movePointer();
        take();
        return frame_;
    }

    /// What a capture gives when there is no image; the next one counts as all new.
    Frame nextWithoutImage()
    {
        frame_.image = QImage();
        return {};
    }

private:
    void repaint()
    {
        pixels_ = QImage(size_, QImage::Format_ARGB32);
        scribble(1, pixels_.rect());
    }

    void scribble(int areas, QRect area = QRect())
    {
        for (int i = 0; i < areas; ++i) {
            const QPoint corner(int(random_.bounded(size_.width())), int(random_.bounded(size_.height())));
            const QSize extent(1 + int(random_.bounded(size_.width())),
                1 + int(random_.bounded(random_.bounded(3) == 0 ? size_.height() / 4 : 4)));
            fill(area.isEmpty() ? QRect(corner, extent) & pixels_.rect() : area);
        }
    }

    void fill(const QRect& area)
    {
        for (int y = area.top(); y <= area.bottom(); ++y) {
            auto* line = reinterpret_cast<quint32*>(pixels_.scanLine(y));
            random_.fillRange(line + area.left(), area.width());
            for (int x = area.left(); opaque_ && x <= area.right(); ++x)
                line[x] |= 0xff000000u;
        }
    }

    void movePointer()
    {
        frame_.hasCursor = random_.bounded(5) > 0;
        frame_.cursorX = frame_.windowBounds.left() + random_.bounded(1.2) * frame_.windowBounds.width();
        frame_.cursorY = frame_.windowBounds.top() + random_.bounded(1.2) * frame_.windowBounds.height();
    }

    void take()
    {
        images_.update(pixels_.size(), pixels_.format());
        images_.put(0, pixels_.height(), reinterpret_cast<const quint32*>(pixels_.constBits()));
        const SharedImages::Image taken = images_.finish();
        const RowSet changedRows = differentRows(taken.image);
        if (frame_.windowBounds.isEmpty())
            frame_.windowBounds = pixels_.rect();
        if (!changedRows.isEmpty()) {
            ++frame_.imageVersion;
            frame_.changedRows = changedRows;
        }
        frame_.image = taken.image;
        frame_.opaque = isOpaque();
    }

    /// From the last image; exactly those, and no row more, as a source may tell them.
    RowSet differentRows(const QImage& image) const
    {
        if (image.size() != frame_.image.size())
            return RowSet(0, image.height());
        RowSet rows;
        for (int y = 0; y < image.height(); ++y) {
            if (std::memcmp(image.constScanLine(y), frame_.image.constScanLine(y), size_t(image.width()) * 4) != 0)
                rows.add(y, y + 1);
        }
        return rows;
    }

    bool isOpaque() const
    {
        const auto* const pixels = reinterpret_cast<const quint32*>(pixels_.constBits());
        return std::all_of(pixels, pixels + pixels_.sizeInBytes() / 4,
            [](quint32 pixel) { return (pixel & 0xff000000u) == 0xff000000u; });
    }

    QRandomGenerator random_;
    QSize size_;
    bool opaque_;
    QImage pixels_;
    SharedImages images_;
    Frame frame_;
};

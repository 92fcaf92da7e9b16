// What a buffer of a video stream says: values in, values out.
#pragma once

#include "videoformats.h"
#include "videopixels.h"

#include <QPointF>
#include <QRect>

#include <optional>
#include <vector>

struct spa_buffer;

namespace wayland {

/// The mouse pointer in pixels of the frame; nothing where it is not over the window, or not told.
std::optional<QPointF> pointerOf(const spa_buffer& buffer);

/// Whether the buffer has a frame at all. One that only moves the pointer has none, and its crop counts for nothing.
bool hasFrame(const spa_buffer& buffer);

/// The frame, or nothing when it does not lie within the memory of the buffer, or that cannot be read.
std::optional<PixelView> frameOf(const spa_buffer& buffer, const VideoFormat& format);

/// The part of the frame that is the window.
QRect cropOf(const spa_buffer& buffer, const QSize& frame);

/// What differs from the frame before, in pixels of the frame; nothing when that is not told.
std::optional<std::vector<QRect>> damageOf(const spa_buffer& buffer);

}

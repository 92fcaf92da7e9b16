// What is agreed upon with the node of a video stream.
#pragma once

#include "videopixels.h"

#include <QSize>

#include <array>
#include <optional>

struct spa_pod;
struct spa_pod_builder;

namespace wayland {

struct VideoFormat {
    QSize size; ///< of the frames that come; the window may be a part of it
    PixelOrder order{};
};

/// The formats that are taken, in the order in which they are liked: 32 bits a pixel, in memory. Without a modifier,
/// so a node that has nothing but images in the memory of a graphics card (DMA-BUF) does not agree.
const spa_pod* wantedFormats(spa_pod_builder& builder);

/// Nothing for a format that was not asked for.
std::optional<VideoFormat> agreedFormat(const spa_pod* format);

/// Buffers in memory; the crop, damage, pointer and header of each.
using BufferParameters = std::array<const spa_pod*, 5>;
BufferParameters wantedBuffers(spa_pod_builder& builder);

}

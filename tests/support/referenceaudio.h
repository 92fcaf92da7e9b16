// What the intake of audio has to give: its rules, as slowly as they read.
#pragma once

#include "platform/audioformat.h"

#include <QtGlobal>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

/// One sample. side: 0 is left, 1 is right.
inline qint16 referenceSample(const platform::AudioStreamDescription& description, qint64 frame, qint64 side,
    const std::vector<platform::AudioBuffer>& buffers)
{
    const qint64 channels = description.channelsPerFrame;
    if (channels == 0 || description.bitsPerChannel == 0)
        return 0;
    const qint64 channel = side == 0 ? 0 : std::min<qint64>(1, channels - 1);
    const qint64 width = (qint64(description.bitsPerChannel) + 7) / 8;
    const bool planar = (description.formatFlags & 32) != 0;
    std::size_t bufferIndex = 0;
    qint64 offset = 0;
    if (planar) {
        if (std::size_t(channel) >= buffers.size())
            return 0;
        bufferIndex = std::size_t(channel);
        offset = frame * width;
    } else {
        if (buffers.empty() || description.bytesPerFrame < 1)
            return 0;
        offset = frame * qint64(description.bytesPerFrame) + channel * width;
    }
    const platform::AudioBuffer& buffer = buffers[bufferIndex];
    if (!buffer.data || offset + width > qint64(buffer.bytes))
        return 0;
    const auto* place = static_cast<const unsigned char*>(buffer.data) + offset;
    if ((description.formatFlags & 1) && description.bitsPerChannel == 32) {
        float value;
        std::memcpy(&value, place, 4);
        if (!(value < 1.0F))
            value = 1.0F;
        if (value < -1.0F)
            value = -1.0F;
        return qint16(std::nearbyint(double(value) * 32767.0));
    }
    if (!(description.formatFlags & 4))
        return description.bitsPerChannel == 16 ? qint16((place[0] | place[1] << 8) ^ 0x8000) : qint16(0);
    if (description.bitsPerChannel == 16)
        return qint16(place[0] | place[1] << 8);
    if (description.bitsPerChannel == 32)
        return qint16(place[2] | place[3] << 8);
    return 0;
}

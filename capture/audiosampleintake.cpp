// Converts one delivered buffer into one queued chunk. Runs where the platform delivers it, mostly on the reader's
// thread, one buffer at a time.
#include "audiosampleintake.h"

#include "recorderaudiocapture_p.h"

#include <QDebug>
#include <QtEndian>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

namespace audiointake {

namespace {

template <typename T>
T readAs(const char* place)
{
    T value;
    std::memcpy(&value, place, sizeof(value));
    return value;
}

qint16 fromFloat(const char* place)
{
    const float value = readAs<float>(place);
    const float below = value < 1.0F ? value : 1.0F; // also makes a NaN 1.0
    const float clamped = below > -1.0F ? below : -1.0F;
    return qint16(std::lrint(double(clamped) * 32767.0)); // ties to even
}

qint16 fromUnsigned16(const char* place)
{
    return qint16(readAs<quint16>(place) ^ 0x8000U);
}

qint16 fromSigned16(const char* place)
{
    return readAs<qint16>(place);
}

qint16 fromSigned32(const char* place)
{
    return qint16(readAs<quint32>(place) >> 16U);
}

using Reader = qint16 (*)(const char*);

/// Null for every kind of sample that is taken for silence.
Reader readerFor(const platform::AudioStreamDescription& description)
{
    const quint32 bits = description.bitsPerChannel;
    if ((description.formatFlags & platform::pcmIsFloat) && bits == 32)
        return fromFloat;
    if (!(description.formatFlags & platform::pcmIsSignedInteger))
        return bits == 16 ? fromUnsigned16 : nullptr;
    if (bits == 16)
        return fromSigned16;
    return bits == 32 ? fromSigned32 : nullptr;
}

/// Where the samples of one source channel lie: the first at base, then one every stride bytes.
struct Channel {
    const char* base = nullptr; ///< null: silence
    quint64 stride = 0; ///< bytes
    qint64 readable = 0; ///< samples that lie inside the buffer
};

Channel channelOf(const platform::AudioStreamDescription& description, quint32 channel,
    std::span<const platform::AudioBuffer> buffers)
{
    const quint64 width = (quint64(description.bitsPerChannel) + 7) / 8;
    const bool planar = description.formatFlags & platform::pcmIsNonInterleaved;
    const std::size_t index = planar ? channel : 0;
    const quint64 stride = planar ? width : description.bytesPerFrame;
    const quint64 offset = planar ? 0 : channel * width;
    if (index >= buffers.size() || !buffers[index].data || stride == 0 || buffers[index].bytes < offset + width)
        return Channel();
    const quint64 readable = (buffers[index].bytes - offset - width) / stride + 1;
    return {static_cast<const char*>(buffers[index].data) + offset, stride,
        qint64(std::min<quint64>(readable, quint64(mostFrames)))};
}

constexpr qsizetype bytesPerOutputFrame = 4;
constexpr qsizetype bytesPerOutputSample = 2;

void convertChannel(const Channel& source, Reader read, qint64 frames, char* out)
{
    const qint64 readable = source.base ? std::min(frames, source.readable) : 0;
    const char* place = source.base;
    for (qint64 i = 0; i < readable; ++i, out += bytesPerOutputFrame) {
        qToLittleEndian(read(place), out);
        place += source.stride;
    }
    for (qint64 i = readable; i < frames; ++i, out += bytesPerOutputFrame)
        qToLittleEndian(qint16(0), out);
}

}

std::optional<RecorderAudioCapture::Chunk> toChunk(const platform::AudioStreamDescription& description, qint64 frames,
    std::span<const platform::AudioBuffer> buffers)
{
    RecorderAudioCapture::Chunk chunk;
    try {
        chunk.pcm = QByteArray(qsizetype(frames) * bytesPerOutputFrame, Qt::Uninitialized);
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
    chunk.frames = qint32(frames);

    const quint32 channels = description.channelsPerFrame;
    const Reader read = channels > 0 && description.bitsPerChannel > 0 ? readerFor(description) : nullptr;
    const std::array<quint32, 2> sources{0, channels > 1 ? 1U : 0U}; // mono goes to both sides
    char* out = chunk.pcm.data();
    for (const quint32 source : sources) {
        convertChannel(read ? channelOf(description, source, buffers) : Channel(), read, frames, out);
        out += bytesPerOutputSample;
    }
    return chunk;
}

}

/// The platform's code does not expect exceptions. A buffer for which there is no memory is left out.
void RecorderAudioCapturePrivate::handleAudioSampleBuffer(const platform::AudioSampleBuffer* buffer) noexcept
{
    try {
        takeIn(buffer);
    } catch (const std::exception&) {
        tellOfLoss();
    }
}

void RecorderAudioCapturePrivate::tellOfLoss() noexcept
{
    if (lossLogged.exchange(true))
        return;
    try {
        qWarning() << "No memory for audio that was delivered; it is left out. Told once.";
    } catch (const std::exception&) { // nor for the line
    }
}

void RecorderAudioCapturePrivate::takeIn(const platform::AudioSampleBuffer* buffer)
{
    if (!buffer || !buffer->valid)
        return;
    if (!buffer->description || buffer->description->formatId != platform::linearPcm) {
        if (!unsupportedFormatLogged)
            qWarning() << "macOS ScreenCaptureKit audio sample has unsupported format.";
        unsupportedFormatLogged = true;
        return;
    }
    if (buffer->frames < 1 || buffer->frames > audiointake::mostFrames)
        return;
    auto list = buffer->bufferList();
    if (!list)
        return;
    auto chunk = audiointake::toChunk(*buffer->description, buffer->frames, list->buffers);
    list->owner.reset();
    if (!chunk) {
        tellOfLoss();
        return;
    }
    const CheckedLock lock(mutex);
    chunks.append(std::move(*chunk));
}

QList<RecorderAudioCapture::Chunk> RecorderAudioCapture::readAvailable()
{
    QList<Chunk> taken;
    if (!d)
        return taken;
    const CheckedLock lock(d->mutex);
    taken.swap(d->chunks);
    return taken;
}

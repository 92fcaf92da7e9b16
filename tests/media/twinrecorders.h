// TwinRecorders: one that saves what it can, and one that paints and converts every frame whole.
#pragma once

#include "allocationfaults.h"
#include "ffmpegfaults.h"
#include "idlerecorder.h"

#include <QByteArray>
#include <QImage>
#include <QList>
#include <QRandomGenerator>

#include <atomic>
#include <cstring>
#include <new>
#include <optional>
#include <tuple>
#include <utility>

/// What can befall a frame of the sparing recorder on its way. The plain one then loses it, too.
enum class Mishap {
    None,
    LostBeforeItWaits,
    NoMemoryToWait, ///< an operator new is refused
    NoImageToWait, ///< the platform has no memory for an image; the frame waits as it is
    LostWhileItWaits,
    NoMemoryToCompose,
    LostWhenComposed,
    NoMemoryToPrepare,
    NoFrameToPrepare, ///< FFmpeg has no memory for the encoder's frame
    Last = NoFrameToPrepare
};

/// Both get the same frames, of which none may be lost by one alone. The sparing one's encoder is held up as the test
/// likes. After ffmpegfaults::reset(); one at a time.
class TwinRecorders {
public:
    using Frame = RecorderProbe::CapturedFrame;

    explicit TwinRecorders(const QSize& canvas)
        : sparing_(QStringLiteral("sparing.mp4"), canvas), plain_(QStringLiteral("plain.mp4"), canvas)
    {
        auto& surroundings = ffmpegfaults::surroundings();
        surroundings.processors = 2; // the encoder has a thread of its own
        surroundings.atSendFrame = [this] { encoderIsHeld_.wait(true); };
        surroundings.atWritePacket = [this](const AVPacket& packet) {
            written_->append({packet.pts, packet.dts, packet.duration, packet.flags,
                QByteArray(reinterpret_cast<const char*>(packet.data), packet.size)});
        };
    }
    ~TwinRecorders()
    {
        letGo();
        sparing_.destroy();
        plain_.destroy();
        ffmpegfaults::reset();
    }
    TwinRecorders(const TwinRecorders&) = delete;
    TwinRecorders& operator=(const TwinRecorders&) = delete;

    bool open() { return sparing().openOutput() && plain().openOutput(); }
    RecorderProbe& sparing() { return of(sparing_, sparingPackets_); }
    RecorderProbe& plain() { return of(plain_, plainPackets_); }

    /// What differs between the two afterwards. The frame is prepared, unless it is lost; the encoder may have the
    /// one before. refusedOne: of the allocations, where the mishap is one of these.
    QString take(const Frame& frame, qint64 timeMs, Mishap mishap = Mishap::None, int refusedOne = 0);
    /// Sends what is prepared; the encoder is done with it, or is held up with it from then on. False when the
    /// encoder is not free, or is while it is held up.
    bool send(bool isHeldUp);
    /// Ends both files.
    bool finish();

    const QList<Mishap>& losses() const { return losses_; } ///< of frames, in their order
    int preparedBeside() const { return preparedBeside_; } ///< frames, while the encoder was held up
    bool wroteTheSame() const { return sparingPackets_ == plainPackets_; }
    qsizetype packetCount() const { return sparingPackets_.size(); }

private:
    using Packet = std::tuple<qint64, qint64, qint64, int, QByteArray>; // pts, dts, duration, flags, bytes
    using Packets = QList<Packet>;

    /// Whose packets are written until the other one is asked for.
    RecorderProbe& of(IdleRecorder& recorder, Packets& packets)
    {
        written_ = &packets;
        return *recorder;
    }
    std::optional<QImage> compose(Frame frame, qint64 timeMs, Mishap mishap, int refusedOne);
    bool prepare(const QImage& image, qint64 timeMs, Mishap mishap, int refusedOne);
    void letGo()
    {
        encoderIsHeld_ = false;
        encoderIsHeld_.notify_all();
    }

    std::atomic<bool> encoderIsHeld_{false};
    bool isPrepared_ = false;
    int preparedBeside_ = 0;
    QList<Mishap> losses_;
    Packets sparingPackets_;
    Packets plainPackets_;
    Packets* written_ = &sparingPackets_;
    IdleRecorder sparing_;
    IdleRecorder plain_;
};

/// What an encoder is given: its visible bytes.
inline QByteArray bytesOf(const AVFrame& frame)
{
    QByteArray bytes(
        av_image_get_buffer_size(AVPixelFormat(frame.format), frame.width, frame.height, 1), Qt::Uninitialized);
    av_image_copy_to_buffer(reinterpret_cast<uint8_t*>(bytes.data()), int(bytes.size()), frame.data, frame.linesize,
        AVPixelFormat(frame.format), frame.width, frame.height, 1);
    return bytes;
}

/// Row by row, for a message that helps.
inline int firstDifferentRow(const QImage& one, const QImage& other)
{
    for (int y = 0; y < one.height(); ++y) {
        if (std::memcmp(one.constScanLine(y), other.constScanLine(y), size_t(one.width()) * 4) != 0)
            return y;
    }
    return -1;
}

/// Nothing of the frame when it is lost.
inline std::optional<QImage> TwinRecorders::compose(Frame frame, qint64 timeMs, Mishap mishap, int refusedOne)
{
    std::optional<QImage> composed;
    if (mishap == Mishap::LostBeforeItWaits)
        return composed;
    try {
        const allocationfaults::RefusedOnce refusal(mishap == Mishap::NoMemoryToWait ? refusedOne : -1);
        if (mishap == Mishap::NoImageToWait)
            fakeplatform::state().memoryCallsLeft = 0;
        sparing().letterbox(frame);
    } catch (const std::bad_alloc&) {
        return composed;
    }
    fakeplatform::state().memoryCallsLeft.reset();
    if (mishap == Mishap::LostWhileItWaits)
        return composed;
    try {
        const allocationfaults::RefusedOnce refusal(mishap == Mishap::NoMemoryToCompose ? refusedOne : -1);
        composed = sparing().composeFrame(frame, timeMs);
    } catch (const std::bad_alloc&) {
    }
    if (mishap == Mishap::LostWhenComposed)
        composed.reset();
    return composed;
}

inline bool TwinRecorders::prepare(const QImage& image, qint64 timeMs, Mishap mishap, int refusedOne)
{
    using namespace ffmpegfaults;
    bool isPrepared = false;
    if (mishap == Mishap::NoFrameToPrepare) {
        failOnce(Call::MakeWritable, AVERROR(ENOMEM));
        failOnce(Call::GetFrameBuffer, AVERROR(ENOMEM));
    }
    try {
        const allocationfaults::RefusedOnce refusal(mishap == Mishap::NoMemoryToPrepare ? refusedOne : -1);
        isPrepared = sparing().prepareFrame(image, timeMs);
    } catch (const std::bad_alloc&) {
    }
    heal(Call::MakeWritable);
    heal(Call::GetFrameBuffer);
    return isPrepared;
}

inline QString TwinRecorders::take(const Frame& frame, qint64 timeMs, Mishap mishap, int refusedOne)
{
    const std::optional<QImage> one = compose(frame, timeMs, mishap, refusedOne);
    if (!one || !prepare(*one, timeMs, mishap, refusedOne)) {
        losses_.append(mishap);
        return QString();
    }
    isPrepared_ = true;
    preparedBeside_ += encoderIsHeld_;
    Frame unknown = frame;
    unknown.imageVersion = 0; // nobody knows what changed
    unknown.opaque = false;
    const QImage other = plain().composeFrame(unknown, timeMs);
    if (!plain().prepareFrame(other.copy(), timeMs))
        return QStringLiteral("not prepared");
    if (*one != other)
        return QStringLiteral("row %1").arg(firstDifferentRow(*one, other));
    if (bytesOf(*sparing().videoFrame()) != bytesOf(*plain().videoFrame()))
        return QStringLiteral("converted bytes");
    return QString();
}

inline bool TwinRecorders::send(bool isHeldUp)
{
    if (!std::exchange(isPrepared_, false))
        return true;
    if (encoderIsHeld_ && sparing().sendPreparedIfFree())
        return false; // it is not free
    letGo();
    sparing().collectEncoded();
    plain().sendPrepared();
    encoderIsHeld_ = isHeldUp;
    if (!sparing().sendPreparedIfFree())
        return false;
    if (!isHeldUp)
        sparing().collectEncoded();
    return true;
}

inline bool TwinRecorders::finish()
{
    letGo();
    sparing().collectEncoded();
    const bool finished = sparing_.finish();
    plain(); // its packets
    return plain_.finish() && finished;
}

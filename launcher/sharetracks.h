// The two streams of a copy: each takes the recording's packets, and hands out those of the copy.
#pragma once

#include "avhandles.h"

#include <QtGlobal>

#include <functional>

/// Takes a packet of the copy, with times in the encoder's time base. FFmpeg's status.
using PacketSink = std::function<int(AVPacket&)>;

/// What a track is made of; all of it lives longer than the track.
struct TrackEnds {
    const AVStream& source;
    AVCodecContext& decoder;
    AVCodecContext& encoder;
    qint64 shiftUs = 0; ///< added to every time, so that the copy begins at 0; microseconds
    PacketSink sink;
};

/// Decodes packets, and encodes what take() makes of the frames. One thread.
class ShareTrack {
public:
    explicit ShareTrack(TrackEnds ends);
    virtual ~ShareTrack() = default;
    ShareTrack(const ShareTrack&) = delete;
    ShareTrack& operator=(const ShareTrack&) = delete;

    /// null: the end of the recording. FFmpeg's status; what cannot be decoded is no error.
    int add(const AVPacket* packet);

    qint64 bad() const { return bad_; } ///< packets and frames that could not be decoded
    qint64 encoded() const { return encoded_; } ///< packets of the copy

protected:
    const TrackEnds& ends() const { return ends_; }
    /// null: the end. FFmpeg's status.
    int encode(const AVFrame* frame);
    /// A source's time in the encoder's time base.
    qint64 placeOf(qint64 stamp) const;

private:
    virtual int take(AVFrame& frame) = 0;
    virtual int finish() = 0; ///< encodes what is kept back

    TrackEnds ends_;
    const AvFrameHandle frame_{av_frame_alloc()};
    const AvPacketHandle packet_{av_packet_alloc()};
    qint64 bad_ = 0;
    qint64 encoded_ = 0;
};

/// Frames at the times of the recording.
class ShareVideoTrack : public ShareTrack {
public:
    explicit ShareVideoTrack(TrackEnds ends);
    ~ShareVideoTrack() override;

private:
    int take(AVFrame& frame) override;
    int finish() override { return 0; }
    int convert(const AVFrame& frame);

    SwsContext* scaler_ = nullptr; // owned; null as long as no frame needed it
    const AvFrameHandle converted_{av_frame_alloc()};
    qint64 lastPlace_ = -1;
};

/// Samples at the places of the recording: a hole in it is silence, what overlaps is left out.
class ShareAudioTrack : public ShareTrack {
public:
    explicit ShareAudioTrack(TrackEnds ends) : ShareTrack(std::move(ends)) { }

private:
    int take(AVFrame& frame) override;
    int finish() override;
    int start(AVFrame& frame);
    int addSilence(qint64 samples);
    int resample(const uint8_t* const* planes, int samples);
    int encodeQueued(bool withRest);

    AvResamplerHandle resampler_;
    AvAudioFifoHandle queue_;
    qint64 taken_ = 0; // samples of the source, from the first one on, silence included
    qint64 begin_ = 0; // place of the first one
    qint64 encodedSamples_ = 0;
};

// What both tracks share, and the video's.
#include "sharetracks.h"

namespace {

constexpr AVRational microseconds{1, 1'000'000};

}

// ==== both ===================================================================================================

ShareTrack::ShareTrack(TrackEnds ends) : ends_(std::move(ends)) { }

qint64 ShareTrack::placeOf(qint64 stamp) const
{
    const AVRational base = ends_.encoder.time_base;
    return av_rescale_q(stamp, ends_.source.time_base, base) + av_rescale_q(ends_.shiftUs, microseconds, base);
}

int ShareTrack::add(const AVPacket* packet)
{
    if (packet && (packet->flags & AV_PKT_FLAG_CORRUPT) != 0)
        ++bad_;
    if (avcodec_send_packet(&ends_.decoder, packet) < 0)
        ++bad_;
    for (;;) {
        int status = avcodec_receive_frame(&ends_.decoder, frame_.get());
        if (status == AVERROR_EOF && !packet) {
            status = finish();
            return status < 0 ? status : encode(nullptr);
        }
        if (status == AVERROR(EAGAIN) || status == AVERROR_EOF)
            return 0;
        if (status < 0) {
            ++bad_;
            if (packet)
                return 0;
            continue;
        }
        status = take(*frame_);
        if (status < 0)
            return status;
    }
}

int ShareTrack::encode(const AVFrame* frame)
{
    int status = avcodec_send_frame(&ends_.encoder, frame);
    while (status >= 0) {
        status = avcodec_receive_packet(&ends_.encoder, packet_.get());
        if (status == AVERROR(EAGAIN) || status == AVERROR_EOF)
            return 0;
        if (status < 0)
            return status;
        ++encoded_;
        status = ends_.sink(*packet_);
    }
    return status;
}

// ==== video ==================================================================================================

ShareVideoTrack::ShareVideoTrack(TrackEnds ends) : ShareTrack(std::move(ends)) { }

ShareVideoTrack::~ShareVideoTrack()
{
    sws_freeContext(scaler_);
}

int ShareVideoTrack::take(AVFrame& frame)
{
    if (frame.best_effort_timestamp == AV_NOPTS_VALUE)
        return 0; // nobody could tell when to show it
    const qint64 place = placeOf(frame.best_effort_timestamp);
    // Two frames of one millisecond, which a copy cannot tell apart.
    if (place <= lastPlace_)
        return 0;
    const AVCodecContext& encoder = ends().encoder;
    AVFrame* image = &frame;
    if (frame.format != encoder.pix_fmt || frame.width != encoder.width || frame.height != encoder.height
        || frame.color_range == AVCOL_RANGE_JPEG) {
        const int status = convert(frame);
        if (status < 0)
            return status;
        image = converted_.get();
    }
    lastPlace_ = place;
    image->pts = place;
    image->pict_type = AV_PICTURE_TYPE_NONE; // key frames are where this encoder wants them
    return encode(image);
}

int ShareVideoTrack::convert(const AVFrame& frame)
{
    const AVCodecContext& encoder = ends().encoder;
    scaler_ = sws_getCachedContext(scaler_, frame.width, frame.height, AVPixelFormat(frame.format), encoder.width,
        encoder.height, encoder.pix_fmt, SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INP, nullptr, nullptr,
        nullptr);
    if (!scaler_)
        return AVERROR(EINVAL);
    const int* matrix = sws_getCoefficients(
        encoder.colorspace == AVCOL_SPC_BT709 ? SWS_CS_ITU709 : SWS_CS_ITU601); // RGB pixels have none of their own
    constexpr int one = 1 << 16;
    sws_setColorspaceDetails(scaler_, matrix, frame.color_range == AVCOL_RANGE_JPEG ? 1 : 0, matrix, 0, 0, one, one);
    if (!converted_->buf[0]) {
        converted_->format = encoder.pix_fmt;
        converted_->width = encoder.width;
        converted_->height = encoder.height;
        converted_->color_range = encoder.color_range;
        converted_->colorspace = encoder.colorspace;
        const int status = av_frame_get_buffer(converted_.get(), 0);
        if (status < 0)
            return status;
    }
    const int status = av_frame_make_writable(converted_.get());
    if (status < 0)
        return status;
    return sws_scale(scaler_, frame.data, frame.linesize, 0, frame.height, converted_->data, converted_->linesize);
}

// One block of silence, which is to be heard a second after the beginning.
#include "opuspriming.h"

#include "inputfile.h"
#include "outputfile.h"

#include <array>

namespace {

constexpr AVRational milliseconds{1, 1000};
constexpr qint64 blockMs = 1000; // when its first sample behind the priming is heard

bool writeBlock(const AVCodecContext& encoder, const QString& path)
{
    AVFormatContext* output = nullptr;
    if (avformat_alloc_output_context2(&output, nullptr, "webm", nullptr) < 0)
        return false;
    output->avoid_negative_ts = AVFMT_AVOID_NEG_TS_DISABLED;
    std::array<uint8_t, 3> silence{0xfc, 0xff, 0xfe}; // one Opus packet of 20 ms
    const AvPacketHandle packet(av_packet_alloc());
    AVStream* const stream = avformat_new_stream(output, nullptr);
    bool written = stream && packet && avcodec_parameters_from_context(stream->codecpar, &encoder) >= 0
        && outputfile::open(*output, path) >= 0 && avformat_write_header(output, nullptr) >= 0;
    if (written) {
        packet->data = silence.data();
        packet->size = int(silence.size());
        packet->pts = packet->dts = av_rescale_q(
            encoder.sample_rate - encoder.initial_padding, {1, encoder.sample_rate}, stream->time_base);
        written = av_write_frame(output, packet.get()) >= 0 && av_write_trailer(output) >= 0;
    }
    outputfile::close(*output);
    avformat_free_context(output);
    return written;
}

}

bool muxerAddsPriming(const AVCodecContext& encoder, const QString& scratchFile)
{
    QString error;
    const InputHandle input = writeBlock(encoder, scratchFile) ? openInput(scratchFile, &error) : nullptr;
    const AvPacketHandle packet(av_packet_alloc());
    if (!input || !packet || av_read_frame(input.get(), packet.get()) < 0)
        return true; // as it should be
    const qint64 readMs = av_rescale_q(packet->pts, input->streams[0]->time_base, milliseconds);
    const qint64 primingMs = av_rescale_q(encoder.initial_padding, {1, encoder.sample_rate}, milliseconds);
    return 2 * (blockMs - readMs) < 3 * primingMs; // once, not twice
}

#include "packetwriting.h"

#include <algorithm>

int writePacket(AVPacket& packet, const AVCodecContext& encoder, AVFormatContext& container, const AVStream& stream,
    int64_t missingDuration, int64_t& wholeBytes)
{
    packet.stream_index = stream.index;
    av_packet_rescale_ts(&packet, encoder.time_base, stream.time_base);
    if (packet.duration < 1)
        packet.duration = std::max<int64_t>(av_rescale_q(missingDuration, encoder.time_base, stream.time_base), 1);
    const int status = av_interleaved_write_frame(&container, &packet);
    if (container.pb) {
        avio_flush(container.pb);
        if (container.pb->error >= 0)
            wholeBytes = avio_tell(container.pb);
    }
    av_packet_unref(&packet);
    return status;
}

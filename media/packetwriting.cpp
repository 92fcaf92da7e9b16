// One encoded packet on its way into the file, whatever stream it belongs to, and what becomes of a file that takes
// nothing for a while.
#include "packetwriting.h"

#include "outputfile.h"

#include <algorithm>

namespace {

/// What FFmpeg has taken goes to the file. FFmpeg drops everything after a write that failed, and a part of something
/// lies in the file: it is cut off at once, since the process may end at any time, and what follows is tried in its
/// stead.
int settle(AVFormatContext& container, int status, WrittenBytes& written)
{
    if (!container.pb)
        return status;
    avio_flush(container.pb);
    const int error = container.pb->error;
    if (error >= 0) {
        written.whole = avio_tell(container.pb);
        return status;
    }
    written.someLost = true;
    written.whole = std::max(written.whole, outputfile::lastFragmentStart(container)); // one call may write several
    outputfile::returnTo(container, written.whole);
    return status < 0 ? status : error;
}

}

int beginContainer(AVFormatContext& container, AVDictionary** options, WrittenBytes& written)
{
    container.flush_packets = 1;
    return settle(container, avformat_write_header(&container, options), written);
}

int writePacket(AVPacket& packet, const AVCodecContext& encoder, AVFormatContext& container, const AVStream& stream,
    int64_t missingDuration, WrittenBytes& written)
{
    packet.stream_index = stream.index;
    av_packet_rescale_ts(&packet, encoder.time_base, stream.time_base);
    if (packet.duration < 1)
        packet.duration = std::max<int64_t>(av_rescale_q(missingDuration, encoder.time_base, stream.time_base), 1);
    const int size = packet.size;
    const int status = settle(container, av_interleaved_write_frame(&container, &packet), written);
    av_packet_unref(&packet);
    written.inPackets += status < 0 ? 0 : size;
    return status;
}

int writeGathered(AVFormatContext& container, WrittenBytes& written)
{
    int status = av_interleaved_write_frame(&container, nullptr);
    // The first time an MP4's muxer may write no more than what is left of the header.
    for (int times = 0; times < 2 && status >= 0; ++times)
        status = av_write_frame(&container, nullptr);
    return settle(container, std::min(status, 0), written);
}

int finishContainer(AVFormatContext& container, WrittenBytes& written)
{
    return settle(container, av_write_trailer(&container), written);
}

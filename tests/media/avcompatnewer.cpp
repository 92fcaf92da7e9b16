// media/avcompat.h for libavcodec 61.13.100, with the names that came with it. FFmpeg's headers are read first, under
// their own names.
#include "avcompatversions.h"

namespace {

InventedQuery query;

int inventedQuery(const AVCodecContext* context, const InventedCodec* codec, int config, unsigned flags,
    const void** formats, int* count)
{
    query = {context, config, flags};
    *formats = codec->queried;
    *count = codec->queriedCount;
    return codec->queryStatus;
}

}

#undef LIBAVCODEC_VERSION_INT
#define LIBAVCODEC_VERSION_INT AV_VERSION_INT(61, 13, 100)
#define AVCodec InventedCodec
#define AV_CODEC_CONFIG_PIX_FORMAT inventedPixelFormatConfig
#define AV_CODEC_CONFIG_SAMPLE_RATE inventedSampleRateConfig
#define AV_CODEC_CONFIG_SAMPLE_FORMAT inventedSampleFormatConfig
#define avcodec_get_supported_config inventedQuery
#define avcompat avcompatNewer
#include "avcompat.h"

Invented<AVPixelFormat> pixelFormatsSinceTheChange(const InventedCodec* codec)
{
    return avcompatNewer::pixelFormats(codec);
}

Invented<AVSampleFormat> sampleFormatsSinceTheChange(const InventedCodec* codec)
{
    return avcompatNewer::sampleFormats(codec);
}

Invented<int> sampleRatesSinceTheChange(const InventedCodec* codec)
{
    return avcompatNewer::sampleRates(codec);
}

InventedQuery lastQuery()
{
    return query;
}

// media/avcompat.h for libavcodec 61.12.100. FFmpeg's headers are read first, under their own names.
#include "avcompatversions.h"

#undef LIBAVCODEC_VERSION_INT
#define LIBAVCODEC_VERSION_INT AV_VERSION_INT(61, 12, 100)
#define AVCodec InventedCodec
#define avcompat avcompatOlder
#include "avcompat.h"

Invented<AVPixelFormat> pixelFormatsBeforeTheChange(const InventedCodec* codec)
{
    return avcompatOlder::pixelFormats(codec);
}

Invented<AVSampleFormat> sampleFormatsBeforeTheChange(const InventedCodec* codec)
{
    return avcompatOlder::sampleFormats(codec);
}

Invented<int> sampleRatesBeforeTheChange(const InventedCodec* codec)
{
    return avcompatOlder::sampleRates(codec);
}

// FrameConverter: decoded frames as QImage, in the colours that their tags say.
#include "frameconverter.h"

extern "C" {
#include <libavutil/error.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <cerrno>

namespace {

struct SwsDeleter {
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};
using SwsHandle = std::unique_ptr<SwsContext, SwsDeleter>;

/// What a scaler is made for.
struct Key {
    int width;
    int height;
    int format;
    AVColorSpace matrix;
    bool fullRange;

    bool operator==(const Key&) const = default;
};

/// Full chroma interpolation and accurate rounding: the reader is to add no error of its own to what it
/// measures.
SwsHandle makeScaler(const Key& key)
{
    SwsHandle scaler(sws_getContext(key.width, key.height, AVPixelFormat(key.format), key.width, key.height,
        AV_PIX_FMT_RGB32, SWS_BICUBIC | SWS_FULL_CHR_H_INT | SWS_ACCURATE_RND, nullptr, nullptr, nullptr));
    if (!scaler)
        return nullptr;
    // The result says whether the formats have such details at all; from RGB to RGB there are none to set.
    sws_setColorspaceDetails(scaler.get(), sws_getCoefficients(key.matrix), key.fullRange,
        sws_getCoefficients(SWS_CS_DEFAULT), 1, 0, 1 << 16, 1 << 16);
    return scaler;
}

}

struct FrameConverter::Scaler {
    Key key;
    SwsHandle context;
};

FrameConverter::FrameConverter() = default;
FrameConverter::~FrameConverter() = default;

int FrameConverter::convert(const AVFrame& frame, AVColorSpace streamMatrix, AVColorRange streamRange, QImage& image)
{
    const AVPixFmtDescriptor* const descriptor = av_pix_fmt_desc_get(AVPixelFormat(frame.format));
    if (!descriptor)
        return AVERROR(EINVAL);
    const bool rgb = descriptor->flags & AV_PIX_FMT_FLAG_RGB;
    AVColorSpace matrix = frame.colorspace != AVCOL_SPC_UNSPECIFIED ? frame.colorspace : streamMatrix;
    const AVColorRange range = frame.color_range != AVCOL_RANGE_UNSPECIFIED ? frame.color_range : streamRange;
    coloursTagged_ = rgb || (matrix != AVCOL_SPC_UNSPECIFIED && range != AVCOL_RANGE_UNSPECIFIED);
    if (matrix == AVCOL_SPC_UNSPECIFIED)
        matrix = AVCOL_SPC_SMPTE170M;

    const Key key{frame.width, frame.height, frame.format, matrix, rgb || range == AVCOL_RANGE_JPEG};
    if (!scaler_ || scaler_->key != key) {
        scaler_ = std::make_unique<Scaler>(Scaler{key, makeScaler(key)});
        if (!scaler_->context) {
            scaler_.reset();
            return AVERROR(EINVAL);
        }
    }

    const QSize size(frame.width, frame.height);
    if (image.size() != size || image.format() != QImage::Format_RGB32 || !image.isDetached())
        image = QImage(size, QImage::Format_RGB32);
    if (image.isNull())
        return AVERROR(ENOMEM);
    quint8* const planes[4] = {image.bits(), nullptr, nullptr, nullptr};
    const int strides[4] = {int(image.bytesPerLine()), 0, 0, 0};
    const int rows = sws_scale(scaler_->context.get(), frame.data, frame.linesize, 0, frame.height, planes, strides);
    return rows == frame.height ? 0 : (rows < 0 ? rows : AVERROR_EXTERNAL);
}

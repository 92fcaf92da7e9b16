// The file can be another person's: only the formats that recordings have are tried, and only files are read.
#include "inputfile.h"

#include <QFile>

#include <array>

QString avStatusText(int status)
{
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(status, text.data(), text.size());
    return QString::fromLocal8Bit(text.data());
}

InputHandle openInput(const QString& path, QString* error)
{
    av_log_set_level(AV_LOG_QUIET); // what is wrong is told by the one who asked
    AvOptions options;
    options.set("format_whitelist", "mov,mp4,m4a,3gp,3g2,mj2,matroska,webm");
    options.set("protocol_whitelist", "file");
    AVFormatContext* context = nullptr;
    // The prefix keeps names that look like addresses from being taken for such.
    int status
        = avformat_open_input(&context, ("file:" + QFile::encodeName(path)).constData(), nullptr, options.out());
    const bool isOtherFormat = status == AVERROR(EINVAL);
    InputHandle result(status < 0 ? nullptr : context);
    if (result)
        status = avformat_find_stream_info(result.get(), nullptr);
    if (status >= 0)
        return result;
    *error = isOtherFormat ? QStringLiteral("it is no MP4 or Matroska file") : avStatusText(status);
    return nullptr;
}

AvCodecContextHandle openDecoder(const AVStream& stream)
{
    const AVCodec* codec = avcodec_find_decoder(stream.codecpar->codec_id);
    AvCodecContextHandle decoder(codec ? avcodec_alloc_context3(codec) : nullptr);
    if (!decoder || avcodec_parameters_to_context(decoder.get(), stream.codecpar) < 0)
        return nullptr;
    decoder->pkt_timebase = stream.time_base;
    return avcodec_open2(decoder.get(), codec, nullptr) < 0 ? nullptr : std::move(decoder);
}

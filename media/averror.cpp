#include "averror.h"

extern "C" {
#include <libavutil/error.h>
}

#include <array>

QString avErrorString(int errnum)
{
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{}; // 64 bytes
    av_strerror(errnum, text.data(), text.size());
    return QString::fromLocal8Bit(text.data(), qsizetype(qstrnlen(text.data(), text.size())));
}

#include "ffmpeglog.h"

#include "stderrlines.h"

#include <QByteArray>

#include <array>
#include <cstdarg>
#include <cstring>

extern "C" {
#include <libavutil/log.h>
}

namespace {

/// On any thread of FFmpeg's.
void tell(void* object, int level, const char* format, va_list values)
{
    if (level > av_log_get_level())
        return;
    thread_local int isAtLineStart = 1;
    std::array<char, 1024> text{};
    av_log_format_line2(object, level, format, values, text.data(), int(text.size()), &isAtLineStart);
    stderrlines::writeBeside(QByteArray::fromRawData(text.data(), qsizetype(std::strlen(text.data()))));
}

}

void ffmpeglog::tellErrors()
{
    av_log_set_level(AV_LOG_ERROR); // what encoders tell beyond errors is no business of the launcher's
    av_log_set_callback(tell);
}

// encoderfloor: what the video encoder alone costs. Gives the encoder, opened as the recorder opens it, the frames
// of a recorded truth window, already converted to its own pixel format, and counts the processor time of encoding
// and of nothing else: no capture, no composition, no conversion, no file. Prints JSON.
#include "benchrecorder.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QRegularExpression>

#include <cstdio>
#include <ctime>
#include <optional>

namespace {

/// Processor time of all threads of this process, milliseconds.
double processorMs()
{
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return double(time.tv_sec) * 1e3 + double(time.tv_nsec) / 1e6;
}

/// What encoding took, and the settings that another recorder needs to encode alike.
struct Cost {
    double milliseconds = 0.0; ///< of processor time
    qint64 bytes = 0; ///< of packets
    QJsonObject settings;
};

/// Sends a frame (null: the end) and takes every packet that is ready. False when the encoder fails.
bool encode(AVCodecContext* encoder, const AVFrame* frame, AVPacket* packet, Cost& cost)
{
    const double before = processorMs();
    int status = avcodec_send_frame(encoder, frame);
    while (status >= 0) {
        status = avcodec_receive_packet(encoder, packet);
        if (status >= 0) {
            cost.bytes += packet->size;
            av_packet_unref(packet);
        }
    }
    cost.milliseconds += processorMs() - before;
    return status == AVERROR(EAGAIN) || status == AVERROR_EOF;
}

QJsonObject settingsOf(const AVCodecContext& encoder)
{
    return {
        {QStringLiteral("encoder"), QString::fromLatin1(encoder.codec->name)},
        {QStringLiteral("bitRate"), qint64(encoder.bit_rate)},
        {QStringLiteral("maxRate"), qint64(encoder.rc_max_rate)},
        {QStringLiteral("bufferSize"), encoder.rc_buffer_size},
        {QStringLiteral("gopSize"), encoder.gop_size},
        {QStringLiteral("threads"), encoder.thread_count},
        {QStringLiteral("pixelFormat"), QString::fromLatin1(av_get_pix_fmt_name(encoder.pix_fmt))},
    };
}

std::optional<Cost> measure(
    QSize size, int frameCount, int repaintsPerSecond, std::optional<truthscene::Presented> presented)
{
    BenchRecorder recorder(size);
    RecorderProbe& probe = recorder.probe();
    const AvPacketHandle packet(av_packet_alloc());
    if (!packet || !recorder.openOutput())
        return std::nullopt;
    WindowImages frames(size, repaintsPerSecond, presented);
    Cost cost;
    cost.settings = settingsOf(*probe.videoCodecContext());
    for (int i = 0; i < frameCount; ++i) {
        if (av_frame_make_writable(probe.videoFrame()) < 0 || !probe.transferPixels(frames.at(i)))
            return std::nullopt;
        probe.videoFrame()->pts = frameTimeMs(i);
        if (!encode(probe.videoCodecContext(), probe.videoFrame(), packet.get(), cost))
            return std::nullopt;
    }
    if (!encode(probe.videoCodecContext(), nullptr, packet.get(), cost))
        return std::nullopt;
    return cost;
}

}

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false\n*.warning=false")); // no audio: known
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Measures the processor time of the video encoder alone."));
    parser.addHelpOption();
    parser.addOptions({
        {QStringLiteral("size"), QStringLiteral("Size of window and canvas, pixels."), QStringLiteral("WxH"),
            QStringLiteral("1920x1080")},
        {QStringLiteral("frames"), QStringLiteral("Frames to encode."), QStringLiteral("N"), QStringLiteral("244")},
        {QStringLiteral("fps"), QStringLiteral("Repaints of the window a second; 0: it never changes."),
            QStringLiteral("N"), QStringLiteral("60")},
        {QStringLiteral("present"),
            QStringLiteral("What a painting changes: unchanged, quarter or all; else a band."),
            QStringLiteral("WHAT")},
    });
    parser.process(application);
    const QRegularExpressionMatch size
        = QRegularExpression(QStringLiteral("^(\\d+)x(\\d+)$")).match(parser.value(QStringLiteral("size")));
    const int frameCount = parser.value(QStringLiteral("frames")).toInt();
    bool fpsRight = false;
    const int fps = parser.value(QStringLiteral("fps")).toInt(&fpsRight);
    const auto presented = truthscene::presented(parser.value(QStringLiteral("present")));
    if (!size.hasMatch() || frameCount < 1 || presented.has_value() != parser.isSet(QStringLiteral("present"))
        || !fpsRight || fps < 0) {
        std::fputs(qUtf8Printable(parser.helpText()), stderr);
        return 2;
    }

    const auto cost = measure(QSize(size.captured(1).toInt(), size.captured(2).toInt()), frameCount, fps, presented);
    if (!cost)
        return 1;
    const double seconds = double(frameTimeMs(frameCount)) / 1000.0;
    const QJsonObject result{
        {QStringLiteral("cpuMsPerSecond"), cost->milliseconds / seconds},
        {QStringLiteral("bytesPerSecond"), double(cost->bytes) / seconds},
        {QStringLiteral("frames"), frameCount},
        {QStringLiteral("settings"), cost->settings},
        {QStringLiteral("qtVersion"), QString::fromLatin1(qVersion())},
        {QStringLiteral("ffmpegVersion"), QString::fromLatin1(av_version_info())},
    };
    std::fputs(QJsonDocument(result).toJson().constData(), stdout);
    return 0;
}

// The file's audio stream: capture, encoder, resampler, sample queue, stream. Worker thread. What fails here is
// logged and costs the audio, not the recording; but FFmpeg writes no header for a stream without parameters.
#include "gstrecorder.h"

#include "audioencoderchoice.h"
#include "avcompat.h"
#include "averror.h"
#include "recorderaudiocapture.h"

#include <QDebug>

#include <algorithm>
#include <utility>

namespace {

const AVCodec* findEncoder(const QString& containerName)
{
    for (const char* name : audioencoderchoice::candidates(containerName)) {
        if (const AVCodec* codec = avcodec_find_encoder_by_name(name))
            return codec;
    }
    return nullptr;
}

/// A context with its settings for the capture's audio, not yet open. Null when there is no memory.
AvCodecContextHandle configuredEncoder(
    const AVCodec* codec, const RecorderAudioCapture& capture, const AVFormatContext& container)
{
    AvCodecContextHandle context(avcodec_alloc_context3(codec));
    if (!context)
        return nullptr;
    const QString name = QString::fromLatin1(codec->name);
    context->codec_type = AVMEDIA_TYPE_AUDIO;
    context->codec_id = codec->id;
    context->sample_rate = audioencoderchoice::sampleRate(name, capture.sampleRate(), avcompat::sampleRates(codec));
    context->sample_fmt = audioencoderchoice::sampleFormat(avcompat::sampleFormats(codec));
    context->time_base = AVRational{1, context->sample_rate};
    context->bit_rate = audioencoderchoice::bitRate(name);
    AvChannelLayout layout(audioencoderchoice::channelCount(capture.channelCount()));
    if (av_channel_layout_copy(&context->ch_layout, layout.get()) < 0)
        return nullptr;
    if (container.oformat->flags & AVFMT_GLOBALHEADER)
        context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    return context;
}

/// False after a line in the log.
bool openEncoder(AVCodecContext& context, const AVCodec* codec)
{
    const QString name = QString::fromLatin1(codec->name);
    AvOptions options;
    for (const audioencoderchoice::Option& option : audioencoderchoice::options(name))
        options.set(option.key, option.value);
    const int status = avcodec_open2(&context, codec, options.out());
    if (status < 0) {
        qWarning() << "Unable to open FFmpeg audio encoder" << name << ":" << avErrorString(status)
                   << "- continuing without audio.";
    }
    return status >= 0;
}

/// From the capture's audio to the encoder's. Null after a line in the log.
AvResamplerHandle openResampler(const RecorderAudioCapture& capture, AVCodecContext& encoder)
{
    AvChannelLayout input(capture.channelCount());
    SwrContext* allocated = nullptr;
    int status = swr_alloc_set_opts2(&allocated, &encoder.ch_layout, encoder.sample_fmt, encoder.sample_rate,
        input.get(), AVSampleFormat(capture.sampleFormat()), capture.sampleRate(), 0, nullptr);
    AvResamplerHandle resampler(allocated);
    if (status < 0 || !resampler) {
        qWarning() << "Unable to allocate FFmpeg audio resampler:" << avErrorString(status)
                   << "- continuing without audio.";
        return nullptr;
    }
    status = swr_init(resampler.get());
    if (status < 0) {
        qWarning() << "Unable to initialize FFmpeg audio resampler:" << avErrorString(status)
                   << "- continuing without audio.";
        return nullptr;
    }
    return resampler;
}

/// Room for a few frames; it grows.
AvAudioFifoHandle allocateFifo(const AVCodecContext& encoder)
{
    const int capacity = std::max(4 * encoder.frame_size, 1024);
    return AvAudioFifoHandle(av_audio_fifo_alloc(encoder.sample_fmt, encoder.ch_layout.nb_channels, capacity));
}

}

bool GstRecorder::openAudioOutput()
{
    audioCapture = std::make_unique<RecorderAudioCapture>(audioSource);
    if (!audioCapture->isValid()) {
        qWarning() << "Continuing video recording without audio.";
        audioCapture.reset();
        return false;
    }
    AvCodecContextHandle encoder = openAudioEncoder();
    if (!encoder || !createAudioStream(*encoder)) {
        audioCapture.reset(); // nobody will read it: its stream ends here
        return false;
    }

    audioStream->time_base = encoder->time_base;
    const int status = avcodec_parameters_from_context(audioStream->codecpar, encoder.get());
    if (status < 0) {
        // The stream cannot be taken back from the container. The muxer decides what becomes of it; the rest waits
        // for closeOutput() as after any other opening that stops half way.
        qCritical() << "Unable to copy FFmpeg audio codec parameters:" << avErrorString(status);
        return false;
    }
    audioCodecContext = encoder.release();
    audioEncoderName = QString::fromLatin1(audioCodecContext->codec->name);
    qDebug() << "FFmpeg recorder using audio encoder" << audioEncoderName << "sample rate"
             << audioCodecContext->sample_rate << "channels" << audioCodecContext->ch_layout.nb_channels
             << "sample format" << av_get_sample_fmt_name(audioCodecContext->sample_fmt);
    return true;
}

/// The opened encoder for the capture's audio. Null after a line in the log.
AvCodecContextHandle GstRecorder::openAudioEncoder() const
{
    const QString containerName = QString::fromLatin1(formatContext->oformat->name);
    const AVCodec* codec = findEncoder(containerName);
    if (!codec) {
        qWarning() << "No FFmpeg audio encoder is available for" << containerName << "; continuing without audio.";
        return nullptr;
    }
    AvCodecContextHandle encoder = configuredEncoder(codec, *audioCapture, *formatContext);
    if (!encoder) {
        qWarning() << "Unable to allocate FFmpeg audio codec context; continuing without audio.";
        return nullptr;
    }
    return openEncoder(*encoder, codec) ? std::move(encoder) : nullptr;
}

/// The stream and what leads to it: the resampler and the queue. All three are members on success, none after a
/// failure, which is logged.
bool GstRecorder::createAudioStream(AVCodecContext& encoder)
{
    AvResamplerHandle resampler = openResampler(*audioCapture, encoder);
    if (!resampler)
        return false;
    AvAudioFifoHandle fifo = allocateFifo(encoder);
    if (!fifo) {
        qWarning() << "Unable to allocate FFmpeg audio FIFO; continuing without audio.";
        return false;
    }
    audioStream = avformat_new_stream(formatContext, nullptr);
    if (!audioStream) {
        qWarning() << "Unable to create FFmpeg audio stream; continuing without audio.";
        return false;
    }
    audioResampler = resampler.release();
    audioFifo = fifo.release();
    return true;
}

/// For a capture that does not start: video need not wait for audio that will not come. The stream stays in the
/// file, empty.
void GstRecorder::abandonAudio()
{
    audioCapture.reset();
    formatContext->max_interleave_delta = 1; // microseconds
}

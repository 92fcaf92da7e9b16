// FFmpeg's calls under the test's control: the executable links this file's functions in their place
// (FFMPEG_CALLS in CMakeLists.txt), and each one goes on to FFmpeg unless the test told it to fail.
#pragma once

#include "avhandles.h"

#include <QByteArray>
#include <QSet>

#include <functional>

namespace ffmpegfaults {

enum class Call {
    AllocOutputContext,
    FindEncoderByName,
    FindEncoderById,
    AllocCodecContext,
    OpenCodec,
    NewStream,
    CopyParameters,
    OpenFile, ///< the C library's open(), of a file that may be made
    CloseFile, ///< its close(), of whatever; it is closed all the same
    AllocFileContext,
    WriteHeader,
    AllocFrame,
    GetFrameBuffer,
    GetConverter,
    Convert,
    MakeWritable,
    CopyProperties,
    CloneFrame,
    SendFrame,
    ReceivePacket,
    AllocPacket,
    WritePacket, ///< also the call that has the muxer write what it gathers
    WriteGathered, ///< by av_write_frame()
    FlushFile, ///< what was to be written is lost, and the file's context says why
    WriteTrailer,
    AllocMemory,
    SetDictionary,
    SetOption, ///< by av_opt_set() or av_opt_set_int()
    AllocResampler,
    InitResampler,
    AllocFifo,
    GrowFifo,
    WriteFifo,
    ReadFifo,
    AllocSamples,
    SetSilence,
    Resample,
    CopyLayout,
    Last = CopyLayout
};

/// Back to FFmpeg as it is, and all counters to 0.
void reset();

/// The nth call from now on (1: the next one) fails with the status; with failFrom() so do all after it.
/// What gives a pointer gives null instead. Status 0 makes AllocOutputContext and AllocResampler succeed without a
/// result; of WriteFifo and ReadFifo it is the number of samples.
void failOnce(Call call, int status, int nth = 1);
void failFrom(Call call, int status, int nth = 1);
/// Stops failing and keeps the counter.
void heal(Call call);

/// How often the call was made since the start or reset(), failures included. Calls may come from several threads.
int calls(Call call);

/// What else can be other than it is. Set it before the call.
struct Surroundings {
    QSet<QByteArray> hiddenEncoders; ///< names that this FFmpeg does not know
    QByteArray replacedEncoder; ///< the name that finds this one instead
    const AVCodec* replacement = nullptr;
    const char* muxer = nullptr; ///< the muxer that every container gets, null: the one asked for
    bool hardwareFormatsOnly = false; ///< every pixel format counts as a hardware format
    QByteArray errorText; ///< FFmpeg's text for every status, copied without its end when it does not fit
    bool noMemoryForErrorText = false; ///< for the next one
    int processors = 0; ///< what QThread::idealThreadCount() answers, 0: the real number

    /// A muxer's option for which FFmpeg has no memory, which it does not tell.
    QByteArray lostMuxerOption;

    /// Called with what FFmpeg is about to get.
    std::function<void(const AVCodecContext&, const AVDictionary*)> atOpenCodec;
    std::function<void(const AVFormatContext&, const AVDictionary*)> atWriteHeader;
    std::function<void(const AVPacket&)> atWritePacket;
    std::function<void(int samples)> atAllocSamples;
    std::function<void()> atSendFrame; ///< on the encoder's thread
    /// Called with what FFmpeg gave; it may be changed.
    std::function<void(AVPacket&)> afterReceivePacket;
};
Surroundings& surroundings();

}

// The warnings and critical lines of the recorder's log in plain words. The texts on the left are those of the log,
// up to the first value in them.
#include "explanation.h"

#include "logtext.h"
#include "plaintext.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace {

using Meaning = Explanation::Meaning;

struct Entry {
    std::string_view start; ///< of the text in the log
    Meaning meaning;
    const char* sentence; ///< null: another line tells the same better
};

constexpr const char* noWindowImage
    = "the window gives no image at the moment; is it closed, minimised or on another "
      "desktop? Frames are missing until it is shown again";
constexpr const char* noCapture
    = "windows cannot be captured here; on X11 check DISPLAY, on a Mac the permission to record the screen";
constexpr const char* noOutput
    = "the output file cannot be written; check the directory, its permissions and the room "
      "on the disk";
constexpr const char* noEncoder
    = "FFmpeg has no encoder that takes this video; choose a smaller --canvas, or install "
      "FFmpeg with its encoders";
constexpr const char* notWritten
    = "parts of the recording cannot be written; make room on the disk. What could not be "
      "written is missing in the file";
constexpr const char* notEncoded = "frames could not be encoded, and are missing in the file";
constexpr const char* noAudio
    = "there is no audio: the audio server cannot be reached, or does not hand out this audio. "
      "Start it (on Linux PipeWire), or record with --audio none";
constexpr const char* noAudioEncoder
    = "there is no audio: FFmpeg cannot encode it; install FFmpeg with its encoders, or record with --audio none";
constexpr const char* noApplication = "the process whose audio was wanted is not there, is another user's, or, on a "
                                      "Mac, is no application; check its number, or take --audio system";
constexpr const char* audioHoles = "parts of the audio are missing in the file; where they are missing it is silent";
constexpr const char* fallback
    = "FFmpeg has no usable encoder for MP4; the recording is lossless, large, and ends in .mkv";

/// The first one that fits counts.
constexpr auto entries = std::to_array<Entry>({
    {"macOS CoreGraphics capture returned no image for window", Meaning::NoImage, noWindowImage},
    {"macOS CoreGraphics capture received an empty window id.", Meaning::NoRecording, noCapture},
    {"macOS screen recording permission is not currently granted", Meaning::Remark,
        "the system asks for the permission to record the screen; grant it"},
    {"macOS screen recording permission was not granted", Meaning::NoRecording, noCapture},
    {"macOS CoreGraphics window capture setup failed.", Meaning::NoRecording, noCapture},
    {"Captured window has shown nothing but transparent images", Meaning::Remark,
        "nothing of the window can be seen so far; on a Mac, has the system asked again whether the screen may be "
        "recorded? Answer it, or see System Settings, Privacy & Security"},
    {"macOS window capture is not available.", Meaning::NoRecording, noCapture},
    {"PipeWire is not there for the capture of windows", Meaning::NoRecording,
        "PipeWire, which hands out windows of Wayland, cannot be reached; is it running? Is ORVANTIS_PIPEWIRE_FD "
        "right?"},
    {"Window argument is not a PipeWire node of video", Meaning::NoRecording,
        "no window has that node id in PipeWire; ask the desktop's portal for the window again, and hand over its "
        "node"},
    {"PipeWire gives no frame of the window yet", Meaning::Remark,
        "PipeWire hands out no frame of the window; a session manager (WirePlumber) is needed, and a desktop that "
        "has images in memory"},
    {"Window's PipeWire stream has ended", Meaning::WindowGone,
        "the desktop has ended the stream of the window; was it closed, or the sharing stopped? No frames come any "
        "more"},
    {"ORVANTIS_WINDOW_SOURCE has a value", Meaning::NoRecording,
        "ORVANTIS_WINDOW_SOURCE is neither x11 nor pipewire"},
    {"Window capture was interrupted by an exception", Meaning::VideoHarmed,
        "the recorder ran out of memory; frames are missing"},
    {"macOS recorder uses CoreGraphics window capture", Meaning::Remark, nullptr},

    {"Unable to open video output file", Meaning::NoRecording, noOutput},
    {"Unable to write FFmpeg output header", Meaning::NoRecording, noOutput},
    {"Recorder does not write to the file that is there", Meaning::NoRecording, noOutput},
    {"Unable to allocate FFmpeg output context", Meaning::NoRecording, noEncoder},
    {"Unable to allocate FFmpeg fallback", Meaning::NoRecording, noEncoder},
    {"No preferred video encoder opened", Meaning::NoRecording, noEncoder},
    {"Unable to open FFmpeg FFV1 fallback encoder", Meaning::NoRecording, noEncoder},
    {"Unable to create FFmpeg video stream", Meaning::NoRecording, noEncoder},
    {"Unable to copy FFmpeg codec parameters", Meaning::NoRecording, noEncoder},
    {"Unable to allocate FFmpeg video frame", Meaning::NoRecording, noEncoder},
    {"Unable to create FFmpeg pixel conversion context", Meaning::NoRecording, noEncoder},
    {"Recording with FFV1 fallback", Meaning::Remark, fallback},
    {"Skipping forbidden video encoder", Meaning::Remark, nullptr},
    {"Skipping video encoder", Meaning::Remark, nullptr},
    {"Unable to allocate codec context for", Meaning::Remark, nullptr},
    {"Unable to open video encoder", Meaning::Remark, nullptr},

    {"Unable to write FFmpeg packet", Meaning::VideoHarmed, notWritten},
    {"Unable to write flushed FFmpeg packet", Meaning::VideoHarmed, notWritten},
    {"Unable to write FFmpeg output trailer", Meaning::VideoHarmed, notWritten},
    {"FFmpeg output is smaller than its packets", Meaning::VideoHarmed,
        "the recorder ran out of memory; parts of the recording are missing in the file"},
    {"Skipping frame with unexpected size", Meaning::VideoHarmed, notEncoded},
    {"FFmpeg frame is not writable", Meaning::VideoHarmed, notEncoded},
    {"FFmpeg pixel conversion context is unavailable", Meaning::VideoHarmed, notEncoded},
    {"Unable to convert FFmpeg video frame", Meaning::VideoHarmed, notEncoded},
    {"Unable to send FFmpeg video frame", Meaning::VideoHarmed, notEncoded},
    {"Unable to receive FFmpeg packet", Meaning::VideoHarmed, notEncoded},
    {"Unable to flush FFmpeg encoder", Meaning::VideoHarmed, notEncoded},
    {"Unable to receive flushed FFmpeg packet", Meaning::VideoHarmed, notEncoded},
    {"recorder worker did not end in time", Meaning::VideoHarmed,
        "the file could not be finished, as the disk does not answer"},
    {"Recorder worker still writes the output", Meaning::Remark,
        "the disk or the processor is too slow for this canvas; the file takes longer to finish"},
    {"Recorder worker was interrupted by an exception", Meaning::VideoHarmed,
        "the recorder ran out of memory; choose a smaller --canvas, or end other programs"},

    {"Recorder was interrupted by an exception", Meaning::VideoHarmed,
        "the recorder ran out of memory and has ended early; end other programs, or choose a smaller --canvas"},

    {"macOS app-only audio capture received an invalid", Meaning::AudioHarmed, noApplication},
    {"macOS ScreenCaptureKit could not find requested app", Meaning::AudioHarmed, noApplication},
    {"macOS ScreenCaptureKit app-only audio filter", Meaning::AudioHarmed, noApplication},
    {"macOS ScreenCaptureKit audio sample", Meaning::AudioHarmed, audioHoles},
    {"macOS ScreenCaptureKit audio stream stopped", Meaning::AudioHarmed,
        "the audio has stopped, as the audio server has gone; the rest of the recording is silent"},
    {"macOS ScreenCaptureKit audio capture stop error", Meaning::Remark, nullptr},
    {"macOS ScreenCaptureKit", Meaning::AudioHarmed, noAudio},
    {"Audio capture was interrupted by an exception", Meaning::AudioHarmed,
        "the audio has stopped, as the recorder ran out of memory; the rest of the recording is silent"},
    {"Audio capture did not start", Meaning::AudioHarmed, noAudio},
    {"Continuing video recording without audio.", Meaning::AudioHarmed, noAudio},
    {"No FFmpeg audio encoder is available", Meaning::AudioHarmed, noAudioEncoder},
    {"Unable to allocate FFmpeg audio", Meaning::AudioHarmed, noAudioEncoder},
    {"Unable to open FFmpeg audio encoder", Meaning::AudioHarmed, noAudioEncoder},
    {"Unable to initialize FFmpeg audio resampler", Meaning::AudioHarmed, noAudioEncoder},
    {"Unable to create FFmpeg audio stream", Meaning::AudioHarmed, noAudioEncoder},
    {"Unable to copy FFmpeg audio codec parameters", Meaning::AudioHarmed, noAudioEncoder},
    {"Unable to copy audio channel layout", Meaning::AudioHarmed, audioHoles},
    {"Unable to allocate converted audio samples", Meaning::AudioHarmed, audioHoles},
    {"Unable to allocate silence audio samples", Meaning::AudioHarmed, audioHoles},
    {"Unable to resample captured audio", Meaning::AudioHarmed, audioHoles},
    {"Unable to grow FFmpeg audio FIFO", Meaning::AudioHarmed, audioHoles},
    {"Unable to write all converted audio", Meaning::AudioHarmed, audioHoles},
    {"Unable to pad audio FIFO", Meaning::AudioHarmed, audioHoles},
    {"Audio clock gap is too large to pad", Meaning::AudioHarmed, audioHoles},
    {"Unable to read all requested audio", Meaning::AudioHarmed, audioHoles},
    {"Unable to send FFmpeg audio frame", Meaning::AudioHarmed, audioHoles},
    {"Unable to receive FFmpeg audio packet", Meaning::AudioHarmed, audioHoles},
    {"Unable to write FFmpeg audio packet", Meaning::AudioHarmed, audioHoles},
    {"Unable to flush FFmpeg audio encoder", Meaning::AudioHarmed, audioHoles},
    {"Unable to receive flushed audio packet", Meaning::AudioHarmed, audioHoles},
    {"Unable to write flushed audio packet", Meaning::AudioHarmed, audioHoles},

    {"Recorder composes frames early", Meaning::Remark,
        "memory is short; clicks that are reported late may not be drawn"},
    {"No memory for the image of a window", Meaning::VideoHarmed, "memory is short; frames are missing"},
    {"No memory for what pops out of a window", Meaning::VideoHarmed,
        "memory is short; menus and the like are missing in frames"},
    {"Window capture takes longer than", Meaning::VideoHarmed,
        "the system was slow to give images of the window; frames are missing"},
    {"No thread for the capture of the window", Meaning::Remark,
        "the system has too many threads; close other programs"},
    {"No thread for the recording", Meaning::NoRecording,
        "the system has too many threads; close other programs, and record again"},
    {"No memory for audio that was delivered", Meaning::AudioHarmed,
        "memory is short; pieces of the audio are missing"},
    {"Audio was not taken in time", Meaning::AudioHarmed,
        "the recorder was held up, mostly by a disk that did not answer; pieces of the audio are missing"},
    {"Output file was closed with an error", Meaning::VideoHarmed,
        "the disk or the network did not take all of the file; record to another place"},
    {"Recorder drops the mouse clicks farthest ahead", Meaning::Remark,
        "too many clicks were reported; some are lost"},
    {"Wall clock was set, or the machine slept", Meaning::Remark,
        "the clock of the machine jumped, or the machine slept; the video has no gap there, and clicks are drawn "
        "in their places"},
    {"Captured window has changed what it counts as its shadow", Meaning::Remark, nullptr},
    {"Connection to the X server was ended", Meaning::Remark,
        "the X server has ended the connection; the recorder connects again, and frames may be missing"},
    {"Unable to connect to browser recorder control socket", Meaning::Remark,
        "the recorder could not reach record-window; try again"},
    {"Browser recorder control socket belongs to another user", Meaning::Remark,
        "somebody else listens in the place of record-window; check who may write to TMPDIR"},
    {"Browser recorder control socket is closed", Meaning::Remark, nullptr},
    {"Plug-ins are not loaded from a place", Meaning::Remark,
        "other users can write to the recorder's PlugIns folder, which is therefore not used"},
    {"stderr has not taken", Meaning::Remark, nullptr},
});

}

std::optional<Explanation> Explanation::of(const QByteArray& line)
{
    const bool isCritical = line.startsWith("Critical: ");
    if (!isCritical && !line.startsWith("Warning: "))
        return std::nullopt;
    const QByteArray text = line.mid(line.indexOf(' ') + 1).trimmed();
    const auto* entry = std::find_if(entries.begin(), entries.end(),
        [&](const Entry& known) { return std::string_view(text).substr(0, known.start.size()) == known.start; });
    if (entry != entries.end() && !entry->sentence)
        return std::nullopt;
    if (entry != entries.end())
        return Explanation{entry->meaning, QString::fromUtf8(entry->sentence)};
    return Explanation{isCritical ? Meaning::VideoHarmed : Meaning::Remark,
        QStringLiteral("the recorder's log says: %1").arg(plainText(logtext::withoutPlace(text))), false};
}

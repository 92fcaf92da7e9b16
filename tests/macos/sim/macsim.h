// The simulated macOS as tests see it: what the system answers, what it was asked, and what the program did to the
// system's objects. No Objective-C and no Qt here.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace macsim {

// ---- what the system answers ------------------------------------------------------------------------------------

struct Rect {
    double x = 0.0;
    double y = 0.0;
    double width = 0.0;
    double height = 0.0;

    bool operator==(const Rect&) const = default;
};

struct Point {
    double x = 0.0;
    double y = 0.0;
};

/// A window's image: premultiplied ARGB values, row by row from the top.
struct WindowImage {
    std::size_t width = 0;
    std::size_t height = 0;
    std::vector<std::uint32_t> pixels;
    /// What the image says of its size, when that is not the truth.
    std::optional<std::pair<std::size_t, std::size_t>> claimedSize;
};

WindowImage solidImage(std::size_t width, std::size_t height, std::uint32_t premultiplied);

enum class WindowInfo {
    Whole,
    NoArray,
    EmptyArray,
    NullElement,
    NoBounds,
    MalformedBounds,
    NotOnScreen,
    OnScreenIsNotTold,
};

/// An NSError with that text; nothing in it means that the error has no text at all (nil).
using Error = std::optional<std::string>;
/// Whether there is an error.
using Outcome = std::optional<Error>;

enum class When {
    Soon, ///< on another thread
    AtOnce, ///< on the caller's thread, before the call returns
    Held, ///< when the test calls answerHeld(), or never
};

enum class Executable {
    Known,
    NoUrl,
    NoPath,
    NoSuchProcess,
};

struct Application {
    std::int32_t processId = 0;
    std::optional<std::string> bundleIdentifier; ///< nothing: nil
    std::optional<std::string> name;
    Executable executable = Executable::Known;
    std::string path;
};

/// Set it while nothing runs. The functions run on whatever thread asks.
struct Answers {
    std::vector<bool> preflight{true}; ///< one an ask, the last one repeats
    bool request = true;

    /// The window's image, by its id and the number of images that were asked for before; nothing: null.
    std::function<std::optional<WindowImage>(std::uint32_t, int)> image;
    bool noImageFunction = false; ///< the system has no CGWindowListCreateImage any more
    bool noColorSpace = false;
    bool noBitmapContext = false;
    WindowInfo windowInfo = WindowInfo::Whole;
    Rect bounds{10, 20, 40, 30};
    std::optional<Point> pointer = Point{3, 4}; ///< nothing: no event

    std::size_t displays = 1;
    std::vector<Application> applications;
    Outcome contentError;
    bool contentBesideError = false; ///< with contentError: there is content all the same
    bool noContent = false; ///< neither content nor error
    /// Called on the queue's thread before an output is called; may block.
    std::function<void()> beforeDelivery;
    /// Called on the queue's thread when the program asks for the samples of a buffer; may block.
    std::function<void()> samplesAsked;
    bool noStream = false; ///< SCStream cannot be made
    bool addOutputFails = false;
    Outcome addOutputError; ///< with addOutputFails
    Outcome startError;
    Outcome stopError;
    When content = When::Soon;
    When start = When::Soon;
    When stop = When::Soon;
    /// Whether a stream keeps its outputs alive. The documentation does not say; neither may matter.
    bool streamKeepsOutputs = false;
    /// A wait of the program ends after this time in which nothing of the system ran, whatever it asks for.
    std::chrono::milliseconds longestWait{30};

    std::optional<std::string> bundleIdentifier; ///< of the main bundle; nothing: nil
    std::optional<std::string> bundlePath;
    std::optional<std::string> executablePath;
    bool noBundle = false;
    bool noApplicationObject = false;
    std::vector<std::string> hiddenClasses; ///< objc_getClass() does not know them
    std::vector<std::string> hiddenSelectors; ///< no object says that it responds to them
    std::optional<std::uint32_t> peerUser; ///< of every local socket; nothing: the one that Linux tells of
};

Answers& answers();

/// The clocks, in nanoseconds: the one that the program waits by counts while the machine sleeps, the host's, by
/// which samples are stamped, does not. Both are the machine's until a test sets them; reset() gives them back.
void setClocks(std::int64_t steadyNs, std::int64_t hostNs);
/// Called before the host's clock is read, on the thread that reads it; may set the clocks. Set it while nothing
/// runs.
void setHostClockRead(std::function<void()> read);

// ---- what the system was asked ----------------------------------------------------------------------------------

struct ImageCall {
    bool boundsAreNull;
    std::uint32_t listOption;
    std::uint32_t windowId;
    std::uint32_t imageOption;
};

struct ContextCall {
    std::size_t width;
    std::size_t height;
    std::size_t bitsPerComponent;
    std::size_t bytesPerRow;
    std::uint32_t bitmapInfo;
};

struct InfoCall {
    std::uint32_t option;
    std::uint32_t windowId;
};

struct ContentCall {
    bool excludesDesktopWindows;
    bool onScreenWindowsOnly;
};

struct StreamMade {
    int display = -1; ///< index of the filter's display
    std::optional<std::vector<std::int32_t>> excludedApplications; ///< process ids; nothing: a filter of windows
    std::size_t windows = 0; ///< excluded or excepted ones
    std::size_t width = 0;
    std::size_t height = 0;
    std::int64_t intervalValue = 0;
    std::int32_t intervalScale = 0;
    long queueDepth = 0;
    bool showsCursor = true;
    bool capturesAudio = false;
    long sampleRate = 0;
    long channelCount = 0;
    bool excludesCurrentProcessAudio = true;
    bool hasDelegate = false;
};

struct Record {
    int preflights = 0;
    int requests = 0;
    std::vector<ImageCall> images;
    std::vector<ContextCall> contexts;
    std::vector<Rect> drawings;
    std::vector<InfoCall> infos;
    std::vector<ContentCall> contents;
    std::vector<std::int32_t> executablesAsked; ///< process ids
    std::vector<StreamMade> streams;
    std::vector<long> outputTypes; ///< of the outputs that were added
    std::vector<std::uint32_t> listFlags; ///< of each call for a buffer list
    int starts = 0;
    int stops = 0;
    std::vector<std::string> queueLabels;
    std::vector<std::int64_t> waits; ///< nanoseconds that were asked for
    std::vector<long> activationPolicies;
    std::vector<std::uint64_t> activities; ///< the options of each that was begun
};

Record record();

// ---- what the system does ---------------------------------------------------------------------------------------

/// Lets the held answers to one kind of call go, and waits until they were given. False when there was none.
enum class Call { Content, Start, Stop };
bool answerHeld(Call call);
int heldAnswers();
/// The held answers will never be given.
void forgetHeld();

/// Waits until nothing of the system runs any more.
void settle();

/// A sample buffer.
struct Audio {
    bool null = false; ///< there is no buffer at all
    bool valid = true;
    bool hasDescription = true;
    bool descriptionIsAudio = true; ///< otherwise it has no stream description
    std::uint32_t formatId = 0x6c70636d;
    std::uint32_t formatFlags = 0;
    std::uint32_t bytesPerFrame = 0;
    std::uint32_t channels = 0;
    std::uint32_t bitsPerChannel = 0;
    std::int64_t frames = 0;
    std::int64_t timeNs = 0; ///< of the first sample, on the host's clock
    std::int32_t timeScale = 1000000000; ///< in which it is told
    std::uint32_t timeFlags = 0; ///< CMTime's; 0: the time is not valid
    std::vector<std::vector<std::uint8_t>> buffers;
    std::vector<bool> nullBuffers; ///< by index: its data pointer is null

    /// Of the call that asks for the size of the buffer list. It tells the size also when it fails.
    std::int32_t sizeStatus = 0;
    std::optional<std::size_t> claimedListSize; ///< what it tells, when that is not the truth
    std::optional<std::uint32_t> claimedBuffers; ///< what the list says of its length, when that is not the truth
    std::int32_t listStatus = 0; ///< of the call that fills it
    bool blockDespiteFailure = false; ///< that call gives a block buffer, although it fails
    bool noBlock = false; ///< it gives none, although it succeeds
};

inline constexpr long screenOutput = 0;
inline constexpr long audioOutput = 1;

/// Signed 16-bit stereo.
Audio stereoAudio(const std::vector<std::int16_t>& samples);

/// Delivers to every output of every running stream, on its queue, and waits until the program has taken it. False
/// when nothing runs.
bool deliver(const Audio& audio, long type = audioOutput);
/// Every running stream ends by itself, and its delegate is told on another thread; waits for that. False when
/// nothing runs.
bool endStreams(const Outcome& error);

int runningStreams();

/// The system wants the process to end, as at a log-out: what the application's delegate answers; -1 without one.
long askToTerminate();
/// Gives the application a delegate that cancels every log-out, as Qt does, and knows one call more.
void setCancellingDelegate();
/// Makes that call to the application's delegate. False when it does not get there.
bool callDelegate();
int runningActivities();

/// Whether the program still holds an object of that class.
int live(const std::string& className);

// ---- the check --------------------------------------------------------------------------------------------------

/// Waits until nothing runs, and tells what is wrong, one line each: objects that were not released, released twice
/// or used when they were gone; streams that still run. Empty when all is right.
std::string verdict();

/// New answers, an empty record, no objects.
void reset();

}

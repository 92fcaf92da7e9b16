// The audio capture's rules: device, content, application, filter, stream, and the limits of every wait. No type of
// the system is seen here. What arrives is converted in audiosampleintake.cpp.
#include "recorderaudiocapture.h"

#include "audioselection.h"
#include "recorderaudiocapture_p.h"

#include <QDebug>
#include <QElapsedTimer>

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

namespace {

constexpr qint64 lookupLimitNs = 5000000000;
constexpr qint64 startLimitNs = 5000000000;
constexpr qint64 stopLimitNs = 2000000000;

constexpr int outputSampleRate = 48000; // hertz
constexpr int outputChannels = 2;
constexpr int outputSampleFormat = 1; // AV_SAMPLE_FMT_S16; FFmpeg's headers are not seen here

constexpr std::size_t mostCandidatesLogged = 12;

constexpr auto queueLabel = "com.orvantis.recorder.screencapturekit.audio";

/// The video that comes with the audio is never read: as small and as slow as it can be.
constexpr platform::AudioStreamConfiguration streamConfiguration{
    .width = 2,
    .height = 2,
    .minimumFrameIntervalNumerator = 1,
    .minimumFrameIntervalDenominator = 1,
    .queueDepth = 1,
    .showsCursor = false,
    .capturesAudio = true,
    .sampleRate = outputSampleRate,
    .channelCount = outputChannels,
    .excludesCurrentProcessAudio = false,
};

/// When the clock showed 0, in milliseconds of the monotonic clock.
qint64 monotonicStartMs(const QElapsedTimer& clock)
{
    using namespace std::chrono;
    constexpr int attempts = 3; // the thread may be stopped between the clocks
    nanoseconds start{};
    nanoseconds least = nanoseconds::max();
    for (int i = 0; i < attempts; ++i) {
        const nanoseconds before(clock.nsecsElapsed());
        const nanoseconds now = steady_clock::now().time_since_epoch();
        const nanoseconds took = nanoseconds(clock.nsecsElapsed()) - before;
        if (took >= least)
            continue;
        least = took;
        start = now - before - took / 2;
    }
    return duration_cast<milliseconds>(start).count();
}

/// Where a completion leaves its result. Shared by the waiting function and the completion: one that comes after the
/// wait was given up still finds it alive.
template <typename Result>
struct Pending {
    platform::Semaphore done;
    Result result{};
};

struct LookupResult {
    std::shared_ptr<const platform::AudioContent> content;
    std::optional<QString> error;
};

}

// ---- configuration ---------------------------------------------------------------------------------------------

RecorderAudioCapturePrivate::RecorderAudioCapturePrivate(const QString& deviceText)
{
    const audioselection::Device parsed = audioselection::parseDevice(deviceText);
    device = parsed.text;
    appOnly = parsed.appOnly;
    appPid = parsed.appPid;
    valid = configure();
}

bool RecorderAudioCapturePrivate::configure()
{
    if (appOnly && appPid < 1) {
        qWarning() << "macOS app-only audio capture received an invalid app-pid device:" << device;
        return false;
    }
    const auto content = lookUpContent();
    if (!content)
        return false;
    if (content->displays == 0) {
        qWarning() << "macOS ScreenCaptureKit found no capturable display for audio.";
        return false;
    }
    const auto filter = filterFor(content);
    if (!filter || !makeStream(*filter))
        return false;
    qDebug() << "macOS ScreenCaptureKit audio capture configured"
             << "requested device" << device << "app-only" << appOnly;
    return true;
}

std::shared_ptr<const platform::AudioContent> RecorderAudioCapturePrivate::lookUpContent() const
{
    const auto pending = std::make_shared<Pending<LookupResult>>();
    platform::requestAudioContent(
        true, false, [pending](std::shared_ptr<const platform::AudioContent> content, std::optional<QString> error) {
            pending->result = {std::move(content), std::move(error)};
            pending->done.signal();
        });
    if (!pending->done.wait(lookupLimitNs)) {
        qWarning() << "macOS ScreenCaptureKit shareable content lookup timed out.";
        return nullptr;
    }
    if (pending->result.error) {
        qWarning() << "macOS ScreenCaptureKit shareable content lookup failed:" << *pending->result.error;
        return nullptr;
    }
    if (!pending->result.content)
        qWarning() << "macOS ScreenCaptureKit shareable content lookup gave neither content nor an error.";
    return pending->result.content;
}

std::optional<platform::AudioFilter> RecorderAudioCapturePrivate::filterFor(
    const std::shared_ptr<const platform::AudioContent>& content) const
{
    if (appOnly)
        return applicationFilter(content);
    return platform::AudioFilter{content, 0, std::nullopt};
}

std::optional<platform::AudioFilter> RecorderAudioCapturePrivate::applicationFilter(
    const std::shared_ptr<const platform::AudioContent>& content) const
{
    const auto& applications = content->applications;
    const auto found = std::find_if(applications.begin(), applications.end(),
        [this](const platform::AudioApplication& application) { return qint64(application.processId) == appPid; });
    if (found == applications.end()) {
        logCandidates(applications);
        return std::nullopt;
    }
    const QString executable = platform::executablePath(appPid);
    const audioselection::Target target{appPid, found->bundleIdentifier, found->applicationName, executable,
        audioselection::appBundleRoot(executable)};
    auto [allowed, excluded] = audioselection::partition(target, applications, platform::executablePath);
    if (allowed.empty()) {
        qWarning() << "macOS ScreenCaptureKit app-only audio filter resolved no included applications"
                   << "pid" << appPid << "requested device" << device;
        return std::nullopt;
    }
    // What is excluded decides, not what is allowed: helpers and programs that start later are heard.
    qDebug() << "macOS ScreenCaptureKit audio limited by excluding other applications"
             << "pid" << appPid << "name" << target.name << "bundle" << target.bundle << "executable"
             << target.executable << "app bundle root" << target.bundleRoot << "allowed applications"
             << allowed.size() << "excluded applications" << excluded.size();
    return platform::AudioFilter{content, 0, std::move(excluded)};
}

void RecorderAudioCapturePrivate::logCandidates(const std::vector<platform::AudioApplication>& applications) const
{
    qWarning() << "macOS ScreenCaptureKit could not find requested app for app-only audio"
               << "pid" << appPid << "requested device" << device << "candidates" << applications.size();
    const std::size_t count = std::min(applications.size(), mostCandidatesLogged);
    for (std::size_t index = 0; index < count; ++index) {
        const platform::AudioApplication& application = applications[index];
        qDebug() << "macOS ScreenCaptureKit audio app candidate"
                 << "pid" << application.processId << "name" << application.applicationName << "bundle"
                 << application.bundleIdentifier;
    }
}

bool RecorderAudioCapturePrivate::makeStream(const platform::AudioFilter& filter)
{
    output = std::make_unique<platform::AudioOutput>(platform::AudioReceiver{
        [this](const platform::AudioSampleBuffer* buffer) { handleAudioSampleBuffer(buffer); }, handleStreamStopped});
    queue = std::make_unique<platform::AudioQueue>(queueLabel);
    stream = std::make_unique<platform::AudioStream>(filter, streamConfiguration, *output);
    std::optional<QString> error;
    if (stream->addStreamOutput(*output, *queue, &error))
        return true;
    qWarning() << "macOS ScreenCaptureKit audio output setup failed:"
               << error.value_or(QStringLiteral("unknown error"));
    stream.reset();
    output.reset();
    queue.reset();
    return false;
}

// ---- start and stop --------------------------------------------------------------------------------------------

bool RecorderAudioCapturePrivate::start()
{
    if (!valid || !stream)
        return false;
    if (started)
        return true;
    const auto pending = std::make_shared<Pending<std::optional<QString>>>();
    stream->startCapture([pending](std::optional<QString> error) {
        pending->result = std::move(error);
        pending->done.signal();
    });
    if (!pending->done.wait(startLimitNs)) {
        qWarning() << "macOS ScreenCaptureKit audio capture start timed out.";
        return false;
    }
    if (pending->result) {
        qWarning() << "macOS ScreenCaptureKit audio capture failed to start:" << *pending->result;
        return false;
    }
    started = true;
    clockStartMs.reset();
    qDebug() << "macOS ScreenCaptureKit audio capture started"
             << "sample rate" << outputSampleRate << "channels" << outputChannels;
    return true;
}

void RecorderAudioCapturePrivate::stop()
{
    if (!stream || !started)
        return;
    const auto done = std::make_shared<platform::Semaphore>();
    stream->stopCapture([done](const std::optional<QString>& error) {
        if (error)
            qWarning() << "macOS ScreenCaptureKit audio capture stop error:" << *error;
        done->signal();
    });
    done->wait(stopLimitNs); // the result is ignored: nothing more can be done about a stream that does not stop
    started = false;
}

qint64 RecorderAudioCapturePrivate::deliverUntil(qint64 monotonicMs, bool last)
{
    if (!stream || !started)
        return monotonicMs;
    const platform::AudioDelivery delivery = stream->deliverUntil(monotonicMs, last);
    if (delivery.missed && !missedLogged) {
        qWarning() << "Audio was not taken in time; some of it is left out. Told once.";
        missedLogged = true; // unless there was no memory for the line
    }
    if (delivery.outOfMemory)
        tellOfLoss();
    return delivery.untilMs;
}

RecorderAudioCapturePrivate::~RecorderAudioCapturePrivate()
{
    try {
        stop();
    } catch (const std::exception&) { // no memory; a stream that runs ends with its object, too
    }
    stream.reset(); // no callback after this
    output.reset();
    queue.reset();
}

void RecorderAudioCapturePrivate::handleStreamStopped(const std::optional<QString>& error)
{
    if (error)
        qWarning() << "macOS ScreenCaptureKit audio stream stopped:" << *error;
}

// ---- facade ----------------------------------------------------------------------------------------------------

RecorderAudioCapture::RecorderAudioCapture(const QString& device)
    : d(std::make_unique<RecorderAudioCapturePrivate>(device))
{
}

RecorderAudioCapture::RecorderAudioCapture(std::unique_ptr<RecorderAudioCapturePrivate> privateObject)
    : d(std::move(privateObject))
{
}

RecorderAudioCapture::~RecorderAudioCapture() = default;

bool RecorderAudioCapture::isValid() const
{
    return d && d->valid;
}

bool RecorderAudioCapture::start()
{
    return d && d->start();
}

void RecorderAudioCapture::stop()
{
    if (d)
        d->stop();
}

qint64 RecorderAudioCapture::deliverUntil(qint64 monotonicMs, bool last)
{
    return d ? d->deliverUntil(monotonicMs, last) : monotonicMs;
}

qint64 RecorderAudioCapture::deliverUntil(const QElapsedTimer& clock, qint64 elapsedMs, bool last)
{
    if (!d)
        return elapsedMs;
    d->clockStartMs = RecorderAudioCapturePrivate::clockStart(d->clockStartMs, monotonicStartMs(clock));
    return d->deliverUntil(*d->clockStartMs + elapsedMs, last) - *d->clockStartMs;
}

int RecorderAudioCapture::sampleRate() const
{
    return outputSampleRate;
}

int RecorderAudioCapture::channelCount() const
{
    return outputChannels;
}

int RecorderAudioCapture::sampleFormat() const
{
    return outputSampleFormat;
}

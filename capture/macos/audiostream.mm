#include "dispatchhandles.h"
#include "nativecontent.h"
#include "nstext.h"
#include "screenaudiooutput.h"
#include "screencapturekit.h"

#include <mutex>

namespace macos {

namespace {

id objectAt(NSArray* list, std::size_t index)
{
    return index < [list count] ? [list objectAtIndex:index] : nil;
}

NSArray<SCRunningApplication*>* applicationsAt(
    NSArray<SCRunningApplication*>* all, const std::vector<std::size_t>& indices)
{
    NSMutableArray<SCRunningApplication*>* chosen = [NSMutableArray array];
    for (const std::size_t index : indices) {
        if (SCRunningApplication* application = objectAt(all, index))
            [chosen addObject:application];
    }
    return chosen;
}

/// Nil when there is no such display.
Retained<SCContentFilter*> makeFilter(const Filter& filter)
{
    const auto* native = static_cast<const NativeContent*>(filter.native.get());
    SCDisplay* display = native ? objectAt(native->displays.get(), filter.display) : nil;
    if (!display)
        return {};
    if (!filter.excludedApplications) {
        return Retained<SCContentFilter*>::adopt([[SCContentFilter alloc] initWithDisplay:display
                                                                         excludingWindows:[NSArray array]]);
    }
    NSArray<SCRunningApplication*>* excluded
        = applicationsAt(native->applications.get(), *filter.excludedApplications);
    return Retained<SCContentFilter*>::adopt([[SCContentFilter alloc] initWithDisplay:display
                                                                excludingApplications:excluded
                                                                     exceptingWindows:[NSArray array]]);
}

Retained<SCStreamConfiguration*> makeConfiguration(const platform::AudioStreamConfiguration& wanted)
{
    auto made = Retained<SCStreamConfiguration*>::adopt([[SCStreamConfiguration alloc] init]);
    SCStreamConfiguration* configuration = made.get();
    [configuration setWidth:std::size_t(wanted.width)];
    [configuration setHeight:std::size_t(wanted.height)];
    [configuration setMinimumFrameInterval:CMTimeMake(wanted.minimumFrameIntervalNumerator,
                                               wanted.minimumFrameIntervalDenominator)];
    [configuration setQueueDepth:wanted.queueDepth];
    [configuration setShowsCursor:wanted.showsCursor];
    [configuration setCapturesAudio:wanted.capturesAudio];
    [configuration setSampleRate:wanted.sampleRate];
    [configuration setChannelCount:wanted.channelCount];
    [configuration setExcludesCurrentProcessAudio:wanted.excludesCurrentProcessAudio];
    return made;
}

}

/**
 * The stream and what it uses, which the system may not keep alive for it. Shared by the AudioStream and the
 * completions that the system holds: it lives until the last of them is gone, also when that comes late or never.
 */
struct AudioStream::CaptureSession {
    enum class Phase { Idle, Starting, Running, Stopping };

    ~CaptureSession();

    void enter(Phase next);
    /// The answer to a start. True when it has come too late, and the capture must be stopped.
    bool started(bool success);
    /// The answer to a stop. One that comes after the next start says nothing of that.
    void stopped();
    /// The AudioStream is gone. True when the capture must be stopped.
    bool abandon();

    static void stop(const std::shared_ptr<CaptureSession>& session, Completion completion);

    Retained<MacScreenAudioOutput*> delegate;
    Retained<MacScreenAudioOutput*> output; ///< nil until added
    Retained<dispatch_queue_t> queue; ///< nil until an output was added
    Retained<SCStream*> stream; ///< nil when the system makes none

private:
    std::mutex mutex_; ///< guards what follows
    Phase phase_ = Phase::Idle;
    bool abandoned_ = false;
};

// The system may have put samples for the objects on the queue without keeping these alive. So the last thing on the
// queue releases them. (The news of the stream's end comes elsewhere; a stream that is released must itself not call
// a delegate that it does not keep.) The stream is not released there: what it does at its end is not documented.
AudioStream::CaptureSession::~CaptureSession()
{
    stream = {};
    if (!queue)
        return;
    using Objects = std::pair<Retained<MacScreenAudioOutput*>, Retained<MacScreenAudioOutput*>>;
    auto* objects = new Objects(std::move(delegate), std::move(output));
    dispatch_async_f(queue.get(), objects, [](void* last) { delete static_cast<Objects*>(last); });
}

void AudioStream::CaptureSession::enter(Phase next)
{
    const std::lock_guard lock(mutex_);
    phase_ = next;
}

bool AudioStream::CaptureSession::started(bool success)
{
    const std::lock_guard lock(mutex_);
    if (phase_ == Phase::Stopping)
        return false;
    phase_ = success ? Phase::Running : Phase::Idle;
    return success && abandoned_;
}

void AudioStream::CaptureSession::stopped()
{
    const std::lock_guard lock(mutex_);
    if (phase_ == Phase::Stopping)
        phase_ = Phase::Idle;
}

bool AudioStream::CaptureSession::abandon()
{
    const std::lock_guard lock(mutex_);
    abandoned_ = true;
    return phase_ == Phase::Running;
}

void AudioStream::CaptureSession::stop(const std::shared_ptr<CaptureSession>& session, Completion completion)
{
    const std::shared_ptr<CaptureSession> kept = session; // a block copies values, not what references name
    kept->enter(Phase::Stopping);
    [kept->stream.get() stopCaptureWithCompletionHandler:^(NSError* error) {
        @autoreleasepool {
            kept->stopped();
            if (completion)
                completion(errorText(error));
        }
    }];
}

AudioStream::AudioStream(
    const Filter& filter, const platform::AudioStreamConfiguration& configuration, AudioOutput& delegate)
    : session_(std::make_shared<CaptureSession>())
{
    @autoreleasepool {
        const auto nativeFilter = makeFilter(filter);
        const auto nativeConfiguration = makeConfiguration(configuration);
        if (!nativeFilter || !nativeConfiguration)
            return;
        MacScreenAudioOutput* object = delegate.impl().object.get();
        session_->delegate = Retained<MacScreenAudioOutput*>::share(object);
        session_->stream = Retained<SCStream*>::adopt([[SCStream alloc] initWithFilter:nativeFilter.get()
                                                                         configuration:nativeConfiguration.get()
                                                                              delegate:object]);
    }
}

AudioStream::~AudioStream()
{
    @autoreleasepool {
        disown(session_->delegate.get());
        disown(session_->output.get());
        if (session_->abandon())
            CaptureSession::stop(session_, nullptr);
        session_.reset();
    }
}

AddResult AudioStream::addStreamOutput(AudioOutput& output, platform::AudioQueue& queue)
{
    if (!session_->stream)
        return {};
    @autoreleasepool {
        MacScreenAudioOutput* object = output.impl().object.get();
        session_->output = Retained<MacScreenAudioOutput*>::share(object);
        session_->queue = Retained<dispatch_queue_t>::share(queue.impl().queue.get());
        NSError* error = nil;
        const bool added = [session_->stream.get() addStreamOutput:object
                                                              type:SCStreamOutputTypeAudio
                                                sampleHandlerQueue:session_->queue.get()
                                                             error:&error];
        return {added, added ? std::nullopt : errorText(error)};
    }
}

void AudioStream::startCapture(Completion completion)
{
    const std::shared_ptr<CaptureSession> session = session_;
    if (!session->stream) {
        completion(std::string());
        return;
    }
    @autoreleasepool {
        session->enter(CaptureSession::Phase::Starting);
        [session->stream.get() startCaptureWithCompletionHandler:^(NSError* error) {
            @autoreleasepool {
                if (session->started(!error))
                    CaptureSession::stop(session, nullptr);
                completion(errorText(error));
            }
        }];
    }
}

void AudioStream::stopCapture(Completion completion)
{
    if (!session_->stream) {
        completion(std::string());
        return;
    }
    @autoreleasepool {
        CaptureSession::stop(session_, std::move(completion));
    }
}

}

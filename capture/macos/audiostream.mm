// Streams of audio on the Mac, as ScreenCaptureKit captures it.
#include "audiooutput.h"
#include "containment.h"
#include "dispatchhandles.h"
#include "hostclock.h"
#include "nativecontent.h"
#include "nstext.h"

#include <mutex>
#include <utility>

namespace platform {

using macos::errorText;
using macos::Retained;

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
Retained<SCContentFilter*> makeFilter(const AudioFilter& filter)
{
    const auto* native
        = filter.content ? static_cast<const macos::NativeContent*>(filter.content->native.get()) : nullptr;
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

Retained<SCStreamConfiguration*> makeConfiguration(const AudioStreamConfiguration& wanted)
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

/**
 * The stream and what it uses, which the system may not keep alive for it. Shared by the AudioStream and the
 * completions that the system holds: it lives until the last of them is gone, also when that comes late or never.
 */
struct CaptureSession {
    enum class Phase { Idle, Starting, Running, Stopping };

    ~CaptureSession();

    void enter(Phase next);
    /// The answer to a start. True when it has come too late, and the capture must be stopped.
    bool started(bool success);
    /// The answer to a stop. One that comes after the next start says nothing of that.
    void stopped();
    /// The AudioStream is gone. True when the capture must be stopped.
    bool abandon();

    static void stop(const std::shared_ptr<CaptureSession>& session, AudioCompletion completion);

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
CaptureSession::~CaptureSession()
{
    stream = {};
    if (!queue)
        return;
    using Objects = std::pair<Retained<MacScreenAudioOutput*>, Retained<MacScreenAudioOutput*>>;
    auto* objects = new Objects(std::move(delegate), std::move(output));
    dispatch_async_f(queue.get(), objects, [](void* last) { delete static_cast<Objects*>(last); });
}

void CaptureSession::enter(Phase next)
{
    const std::lock_guard lock(mutex_);
    phase_ = next;
}

bool CaptureSession::started(bool success)
{
    const std::lock_guard lock(mutex_);
    if (phase_ == Phase::Stopping)
        return false;
    phase_ = success ? Phase::Running : Phase::Idle;
    return success && abandoned_;
}

void CaptureSession::stopped()
{
    const std::lock_guard lock(mutex_);
    if (phase_ == Phase::Stopping)
        phase_ = Phase::Idle;
}

bool CaptureSession::abandon()
{
    const std::lock_guard lock(mutex_);
    abandoned_ = true;
    return phase_ == Phase::Running;
}

void CaptureSession::stop(const std::shared_ptr<CaptureSession>& session, AudioCompletion completion)
{
    const std::shared_ptr<CaptureSession> kept = session; // a block copies values, not what references name
    kept->enter(Phase::Stopping);
    [kept->stream.get() stopCaptureWithCompletionHandler:^(NSError* error) {
        @autoreleasepool {
            macos::contain([&] {
                kept->stopped();
                if (completion)
                    completion(errorText(error));
            });
        }
    }];
}

}

struct AudioStream::Impl {
    std::shared_ptr<CaptureSession> session = std::make_shared<CaptureSession>();
    AudioOutput* output = nullptr; ///< null until added
    bool started = false;
};

AudioStream::AudioStream(
    const AudioFilter& filter, const AudioStreamConfiguration& configuration, AudioOutput& delegate)
    : impl_(std::make_unique<Impl>())
{
    @autoreleasepool {
        const auto nativeFilter = makeFilter(filter);
        const auto nativeConfiguration = makeConfiguration(configuration);
        if (!nativeFilter || !nativeConfiguration)
            return;
        MacScreenAudioOutput* object = delegate.impl().object.get();
        CaptureSession& session = *impl_->session;
        session.delegate = Retained<MacScreenAudioOutput*>::share(object);
        session.stream = Retained<SCStream*>::adopt([[SCStream alloc] initWithFilter:nativeFilter.get()
                                                                       configuration:nativeConfiguration.get()
                                                                            delegate:object]);
    }
}

// A capture that runs, or that the system has yet to start, is stopped behind the stream.
AudioStream::~AudioStream()
{
    @autoreleasepool {
        [impl_->session->delegate.get() disown];
        [impl_->session->output.get() disown];
        if (impl_->session->abandon())
            CaptureSession::stop(impl_->session, nullptr);
        impl_.reset();
    }
}

bool AudioStream::addStreamOutput(AudioOutput& output, AudioQueue& queue, std::optional<QString>* error)
{
    CaptureSession& session = *impl_->session;
    error->reset();
    if (!session.stream)
        return false;
    @autoreleasepool {
        MacScreenAudioOutput* object = output.impl().object.get();
        session.output = Retained<MacScreenAudioOutput*>::share(object);
        session.queue = Retained<dispatch_queue_t>::share(queue.impl().queue.get());
        NSError* reason = nil;
        const bool added = [session.stream.get() addStreamOutput:object
                                                            type:SCStreamOutputTypeAudio
                                              sampleHandlerQueue:session.queue.get()
                                                           error:&reason];
        if (added)
            impl_->output = &output;
        else
            *error = errorText(reason);
        return added;
    }
}

// The audio may come before the answer does.
void AudioStream::startCapture(AudioCompletion completion)
{
    if (impl_->output)
        impl_->output->impl().meter.start(macos::readClocks().steadyNs / 1000000);
    impl_->started = true;
    const std::shared_ptr<CaptureSession> session = impl_->session;
    if (!session->stream) {
        completion(QString());
        return;
    }
    @autoreleasepool {
        session->enter(CaptureSession::Phase::Starting);
        [session->stream.get() startCaptureWithCompletionHandler:^(NSError* error) {
            @autoreleasepool {
                macos::contain([&] {
                    if (session->started(!error))
                        CaptureSession::stop(session, nullptr);
                    completion(errorText(error));
                });
            }
        }];
    }
}

void AudioStream::stopCapture(AudioCompletion completion)
{
    impl_->started = false;
    if (!impl_->session->stream) {
        completion(QString());
        return;
    }
    @autoreleasepool {
        CaptureSession::stop(impl_->session, std::move(completion));
    }
}

AudioDelivery AudioStream::deliverUntil(qint64 monotonicMs, bool last)
{
    AudioDelivery delivery{monotonicMs};
    if (impl_->started && impl_->output)
        delivery = impl_->output->impl().deliverUntil(monotonicMs, last);
    return delivery;
}

}

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

Retained<SCStreamConfiguration*> makeConfiguration(const StreamConfiguration& wanted)
{
    auto made = Retained<SCStreamConfiguration*>::adopt([[SCStreamConfiguration alloc] init]);
    SCStreamConfiguration* configuration = made.get();
    [configuration setWidth:wanted.width];
    [configuration setHeight:wanted.height];
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
struct AudioStream::Connection {
    enum class Phase { Idle, Starting, Running, Stopping };

    ~Connection();

    void enter(Phase next);
    /// The answer to a start. True when it has come too late, and the capture must be stopped.
    bool started(bool success);
    /// The answer to a stop. One that comes after the next start says nothing of that.
    void stopped();
    /// The AudioStream is gone. True when the capture must be stopped.
    bool abandon();

    static void stop(const std::shared_ptr<Connection>& connection, Completion completion);

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
// a delegate that it does not keep.) The stream is not released there: nobody knows what it does at its end.
AudioStream::Connection::~Connection()
{
    stream = {};
    if (!queue)
        return;
    using Objects = std::pair<Retained<MacScreenAudioOutput*>, Retained<MacScreenAudioOutput*>>;
    auto* objects = new Objects(std::move(delegate), std::move(output));
    dispatch_async_f(queue.get(), objects, [](void* last) { delete static_cast<Objects*>(last); });
}

void AudioStream::Connection::enter(Phase next)
{
    const std::lock_guard lock(mutex_);
    phase_ = next;
}

bool AudioStream::Connection::started(bool success)
{
    const std::lock_guard lock(mutex_);
    if (phase_ == Phase::Stopping)
        return false;
    phase_ = success ? Phase::Running : Phase::Idle;
    return success && abandoned_;
}

void AudioStream::Connection::stopped()
{
    const std::lock_guard lock(mutex_);
    if (phase_ == Phase::Stopping)
        phase_ = Phase::Idle;
}

bool AudioStream::Connection::abandon()
{
    const std::lock_guard lock(mutex_);
    abandoned_ = true;
    return phase_ == Phase::Running;
}

void AudioStream::Connection::stop(const std::shared_ptr<Connection>& connection, Completion completion)
{
    const std::shared_ptr<Connection> kept = connection; // a block copies values, not what references name
    kept->enter(Phase::Stopping);
    [kept->stream.get() stopCaptureWithCompletionHandler:^(NSError* error) {
        @autoreleasepool {
            kept->stopped();
            if (completion)
                completion(errorText(error));
        }
    }];
}

AudioStream::AudioStream(const Filter& filter, const StreamConfiguration& configuration, AudioOutput& delegate)
    : connection_(std::make_shared<Connection>())
{
    @autoreleasepool {
        const auto nativeFilter = makeFilter(filter);
        const auto nativeConfiguration = makeConfiguration(configuration);
        if (!nativeFilter || !nativeConfiguration)
            return;
        MacScreenAudioOutput* object = delegate.impl().object.get();
        connection_->delegate = Retained<MacScreenAudioOutput*>::share(object);
        connection_->stream = Retained<SCStream*>::adopt([[SCStream alloc] initWithFilter:nativeFilter.get()
                                                                            configuration:nativeConfiguration.get()
                                                                                 delegate:object]);
    }
}

AudioStream::~AudioStream()
{
    @autoreleasepool {
        disown(connection_->delegate.get());
        disown(connection_->output.get());
        if (connection_->abandon())
            Connection::stop(connection_, nullptr);
        connection_.reset();
    }
}

AddResult AudioStream::addStreamOutput(AudioOutput& output, const SerialQueue& queue)
{
    if (!connection_->stream)
        return {};
    @autoreleasepool {
        MacScreenAudioOutput* object = output.impl().object.get();
        connection_->output = Retained<MacScreenAudioOutput*>::share(object);
        connection_->queue = Retained<dispatch_queue_t>::share(queue.impl().queue.get());
        NSError* error = nil;
        const bool added = [connection_->stream.get() addStreamOutput:object
                                                                 type:SCStreamOutputTypeAudio
                                                   sampleHandlerQueue:connection_->queue.get()
                                                                error:&error];
        return {added, added ? std::nullopt : errorText(error)};
    }
}

void AudioStream::startCapture(Completion completion)
{
    const std::shared_ptr<Connection> connection = connection_;
    if (!connection->stream) {
        completion(std::string());
        return;
    }
    @autoreleasepool {
        connection->enter(Connection::Phase::Starting);
        [connection->stream.get() startCaptureWithCompletionHandler:^(NSError* error) {
            @autoreleasepool {
                if (connection->started(!error))
                    Connection::stop(connection, nullptr);
                completion(errorText(error));
            }
        }];
    }
}

void AudioStream::stopCapture(Completion completion)
{
    if (!connection_->stream) {
        completion(std::string());
        return;
    }
    @autoreleasepool {
        Connection::stop(connection_, std::move(completion));
    }
}

}

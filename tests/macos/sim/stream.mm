// SCStream: capturing, delivering, ending.
#import <ScreenCaptureKit/ScreenCaptureKit.h>

#include "blocks.h"
#include "objects.h"
#include "queue.h"
#include "runtime.h"
#include "samples.h"
#include "streams.h"
#include "system.h"

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace {

using macsim::answers;
using macsim::bodyOf;
using macsim::Strong;

using Handler = void (^)(NSError*);

/// One that the program added. It is not kept alive unless the answers say so.
struct Output {
    id object;
    Strong queue;
    long type;
    Strong kept;
};

struct StreamBody : macsim::ledger::Body {
    std::mutex mutex; // guards the rest
    id delegate = nil; // not kept, as a weak reference is not
    std::vector<Output> outputs;
    bool running = false;
    bool stopAsked = false;

    bool isRunning()
    {
        const std::scoped_lock lock(mutex);
        return running;
    }
    /// What it was before.
    bool setRunning(bool now)
    {
        const std::scoped_lock lock(mutex);
        return std::exchange(running, now);
    }

    void noteStopAsked()
    {
        const std::scoped_lock lock(mutex);
        stopAsked = true;
    }

    void end() override
    {
        if (running && !stopAsked)
            macsim::ledger::fault("a stream went while it ran");
        outputs.clear();
    }
};

/// Every stream that is not gone. Never destroyed: threads of the system may outlive the statics.
struct Streams {
    std::mutex mutex;
    std::vector<SCStream*> all;

    std::vector<Strong> alive()
    {
        const std::scoped_lock lock(mutex);
        std::vector<Strong> kept;
        for (SCStream* one : all) {
            if (macsim::ledger::retainIfAlive(one))
                kept.push_back(Strong::adopt(one));
        }
        return kept;
    }
};

Streams& streams()
{
    static auto* instance = new Streams;
    return *instance;
}

std::vector<Strong> running()
{
    auto found = streams().alive();
    std::erase_if(found, [](const Strong& one) { return !bodyOf<StreamBody>(one.get())->isRunning(); });
    return found;
}

void callOutput(const Output& output, id stream, const macsim::Audio& audio, long type)
{
    if (answers().beforeDelivery)
        answers().beforeDelivery();
    if (!macsim::ledger::isAlive(output.object)) {
        macsim::ledger::fault("a sample for an output that is gone");
        return;
    }
    id buffer = macsim::makeSampleBuffer(audio);
    [static_cast<id<SCStreamOutput>>(output.object) stream:stream
                                     didOutputSampleBuffer:reinterpret_cast<CMSampleBufferRef>(buffer)
                                                    ofType:SCStreamOutputType(type)];
    [buffer release];
}

/// Counts down to 0.
class Remaining {
public:
    void add()
    {
        const std::scoped_lock lock(mutex_);
        ++count_;
    }
    void takeAway()
    {
        const std::scoped_lock lock(mutex_);
        --count_;
        changed_.notify_all();
    }
    void waitForNone()
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return count_ == 0; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int count_ = 0;
};

/// Appends the delivery to the queues of the stream's outputs, unless the stream has just been stopped.
void deliverFrom(const Strong& stream, const macsim::Audio& audio, long type, const std::shared_ptr<Remaining>& left)
{
    const auto body = bodyOf<StreamBody>(stream.get());
    const std::scoped_lock lock(body->mutex);
    if (!body->running)
        return;
    for (const Output& output : body->outputs) {
        left->add();
        macsim::runOnQueue(output.queue.get(), [output, stream, audio, type, left] {
            callOutput(output, stream.get(), audio, type);
            left->takeAway();
        });
    }
}

void tellDelegate(const Strong& stream, const macsim::Outcome& error)
{
    const auto body = bodyOf<StreamBody>(stream.get());
    body->setRunning(false);
    if (!macsim::ledger::retainIfAlive(body->delegate))
        return;
    const Strong delegate = Strong::adopt(body->delegate);
    [static_cast<id<SCStreamDelegate>>(delegate.get()) stream:stream.get() didStopWithError:macsim::makeError(error)];
}

bool isOutput(id object)
{
    return [object conformsToProtocol:objc_getProtocol("SCStreamOutput")] &&
        [object respondsToSelector:@selector(stream:didOutputSampleBuffer:ofType:)];
}

}

namespace macsim {

int runningStreams()
{
    @autoreleasepool {
        return int(running().size());
    }
}

bool deliver(const Audio& audio, long type)
{
    @autoreleasepool {
        const auto to = running();
        const auto left = std::make_shared<Remaining>();
        for (const Strong& stream : to)
            deliverFrom(stream, audio, type, left);
        left->waitForNone();
        return !to.empty();
    }
}

bool endStreams(const Outcome& error)
{
    @autoreleasepool {
        const auto ended = running();
        for (const Strong& stream : ended)
            system::onThread([stream, error] { tellDelegate(stream, error); });
        settle();
        return !ended.empty();
    }
}

}

@implementation SCStream

- (instancetype)initWithFilter:(SCContentFilter*)filter
                 configuration:(SCStreamConfiguration*)configuration
                      delegate:(id<SCStreamDelegate>)delegate
{
    if (answers().noStream) {
        [self release];
        return nil;
    }
    macsim::StreamMade made = macsim::describeStream(filter, configuration);
    made.hasDelegate = delegate != nil;
    macsim::system::note([&made](macsim::Record& record) { record.streams.push_back(made); });
    bodyOf<StreamBody>(self)->delegate = delegate;
    const std::scoped_lock lock(streams().mutex);
    streams().all.push_back(self);
    return self;
}

- (void)dealloc
{
    {
        const std::scoped_lock lock(streams().mutex);
        std::erase(streams().all, self);
    }
    [super dealloc];
}

- (BOOL)addStreamOutput:(id<SCStreamOutput>)output
                   type:(SCStreamOutputType)type
     sampleHandlerQueue:(dispatch_queue_t)queue
                  error:(NSError**)error
{
    macsim::system::note([type](macsim::Record& record) { record.outputTypes.push_back(long(type)); });
    if (answers().addOutputFails) {
        *error = macsim::makeError(answers().addOutputError);
        return NO;
    }
    if (!isOutput(output))
        macsim::ledger::fault("an output that takes no samples");
    const auto body = bodyOf<StreamBody>(self);
    const std::scoped_lock lock(body->mutex);
    body->outputs.push_back(
        {output, Strong(queue), long(type), Strong(answers().streamKeepsOutputs ? id(output) : nil)});
    return YES;
}

- (void)startCaptureWithCompletionHandler:(Handler)completionHandler
{
    macsim::leaveToPool();
    macsim::system::note([](macsim::Record& record) { ++record.starts; });
    const macsim::BlockRef<Handler> handler(completionHandler);
    const Strong stream(self);
    macsim::system::answer(macsim::Call::Start, answers().start, [handler, stream] {
        if (!answers().startError)
            bodyOf<StreamBody>(stream.get())->setRunning(true);
        if (handler.get())
            handler.get()(macsim::makeError(answers().startError));
    });
}

- (void)stopCaptureWithCompletionHandler:(Handler)completionHandler
{
    macsim::leaveToPool();
    macsim::system::note([](macsim::Record& record) { ++record.stops; });
    bodyOf<StreamBody>(self)->noteStopAsked();
    const macsim::BlockRef<Handler> handler(completionHandler);
    const Strong stream(self);
    macsim::system::answer(macsim::Call::Stop, answers().stop, [handler, stream] {
        bodyOf<StreamBody>(stream.get())->setRunning(false);
        if (handler.get())
            handler.get()(macsim::makeError(answers().stopError));
    });
}

@end

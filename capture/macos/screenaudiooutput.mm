#include "screenaudiooutput.h"

#include "nstext.h"

@implementation MacScreenAudioOutput

- (instancetype)initWithOwner:(const macos::OutputOwner*)owner
{
    self = [super init];
    if (self)
        _owner = owner;
    return self;
}

- (void)stream:(SCStream*)stream didOutputSampleBuffer:(CMSampleBufferRef)sampleBuffer ofType:(SCStreamOutputType)type
{
    if (type != SCStreamOutputTypeAudio)
        return;
    @autoreleasepool {
        @synchronized(self) {
            if (!_owner)
                return;
            const macos::SampleBuffer buffer(sampleBuffer);
            _owner->handleSampleBuffer(sampleBuffer ? &buffer : nullptr);
        }
    }
}

- (void)stream:(SCStream*)stream didStopWithError:(NSError*)error
{
    @autoreleasepool {
        @synchronized(self) {
            if (_owner)
                _owner->streamStopped(macos::errorText(error));
        }
    }
}

@end

namespace macos {

void disown(MacScreenAudioOutput* output)
{
    if (!output)
        return;
    @synchronized(output) {
        output->_owner = nullptr;
    }
}

AudioOutput::Impl::Impl(OutputOwner theOwner)
    : owner(std::move(theOwner)),
      object(Retained<MacScreenAudioOutput*>::adopt([[MacScreenAudioOutput alloc] initWithOwner:&owner]))
{
}

AudioOutput::AudioOutput(OutputOwner owner) : impl_(std::make_unique<Impl>(std::move(owner))) { }

AudioOutput::~AudioOutput()
{
    disown(impl_->object.get());
}

}

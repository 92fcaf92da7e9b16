// What ScreenCaptureKit calls for one stream, and the audio on its way from there to the reader. The system pushes
// its blocks when it likes; the reader gets them metered out by its own clock. Objective-C++ only.
#pragma once

#include "audiometer.h"
#include "handles.h"
#include "platform/audio.h"

#import <ScreenCaptureKit/ScreenCaptureKit.h>

#include <atomic>
#include <mutex>
#include <vector>

#pragma clang assume_nonnull begin

@interface MacScreenAudioOutput : NSObject <SCStreamOutput, SCStreamDelegate> {
@public
    /// Not owned; null when no more calls are made. Read and written with the object's lock held (@synchronized),
    /// which is also held during a call of the owner: after null was set no call runs on another thread.
    platform::AudioOutput::Impl* _Nullable _owner;
}
- (nullable instancetype)initWithOwner:(platform::AudioOutput::Impl*)owner;
/// From now on the object makes no call. Waits for a call that runs on another thread.
- (void)disown;
@end

struct platform::AudioOutput::Impl {
    explicit Impl(AudioReceiver receiver);

    /// On the system's queue, whose code does not expect exceptions. A block for which there is no memory is left
    /// out, which the next delivery tells.
    void take(CMSampleBufferRef _Nullable block) noexcept;
    /// On the reader's thread.
    AudioDelivery deliverUntil(qint64 untilMs, bool last);

    const AudioReceiver receiver;
    macos::AudioMeter meter;
    const macos::Retained<MacScreenAudioOutput*> object;

private:
    void takeBlock(CMSampleBufferRef block);
    void handOver(std::vector<qint16> audio);
    void handOut(const AudioSampleBuffer* _Nullable buffer);

    std::atomic<bool> outOfMemory_{false}; ///< a block was left out
    std::mutex receiverMutex_; ///< it is given one buffer at a time
};

#pragma clang assume_nonnull end

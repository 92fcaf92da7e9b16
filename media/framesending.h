// FrameSending: gives frames to an encoder on a thread of its own, so that the next one can be made meanwhile.
#pragma once

#include "avhandles.h"
#include "taskthread.h"

/// Used from one thread at a time, which has the encoder for itself again after finish(). One frame is under way at
/// most.
class FrameSending {
public:
    FrameSending() = default;
    FrameSending(const FrameSending&) = delete;
    FrameSending& operator=(const FrameSending&) = delete;

    /// Only while none is under way. The frame's pixels are shared, and have to stay as they are until finish(). The
    /// context outlives the call. Where there is one processor only, or no thread to be had, it is done at once.
    void start(AVCodecContext& encoder, const AVFrame& frame);

    /// A frame was started and finish() was not yet called.
    bool isUnderWay() const { return underWay_; }
    /// finish() would not wait.
    bool isDone() const { return thread_.isDone(); }
    /// The same after a wait, of no longer than that.
    bool waitFor(std::chrono::milliseconds limit) { return thread_.waitFor(limit); }

    /// Waits for the frame that is under way. FFmpeg's status of sending it.
    int finish();

private:
    AvFrameHandle frame_; ///< under way
    int status_ = 0; ///< of it; the thread's until it is done
    bool underWay_ = false;
    TaskThread thread_; ///< ends before what it uses
};

// FrameSending: gives frames to an encoder on a thread of its own, so that the next one can be made meanwhile.
#pragma once

#include "avhandles.h"

#include <QFuture>
#include <QThreadPool>

#include <optional>

/// Used from one thread at a time, which has the encoder for itself again after finish(). One frame is under way at
/// most.
class FrameSending {
public:
    FrameSending();
    ~FrameSending();
    FrameSending(const FrameSending&) = delete;
    FrameSending& operator=(const FrameSending&) = delete;

    /// Only while none is under way. The frame's pixels are shared, and have to stay as they are until finish(). The
    /// context outlives the call. Where there is one processor only, it is done at once.
    void start(AVCodecContext& encoder, const AVFrame& frame);

    /// A frame was started and finish() was not yet called.
    bool isUnderWay() const { return underWay_; }
    /// finish() would not wait.
    bool isDone() const { return !result_ || result_->isFinished(); }

    /// Waits for the frame that is under way. FFmpeg's status of sending it.
    int finish();

private:
    QThreadPool thread_;
    std::optional<QFuture<int>> result_; ///< of the thread; nothing: it did not get the frame
    int status_ = 0; ///< then
    bool underWay_ = false;
};

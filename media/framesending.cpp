// The encoder's thread.
#include "framesending.h"

#include <QThread>
#include <QtConcurrent/QtConcurrentRun>

#include <memory>
#include <utility>

FrameSending::FrameSending()
{
    thread_.setMaxThreadCount(1);
    thread_.setExpiryTimeout(-1); // as long as the object
}

FrameSending::~FrameSending()
{
    thread_.waitForDone();
}

void FrameSending::start(AVCodecContext& encoder, const AVFrame& frame)
{
    underWay_ = true;
    result_.reset();
    status_ = AVERROR(ENOMEM);
    std::shared_ptr<AVFrame> shared(av_frame_clone(&frame), AvFrameDeleter());
    if (!shared)
        return;
    if (QThread::idealThreadCount() < 2) {
        status_ = avcodec_send_frame(&encoder, shared.get());
        return;
    }
    result_ = QtConcurrent::run(&thread_,
        [&encoder, frameToSend = std::move(shared)] { return avcodec_send_frame(&encoder, frameToSend.get()); });
}

int FrameSending::finish()
{
    underWay_ = false;
    if (!result_)
        return status_;
    const QFuture<int> result = *std::exchange(result_, std::nullopt);
    return result.result();
}

// The encoder's thread.
#include "framesending.h"

#include <QThread>

void FrameSending::start(AVCodecContext& encoder, const AVFrame& frame)
{
    underWay_ = true;
    status_ = AVERROR(ENOMEM);
    frame_.reset(av_frame_clone(&frame));
    if (!frame_)
        return;
    const auto send = [this, &encoder] { status_ = avcodec_send_frame(&encoder, frame_.get()); };
    if (QThread::idealThreadCount() < 2 || !thread_.start(send))
        send();
}

int FrameSending::finish()
{
    thread_.wait();
    underWay_ = false;
    frame_.reset();
    return status_;
}

// The video track: one picture per tick, converted into the encoder's frame.

#include "AvError.h"
#include "MuxerOutput.h"
#include "PacketWriter.h"
#include "pipeline/Logging.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <libyuv/convert.h>

namespace orvane {

bool openVideoStream(MuxerOutput& output)
{
    if (!openStream(output, Track::video))
        return false;
    output.videoFrame = av_frame_alloc();
    if (!output.videoFrame) {
        qCWarning(lcScreenReel) << "Failed to allocate picture: " << avErrorText(AVERROR(ENOMEM));
        return false;
    }
    output.videoFrame->format = AV_PIX_FMT_YUV420P;
    output.videoFrame->width = output.videoContext->width;
    output.videoFrame->height = output.videoContext->height;
    const int result = av_frame_get_buffer(output.videoFrame, 32);
    if (result < 0) {
        qCWarning(lcScreenReel) << "Failed to allocate picture: " << avErrorText(result);
        return false;
    }
    return true;
}

void encodeVideoStep(MuxerOutput& output)
{
    QImage image;
    CaptureTime captured = noCaptureTime;
    std::chrono::steady_clock::time_point arrived;
    {
        QMutexLocker lock(&output.mutex);
        if (output.image.isNull())
            return;
        if (output.imageFresh) {
            output.imageFresh = false;
            image = output.image;
            captured = output.imageCaptured;
            arrived = output.imageArrived;
        }
    }
    // An image of another size than the picture would be read past its end,
    // one of another format misread; the producer guarantees both, so one
    // that differs is dropped and the last picture stands again.
    const bool converted = !image.isNull() && image.size() == output.size && image.format() == QImage::Format_RGB32;
    if (converted) {
        // libyuv's ARGB is RGB32's BGRx in memory; BT.601, limited range.
        AVFrame* frame = output.videoFrame;
        libyuv::ARGBToI420(image.constBits(), int(image.bytesPerLine()), frame->data[0],
                           frame->linesize[0], frame->data[1], frame->linesize[1], frame->data[2],
                           frame->linesize[2], image.width(), image.height());
    }
    output.videoFrame->pts = int64_t(++output.videoFrameCount);
    if (converted)
        noteImage(output, captured, std::chrono::duration_cast<std::chrono::microseconds>(
                                        std::chrono::steady_clock::now() - arrived));
    encodeFrame(output.formatContext, output.videoContext, output.videoStream, output.videoFrame,
                output.videoPacket);
    output.pictureFrames.store(frameNumber(output.videoContext) + int64_t(output.lostTicks),
                               std::memory_order_relaxed);
}

} // namespace orvane

// The video track: one picture per tick, converted into the encoder's frame.

#include "AvError.h"
#include "MuxerOutput.h"
#include "PacketWriter.h"
#include "pipeline/Logging.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

#include <libyuv/convert.h>

namespace orvane {

namespace {

constexpr int gopSize = 10;

} // namespace

bool openVideoStream(MuxerOutput& output)
{
    // H.264 where there is an encoder for it, the container's own choice
    // otherwise.
    AVCodecID codec = AV_CODEC_ID_H264;
    if (!avcodec_find_encoder(codec)) {
        qCWarning(lcScreenReel) << avcodec_get_name(codec) << " is not available";
        codec = output.outputFormat->video_codec;
    }
    const auto configure = [&output](AVCodecContext* context) {
        context->width = output.size.width();
        context->height = output.size.height();
        context->time_base = AVRational{1, output.frameRate};
        context->gop_size = gopSize;
        context->pix_fmt = AV_PIX_FMT_YUV420P;
        // libyuv converts with BT.601's matrix into the limited range. Said
        // so in the stream: players assume BT.709 for an untagged HD picture
        // (a browser then shows the green of the screen as 0,215,0).
        context->colorspace = AVCOL_SPC_SMPTE170M;
        context->color_range = AVCOL_RANGE_MPEG;
        context->color_primaries = AVCOL_PRI_BT709;
        context->color_trc = AVCOL_TRC_IEC61966_2_1;
        if (context->codec_id == AV_CODEC_ID_H264 || context->codec_id == AV_CODEC_ID_HEVC)
            av_opt_set(context->priv_data, "preset", "ultrafast", 0);
        // The encoder's threads share the slices of one frame rather than
        // each holding frames of its own in flight: at 1920x1080 that keeps
        // some 20 MiB less, and each frame's packet comes out with it.
        // Encoders without the option ignore it.
        av_opt_set(context->priv_data, "x264-params", "sliced-threads=1", 0);
    };
    if (!openStream(output, output.video, codec, configure))
        return false;
    AVFrame*& frame = output.video.frame;
    frame = av_frame_alloc();
    if (!frame) {
        qCWarning(lcScreenReel) << "Failed to allocate picture: " << avErrorText(AVERROR(ENOMEM));
        return false;
    }
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = output.video.context->width;
    frame->height = output.video.context->height;
    const int result = av_frame_get_buffer(frame, 32);
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
        AVFrame* frame = output.video.frame;
        libyuv::ARGBToI420(image.constBits(), int(image.bytesPerLine()), frame->data[0],
                           frame->linesize[0], frame->data[1], frame->linesize[1], frame->data[2],
                           frame->linesize[2], image.width(), image.height());
    }
    output.video.frame->pts = int64_t(++output.video.count);
    if (converted)
        noteImage(output.timeline, captured,
                  std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - arrived),
                  output.video.count, output.frameRate);
    encodeFrame(output.formatContext, output.video, output.video.frame);
    output.pictureFrames.store(frameNumber(output.video.context) + int64_t(output.lostTicks),
                               std::memory_order_relaxed);
}

} // namespace orvane

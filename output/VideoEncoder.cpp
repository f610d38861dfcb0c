// The video track: stream and encoder set-up shared by both tracks, and one
// picture per tick.

#include "AvError.h"
#include "MuxerOutput.h"
#include "PacketWriter.h"
#include "pipeline/Logging.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

#include <libyuv/convert.h>

namespace orvane {

namespace {

constexpr int64_t videoBitRate = 1800000;
constexpr int gopSize = 10;
constexpr int64_t audioBitRate = 64000;
constexpr int preferredSampleRate = 44100;

int chooseSampleRate(const AVCodec* codec)
{
    if (!codec->supported_samplerates)
        return preferredSampleRate;
    for (const int* rate = codec->supported_samplerates; *rate; ++rate) {
        if (*rate == preferredSampleRate)
            return preferredSampleRate;
    }
    return codec->supported_samplerates[0];
}

AVChannelLayout chooseChannelLayout(const AVCodec* codec)
{
    AVChannelLayout layout{};
    if (!codec->ch_layouts) {
        av_channel_layout_default(&layout, 2);
        return layout;
    }
    const AVChannelLayout* best = codec->ch_layouts;
    for (const AVChannelLayout* candidate = codec->ch_layouts; candidate->nb_channels; ++candidate) {
        if (candidate->nb_channels > best->nb_channels)
            best = candidate;
    }
    av_channel_layout_copy(&layout, best);
    return layout;
}

} // namespace

bool addStream(MuxerOutput& output, AVStream** stream, AVCodecContext** context,
               const AVCodec** codec, const AVOutputFormat* format, AVCodecID id)
{
    if (!*codec)
        *codec = avcodec_find_encoder(id);
    if (!*codec) {
        qCWarning(lcScreenReel) << "could not find Muxer for: " << avcodec_get_name(id);
        return false;
    }
    *stream = avformat_new_stream(output.formatContext, *codec);
    if (!*stream) {
        qCWarning(lcScreenReel) << "could not find allocate stream";
        return false;
    }
    (*stream)->id = int(output.formatContext->nb_streams) - 1;
    *context = avcodec_alloc_context3(*codec);
    if (!*context) {
        qCWarning(lcScreenReel) << "could not alloc an encoding context";
        return false;
    }

    AVCodecContext* c = *context;
    switch ((*codec)->type) {
    case AVMEDIA_TYPE_VIDEO:
        c->codec_id = id;
        c->bit_rate = videoBitRate;
        c->width = output.size.width();
        c->height = output.size.height();
        (*stream)->time_base = AVRational{1, output.frameRate};
        c->time_base = (*stream)->time_base;
        c->gop_size = gopSize;
        c->pix_fmt = AV_PIX_FMT_YUV420P;
        break;
    case AVMEDIA_TYPE_AUDIO: {
        c->sample_fmt = (*codec)->sample_fmts ? (*codec)->sample_fmts[0] : AV_SAMPLE_FMT_FLTP;
        c->bit_rate = audioBitRate;
        c->sample_rate = chooseSampleRate(*codec);
        AVChannelLayout layout = chooseChannelLayout(*codec);
        av_channel_layout_copy(&c->ch_layout, &layout);
        av_channel_layout_uninit(&layout);
        (*stream)->time_base = AVRational{1, c->sample_rate};
        c->time_base = (*stream)->time_base;
        break;
    }
    default:
        break;
    }
    if (format->flags & AVFMT_GLOBALHEADER)
        c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    return true;
}

bool openVideoStream(MuxerOutput& output)
{
    AVCodecID wanted = output.outputFormat->video_codec;
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_H264);
    if (codec)
        wanted = AV_CODEC_ID_H264;
    else
        qCWarning(lcScreenReel) << avcodec_get_name(AV_CODEC_ID_H264) << " is not available";
    if (!addStream(output, &output.videoStream, &output.videoContext, &codec, output.outputFormat, wanted))
        return false;
    if (codec->id == AV_CODEC_ID_H264 || codec->id == AV_CODEC_ID_HEVC)
        av_opt_set(output.videoContext->priv_data, "preset", "ultrafast", 0);

    int result = avcodec_open2(output.videoContext, codec, nullptr);
    if (result < 0) {
        qCWarning(lcScreenReel) << "could not open video codec: " << avErrorText(result);
        return false;
    }
    result = avcodec_parameters_from_context(output.videoStream->codecpar, output.videoContext);
    if (result < 0) {
        qCWarning(lcScreenReel) << "could not copy the stream parameters: " << avErrorText(result);
        return false;
    }
    output.videoFrame = av_frame_alloc();
    if (!output.videoFrame) {
        qCWarning(lcScreenReel) << "Failed to allocate picture: " << avErrorText(AVERROR(ENOMEM));
        return false;
    }
    output.videoFrame->format = AV_PIX_FMT_YUV420P;
    output.videoFrame->width = output.videoContext->width;
    output.videoFrame->height = output.videoContext->height;
    result = av_frame_get_buffer(output.videoFrame, 32);
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
    // An image of another size than the picture would be read past its end;
    // the producer guarantees the size, so one that differs is dropped and
    // the last picture stands again.
    const bool converted = !image.isNull() && image.size() == output.size;
    if (converted) {
        // libyuv's RGB24 is BGR24 in memory; BT.601, limited range.
        AVFrame* frame = output.videoFrame;
        libyuv::RGB24ToI420(image.constBits(), int(image.bytesPerLine()), frame->data[0],
                            frame->linesize[0], frame->data[1], frame->linesize[1], frame->data[2],
                            frame->linesize[2], image.width(), image.height());
    }
    output.videoFrame->pts = int64_t(++output.videoFrameCount);
    if (converted)
        noteImage(output, captured, std::chrono::duration_cast<std::chrono::microseconds>(
                                        std::chrono::steady_clock::now() - arrived));
    encodeFrame(output.formatContext, output.videoContext, output.videoStream, output.videoFrame,
                output.videoPacket);
    output.encodedFrames.store(frameNumber(output.videoContext), std::memory_order_relaxed);
}

} // namespace orvane

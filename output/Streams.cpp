// The output's two tracks: their constants, and the stream and encoder
// set-up they share.

#include "AvError.h"
#include "MuxerOutput.h"
#include "pipeline/Logging.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

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

// The encoder's layout with the most channels, else plain stereo.
void chooseChannelLayout(const AVCodec* codec, AVChannelLayout* layout)
{
    if (!codec->ch_layouts) {
        av_channel_layout_default(layout, 2);
        return;
    }
    const AVChannelLayout* best = codec->ch_layouts;
    for (const AVChannelLayout* candidate = codec->ch_layouts; candidate->nb_channels; ++candidate) {
        if (candidate->nb_channels > best->nb_channels)
            best = candidate;
    }
    av_channel_layout_copy(layout, best);
}

// H.264 for the picture where there is an encoder for it, the container's
// own choice otherwise; the container's choice for the sound.
const AVCodec* chooseEncoder(const AVOutputFormat* format, Track track)
{
    if (track == Track::audio)
        return avcodec_find_encoder(format->audio_codec);
    if (const AVCodec* h264 = avcodec_find_encoder(AV_CODEC_ID_H264))
        return h264;
    qCWarning(lcScreenReel) << avcodec_get_name(AV_CODEC_ID_H264) << " is not available";
    return avcodec_find_encoder(format->video_codec);
}

} // namespace

bool openStream(MuxerOutput& output, Track track)
{
    const bool video = track == Track::video;
    AVStream*& stream = video ? output.videoStream : output.audioStream;
    AVCodecContext*& context = video ? output.videoContext : output.audioContext;
    const AVCodec* codec = chooseEncoder(output.outputFormat, track);
    if (!codec) {
        const AVCodecID id = video ? output.outputFormat->video_codec : output.outputFormat->audio_codec;
        qCWarning(lcScreenReel) << "could not find Muxer for: " << avcodec_get_name(id);
        return false;
    }
    stream = avformat_new_stream(output.formatContext, codec);
    if (!stream) {
        qCWarning(lcScreenReel) << "could not find allocate stream";
        return false;
    }
    stream->id = int(output.formatContext->nb_streams) - 1;
    context = avcodec_alloc_context3(codec);
    if (!context) {
        qCWarning(lcScreenReel) << "could not alloc an encoding context";
        return false;
    }
    if (video) {
        context->codec_id = codec->id;
        context->bit_rate = videoBitRate;
        context->width = output.size.width();
        context->height = output.size.height();
        stream->time_base = AVRational{1, output.frameRate};
        context->gop_size = gopSize;
        context->pix_fmt = AV_PIX_FMT_YUV420P;
        // libyuv converts with BT.601's matrix into the limited range. Said
        // so in the stream: players assume BT.709 for an untagged HD picture
        // (a browser then shows the green of the screen as 0,215,0).
        context->colorspace = AVCOL_SPC_SMPTE170M;
        context->color_range = AVCOL_RANGE_MPEG;
        context->color_primaries = AVCOL_PRI_BT709;
        context->color_trc = AVCOL_TRC_IEC61966_2_1;
        if (codec->id == AV_CODEC_ID_H264 || codec->id == AV_CODEC_ID_HEVC)
            av_opt_set(context->priv_data, "preset", "ultrafast", 0);
        // The encoder's threads share the slices of one frame rather than
        // each holding frames of its own in flight: at 1920x1080 that keeps
        // some 20 MiB less, and each frame's packet comes out with it.
        // Encoders without the option ignore it.
        av_opt_set(context->priv_data, "x264-params", "sliced-threads=1", 0);
    } else {
        context->sample_fmt = codec->sample_fmts ? codec->sample_fmts[0] : AV_SAMPLE_FMT_FLTP;
        context->bit_rate = audioBitRate;
        context->sample_rate = chooseSampleRate(codec);
        chooseChannelLayout(codec, &context->ch_layout);
        stream->time_base = AVRational{1, context->sample_rate};
    }
    context->time_base = stream->time_base;
    if (output.outputFormat->flags & AVFMT_GLOBALHEADER)
        context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;

    int result = avcodec_open2(context, codec, nullptr);
    if (result < 0) {
        qCWarning(lcScreenReel) << (video ? "could not open video codec: " : "could not open audio codec: ")
                                << avErrorText(result);
        return false;
    }
    result = avcodec_parameters_from_context(stream->codecpar, context);
    if (result < 0) {
        qCWarning(lcScreenReel) << "could not copy the stream parameters: " << avErrorText(result);
        return false;
    }
    return true;
}

} // namespace orvane

// The stream and encoder set-up the output's two tracks share.

#include "AvError.h"
#include "MuxerOutput.h"
#include "pipeline/Logging.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace orvane {

OutputTrack::~OutputTrack()
{
    av_packet_free(&packet);
    av_frame_free(&frame);
    avcodec_free_context(&context);
}

bool openStream(MuxerOutput& output, OutputTrack& track, AVCodecID codecId,
                const std::function<void(AVCodecContext*)>& configure)
{
    const AVCodec* codec = avcodec_find_encoder(codecId);
    if (!codec) {
        qCWarning(lcScreenReel) << "could not find Muxer for: " << avcodec_get_name(codecId);
        return false;
    }
    track.stream = avformat_new_stream(output.formatContext, codec);
    if (!track.stream) {
        qCWarning(lcScreenReel) << "could not find allocate stream";
        return false;
    }
    track.stream->id = int(output.formatContext->nb_streams) - 1;
    track.context = avcodec_alloc_context3(codec);
    if (!track.context) {
        qCWarning(lcScreenReel) << "could not alloc an encoding context";
        return false;
    }
    track.context->bit_rate = track.bitRate;
    configure(track.context);
    track.stream->time_base = track.context->time_base;
    if (output.outputFormat->flags & AVFMT_GLOBALHEADER)
        track.context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;

    int result = avcodec_open2(track.context, codec, nullptr);
    if (result < 0) {
        qCWarning(lcScreenReel) << track.openFailure << avErrorText(result);
        return false;
    }
    result = avcodec_parameters_from_context(track.stream->codecpar, track.context);
    if (result < 0) {
        qCWarning(lcScreenReel) << "could not copy the stream parameters: " << avErrorText(result);
        return false;
    }
    track.packet = av_packet_alloc();
    if (!track.packet) {
        qCWarning(lcScreenReel) << "Could not allocate AVPacket";
        return false;
    }
    return true;
}

} // namespace orvane

#include "PacketWriter.h"

#include "AvError.h"
#include "MuxerOutput.h"
#include "pipeline/Logging.h"

#include <cstdio>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace orvane {

namespace {

QString formatValue(int64_t value)
{
    char text[32];
    if (value == AV_NOPTS_VALUE)
        std::snprintf(text, sizeof text, "NOPTS");
    else
        std::snprintf(text, sizeof text, "%lld", static_cast<long long>(value));
    return QString::fromLocal8Bit(text);
}

QString formatTime(int64_t value, AVRational timeBase)
{
    char text[32];
    if (value == AV_NOPTS_VALUE)
        std::snprintf(text, sizeof text, "NOPTS");
    else
        std::snprintf(text, sizeof text, "%.6g", double(timeBase.num) / double(timeBase.den) * double(value));
    return QString::fromLocal8Bit(text);
}

// Puts a packet from the encoder into the stream's time base and index.
void toStream(AVPacket* packet, const AVCodecContext* codecContext, const AVStream* stream)
{
    // libavcodec leaves video packets without a duration, and the MP4 muxer
    // then gives the last frame none: its edit list cuts that frame off.
    // The encoder's time base is one frame.
    if (codecContext->codec_type == AVMEDIA_TYPE_VIDEO && packet->duration == 0)
        packet->duration = 1;
    // Read at each packet: writing the header may have changed it.
    av_packet_rescale_ts(packet, codecContext->time_base, stream->time_base);
    packet->stream_index = stream->index;
}

} // namespace

void logPacket(const AVFormatContext* formatContext, const AVPacket* packet)
{
    if (!lcScreenReel().isDebugEnabled())
        return;
    const AVRational timeBase = formatContext->streams[packet->stream_index]->time_base;
    qCDebug(lcScreenReel) << "pts:" << formatValue(packet->pts)
                          << " pts_time: " << formatTime(packet->pts, timeBase)
                          << " dts: " << formatValue(packet->dts)
                          << " dts_time: " << formatTime(packet->dts, timeBase)
                          << " duration: " << formatValue(packet->duration)
                          << " duration_time: " << formatTime(packet->duration, timeBase)
                          << " stream_index: " << packet->stream_index;
}

int64_t frameNumber(const AVCodecContext* context)
{
#if LIBAVCODEC_VERSION_MAJOR >= 60
    return context->frame_num;
#else
    return context->frame_number;
#endif
}

void encodeFrame(AVFormatContext* formatContext, const OutputTrack& track, AVFrame* frame)
{
    AVCodecContext* codecContext = track.context;
    AVPacket* packet = track.packet;
    int result = avcodec_send_frame(codecContext, frame);
    if (result < 0) {
        qCWarning(lcScreenReel) << "Error sending a frame to the Muxer: " << avErrorText(result);
        return;
    }
    for (;;) {
        result = avcodec_receive_packet(codecContext, packet);
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
            return;
        if (result < 0) {
            qCWarning(lcScreenReel) << "Error encoding a frame: " << avErrorText(result);
            return;
        }
        toStream(packet, codecContext, track.stream);
        logPacket(formatContext, packet);
        // Takes over the packet's reference and leaves it blank for the next one.
        result = av_interleaved_write_frame(formatContext, packet);
        if (result < 0) {
            qCWarning(lcScreenReel) << "Error while writing output packet: " << avErrorText(result);
            return;
        }
    }
}

} // namespace orvane

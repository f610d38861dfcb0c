#include "OpenInput.h"

#include "pipeline/Logging.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace orvane {

CaptureInput::~CaptureInput()
{
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&codecContext);
    avformat_close_input(&formatContext);
}

bool openInput(const char* url, const QString& deviceName, int* streamIndex, AVDictionary** options,
               const AVInputFormat* inputFormat, AVFormatContext** formatContext,
               const AVCodec** codec, AVCodecContext** codecContext, AVPacket** packet,
               AVFrame** frame, AVMediaType mediaType)
{
    *formatContext = avformat_alloc_context();
    if (avformat_open_input(formatContext, url, inputFormat, options) < 0) {
        qCWarning(lcScreenReel) << "unable to open device [" << deviceName << "]";
        return false;
    }
    if (avformat_find_stream_info(*formatContext, nullptr) < 0) {
        qCWarning(lcScreenReel) << "Unable to find stream for device [" << deviceName << "]";
        return false;
    }
    for (unsigned i = 0; i < (*formatContext)->nb_streams; ++i) {
        if ((*formatContext)->streams[i]->codecpar->codec_type == mediaType)
            *streamIndex = int(i);
    }
    if (*streamIndex == -1) {
        qCWarning(lcScreenReel) << "Unable to find video stream for device [" << deviceName << "]";
        return false;
    }
    const AVCodecParameters* parameters = (*formatContext)->streams[*streamIndex]->codecpar;
    *codec = avcodec_find_decoder(parameters->codec_id);
    if (!*codec) {
        qCWarning(lcScreenReel) << "could not find decoder for: " << avcodec_get_name(parameters->codec_id);
        return false;
    }
    *codecContext = avcodec_alloc_context3(*codec);
    if (!*codecContext) {
        qCWarning(lcScreenReel) << "could not alloc an encoding context";
        return false;
    }
    if (avcodec_parameters_to_context(*codecContext, parameters) < 0) {
        qCWarning(lcScreenReel)
            << "unable to copy decoder parameters to input decoder context for device [" << deviceName << "]";
        return false;
    }
    if (avcodec_open2(*codecContext, *codec, nullptr) < 0) {
        qCWarning(lcScreenReel) << "cannot open video decoder for device [" << deviceName << "]";
        return false;
    }
    *packet = av_packet_alloc();
    *frame = av_frame_alloc();
    // The capture loops rely on both being there; a failed allocation is a
    // failed open, not a crash later.
    if (!*packet || !*frame) {
        qCWarning(lcScreenReel) << "could not allocate packet or frame for device [" << deviceName << "]";
        return false;
    }
    return true;
}

CaptureTime captureTime(const AVFormatContext* formatContext, int streamIndex, const AVFrame* frame,
                        bool onSystemClock)
{
    if (!onSystemClock || frame->pts == AV_NOPTS_VALUE)
        return noCaptureTime;
    return av_rescale_q(frame->pts, formatContext->streams[streamIndex]->time_base, AV_TIME_BASE_Q);
}

namespace {

void logFailure(const char* text, bool withCode, int result)
{
    if (withCode)
        qCWarning(lcScreenReel) << text << result;
    else
        qCWarning(lcScreenReel) << text;
}

} // namespace

void decodePacket(AVCodecContext* codecContext, int streamIndex, AVPacket* packet, AVFrame* frame,
                  const DecodeLog& log, const std::function<bool(const AVFrame&)>& take)
{
    if (packet->stream_index == streamIndex) {
        int result = avcodec_send_packet(codecContext, packet);
        if (result < 0)
            logFailure(log.sendFailed, log.sendWithCode, result);
        while (result >= 0) {
            result = avcodec_receive_frame(codecContext, frame);
            if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
                break;
            if (result < 0)
                logFailure(log.receiveFailed, log.receiveWithCode, result);
            else if (!take(*frame))
                break;
        }
    }
    av_packet_unref(packet);
}

} // namespace orvane

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

bool openInput(CaptureInput& input, const char* url, const QString& deviceName, AVDictionary** options)
{
    input.formatContext = avformat_alloc_context();
    if (avformat_open_input(&input.formatContext, url, input.inputFormat, options) < 0) {
        qCWarning(lcScreenReel) << "unable to open device [" << deviceName << "]";
        return false;
    }
    if (avformat_find_stream_info(input.formatContext, nullptr) < 0) {
        qCWarning(lcScreenReel) << "Unable to find stream for device [" << deviceName << "]";
        return false;
    }
    for (unsigned i = 0; i < input.formatContext->nb_streams; ++i) {
        if (input.formatContext->streams[i]->codecpar->codec_type == input.mediaType)
            input.streamIndex = int(i);
    }
    if (input.streamIndex == -1) {
        qCWarning(lcScreenReel) << "Unable to find video stream for device [" << deviceName << "]";
        return false;
    }
    const AVCodecParameters* parameters = input.formatContext->streams[input.streamIndex]->codecpar;
    input.codec = avcodec_find_decoder(parameters->codec_id);
    if (!input.codec) {
        qCWarning(lcScreenReel) << "could not find decoder for: " << avcodec_get_name(parameters->codec_id);
        return false;
    }
    input.codecContext = avcodec_alloc_context3(input.codec);
    if (!input.codecContext) {
        qCWarning(lcScreenReel) << "could not alloc an encoding context";
        return false;
    }
    if (avcodec_parameters_to_context(input.codecContext, parameters) < 0) {
        qCWarning(lcScreenReel)
            << "unable to copy decoder parameters to input decoder context for device [" << deviceName << "]";
        return false;
    }
    if (avcodec_open2(input.codecContext, input.codec, nullptr) < 0) {
        qCWarning(lcScreenReel) << "cannot open video decoder for device [" << deviceName << "]";
        return false;
    }
    input.packet = av_packet_alloc();
    input.frame = av_frame_alloc();
    // The capture loops rely on both being there; a failed allocation is a
    // failed open, not a crash later.
    if (!input.packet || !input.frame) {
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

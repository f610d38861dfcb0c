#pragma once

#include "pipeline/CaptureTime.h"

#include <QString>

extern "C" {
#include <libavutil/avutil.h>
}

struct AVCodec;
struct AVCodecContext;
struct AVDictionary;
struct AVFormatContext;
struct AVFrame;
struct AVInputFormat;
struct AVPacket;

namespace orvane {

// Opens an FFmpeg input and a decoder for its last stream of `mediaType`,
// with a reusable packet and frame. Everything made is written to the
// out-parameters at once and belongs to the caller from then on, on failure
// too; nothing is freed here. Logs the reason of a failure.
bool openInput(const char* url, const QString& deviceName, int* streamIndex, AVDictionary** options,
               const AVInputFormat* inputFormat, AVFormatContext** formatContext,
               const AVCodec** codec, AVCodecContext** codecContext, AVPacket** packet,
               AVFrame** frame, AVMediaType mediaType);

// The capture time of a decoded frame of stream `streamIndex`, from its
// timestamp where the input stamps its packets with the system clock
// (`onSystemClock`); noCaptureTime otherwise.
CaptureTime captureTime(const AVFormatContext* formatContext, int streamIndex, const AVFrame* frame,
                        bool onSystemClock);

} // namespace orvane

#pragma once

#include "pipeline/CaptureTime.h"

#include <QString>

#include <functional>

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

// An input's FFmpeg handles: the part of a capture thread's record that both
// media share, freed by its destructor whatever was made.
struct CaptureInput
{
    CaptureInput() = default;
    ~CaptureInput();
    CaptureInput(const CaptureInput&) = delete;
    CaptureInput& operator=(const CaptureInput&) = delete;

    bool valid = false;
    int streamIndex = -1;
    const AVInputFormat* inputFormat = nullptr;
    AVFormatContext* formatContext = nullptr;
    const AVCodec* codec = nullptr;
    AVCodecContext* codecContext = nullptr;
    AVPacket* packet = nullptr;
    AVFrame* frame = nullptr;
};

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

// What a decoding failure of one medium logs: the line for a packet the
// decoder refuses and the one for a frame it fails on, each followed by
// FFmpeg's error code where asked.
struct DecodeLog
{
    const char* sendFailed;
    bool sendWithCode;
    const char* receiveFailed;
    bool receiveWithCode;
};

// The capture thread. Hands the packet just read to the decoder when it is
// of stream `streamIndex`, then each frame that comes out to `take` until
// that returns false; unreferences the packet.
void decodePacket(AVCodecContext* codecContext, int streamIndex, AVPacket* packet, AVFrame* frame,
                  const DecodeLog& log, const std::function<bool(const AVFrame&)>& take);

} // namespace orvane

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
    explicit CaptureInput(AVMediaType mediaType) : mediaType(mediaType) {}
    ~CaptureInput();
    CaptureInput(const CaptureInput&) = delete;
    CaptureInput& operator=(const CaptureInput&) = delete;

    const AVMediaType mediaType;  // of the stream wanted
    bool valid = false;
    int streamIndex = -1;
    const AVInputFormat* inputFormat = nullptr;
    AVFormatContext* formatContext = nullptr;
    const AVCodec* codec = nullptr;
    AVCodecContext* codecContext = nullptr;
    AVPacket* packet = nullptr;
    AVFrame* frame = nullptr;
};

// Opens `url` in the input's format and a decoder for its last stream of the
// input's media type, with a reusable packet and frame. Everything made goes
// into `input` at once and is freed with it, on failure too. `options` is
// handed to FFmpeg, which leaves in it what it did not use. Logs the reason
// of a failure, naming the device `deviceName`.
bool openInput(CaptureInput& input, const char* url, const QString& deviceName, AVDictionary** options);

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

#pragma once

#include <cstdint>

struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVPacket;
struct AVStream;

namespace orvane {

// Encodes one frame and writes every packet the encoder has ready, timed in
// the stream's time base, through the interleaver. Failures are logged and
// the recording goes on.
void encodeFrame(AVFormatContext* formatContext, AVCodecContext* codecContext, AVStream* stream,
                 AVFrame* frame, AVPacket* packet);

// Puts a packet from the encoder into the stream's time base and index.
void toStream(AVPacket* packet, const AVCodecContext* codecContext, const AVStream* stream);

// FFmpeg's count of the frames given to an encoder (renamed in libavcodec 60).
int64_t frameNumber(const AVCodecContext* context);

// One debug line per packet, formatted only when debug output is on.
void logPacket(const AVFormatContext* formatContext, const AVPacket* packet);

} // namespace orvane

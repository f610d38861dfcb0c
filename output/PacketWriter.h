#pragma once

#include <cstdint>

struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVPacket;
struct AVStream;

namespace orvane {

struct OutputTrack;

// Encodes one frame on the track (null: drains its encoder) and writes every
// packet the encoder has ready, timed in the stream's time base, through the
// interleaver. Failures are logged and the recording goes on.
void encodeFrame(AVFormatContext* formatContext, const OutputTrack& track, AVFrame* frame);

// FFmpeg's count of the frames given to an encoder (renamed in libavcodec 60).
int64_t frameNumber(const AVCodecContext* context);

// One debug line per packet, formatted only when debug output is on.
void logPacket(const AVFormatContext* formatContext, const AVPacket* packet);

} // namespace orvane

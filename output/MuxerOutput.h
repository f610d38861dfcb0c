#pragma once

#include "AudioQueue.h"
#include "Timeline.h"
#include "pipeline/AudioFormat.h"
#include "pipeline/CaptureTime.h"

#include <QByteArray>
#include <QImage>
#include <QList>
#include <QMutex>
#include <QSize>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

extern "C" {
#include <libavcodec/codec_id.h>
}

class QIODevice;
struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVIOContext;
struct AVOutputFormat;
struct AVPacket;
struct AVStream;
struct SwrContext;

namespace orvane {

// One track of the output: its encoder, stream and reusable frame and packet,
// and its clock. Frees what it holds.
struct OutputTrack
{
    OutputTrack(const char* openFailure, int64_t bitRate) : openFailure(openFailure), bitRate(bitRate) {}
    ~OutputTrack();

    const char* const openFailure;  // the warning when its encoder does not open
    const int64_t bitRate;
    AVCodecContext* context = nullptr;
    AVStream* stream = nullptr;  // the format context's
    // The last converted picture, encoded again when no new image came; or
    // the samples waiting for the rest of an encoder frame.
    AVFrame* frame = nullptr;
    AVPacket* packet = nullptr;
    uint64_t count = 0;  // the clock: frames, or samples; Muxer thread only
};

// Everything the Muxer works with. Set up before its thread starts and taken
// apart after it has ended, so only the members marked "mutex" are shared.
struct MuxerOutput
{
    MuxerOutput(QIODevice* device, const QSize& size, const std::optional<AudioFormat>& audioFormat);
    ~MuxerOutput();

    bool setUp();

    bool valid = false;
    bool finished = false;  // finish has begun
    QMutex mutex;           // guards image, imageCaptured, imageArrived, imageFresh, audioQueue
    QIODevice* const device;
    const QSize size;
    const std::optional<AudioFormat> audioFormat;
    const uint8_t frameRate = 25;

    OutputTrack video{"could not open video codec: ", 1800000};
    OutputTrack audio{"could not open audio codec: ", 64000};
    SwrContext* resampler = nullptr;   // source samples to the audio encoder's format
    AVFormatContext* formatContext = nullptr;
    const AVOutputFormat* outputFormat = nullptr;
    AVIOContext* ioContext = nullptr;

    Timeline timeline;              // Muxer thread only
    uint64_t lostTicks = 0;         // ticks the picture before covers; Muxer thread only
    // Frames the video encoder has taken and the lost ticks between them:
    // the picture's length, published for recordedTime.
    std::atomic<int64_t> pictureFrames{0};

    AudioQueue audioQueue;          // mutex
    QImage image;                   // mutex; the newest image
    CaptureTime imageCaptured = noCaptureTime;  // mutex; when it was captured
    std::chrono::steady_clock::time_point imageArrived;  // mutex; when it was handed in
    bool imageFresh = false;        // mutex; image not yet taken
    int audioFrameSize = 0;         // samples per channel in each encoder frame
    int audioFrameFill = 0;         // samples in audio.frame still waiting for the rest of it
};

// Adds the track's stream and opens its encoder, found by `codec`, with the
// track's bit rate and what `configure` sets (the time base among it), and
// makes its packet.
bool openStream(MuxerOutput& output, OutputTrack& track, AVCodecID codec,
                const std::function<void(AVCodecContext*)>& configure);
// The track's stream, then what its encoder is given: the picture, or the
// frame and the resampler.
bool openVideoStream(MuxerOutput& output);
bool openAudioStream(MuxerOutput& output);
// One tick of the loop, on the Muxer thread, after `lost` ticks the machine
// gave it no time for: the clocks' comparison (the video clock jumps ten
// frames to meet the audio clock), the picture, then all the sound due by
// the picture's time.
void runTick(MuxerOutput& output, uint64_t lost);
void encodeVideoStep(MuxerOutput& output);
void encodeAudioStep(MuxerOutput& output);
// Encodes all the sound still waiting, to its last sample.
void finishAudio(MuxerOutput& output);
// Ends both tracks and writes the trailer, once.
void finish(MuxerOutput& output);
// Any thread: the frames given to the video encoder, in milliseconds.
std::chrono::milliseconds recordedTime(const MuxerOutput& output);

} // namespace orvane

#pragma once

#include "pipeline/AudioFormat.h"

#include <QByteArray>
#include <QImage>
#include <QList>
#include <QMutex>
#include <QSize>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>

extern "C" {
#include <libavcodec/avcodec.h>
}

class QIODevice;
struct AVFormatContext;
struct AVIOContext;
struct AVOutputFormat;
struct AVStream;
struct SwrContext;

namespace orvane {

// Samples of one writeAudio call, shared with the caller.
struct AudioChunk
{
    QByteArray samples;
    qint64 sampleCount = 0;  // per channel
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
    QMutex mutex;           // guards image, imageFresh, audioQueue, audioQueueFull
    QIODevice* const device;
    const QSize size;
    const std::optional<AudioFormat> audioFormat;
    const uint8_t frameRate = 25;

    AVFrame* videoFrame = nullptr;  // the last converted picture, encoded again when no new image came
    AVFrame* audioFrame = nullptr;
    AVCodecContext* videoContext = nullptr;
    AVCodecContext* audioContext = nullptr;
    SwrContext* resampler = nullptr;   // source samples to the encoder's format
    AVFormatContext* formatContext = nullptr;
    const AVOutputFormat* outputFormat = nullptr;
    AVStream* videoStream = nullptr;
    AVStream* audioStream = nullptr;
    AVPacket* videoPacket = nullptr;
    AVPacket* audioPacket = nullptr;
    AVIOContext* ioContext = nullptr;

    uint64_t videoFrameCount = 0;   // video clock, in frames; Muxer thread only
    uint64_t audioSampleCount = 0;  // audio clock, in samples; Muxer thread only
    // Frames the video encoder has taken, published for recordedTime.
    std::atomic<int64_t> encodedFrames{0};

    QList<AudioChunk> audioQueue;   // mutex
    qint64 queuedSamples = 0;       // mutex; samples per channel in audioQueue
    bool audioQueueFull = false;    // mutex; a drop has been reported
    QImage image;                   // mutex; the newest image
    bool imageFresh = false;        // mutex; image not yet taken
    int audioFrameSize = 0;         // samples per channel in each encoder frame
    int audioFrameFill = 0;         // samples in audioFrame still waiting for the rest of it
};

// Builds a stream and its encoder context with the track's constants.
bool addStream(MuxerOutput& output, AVStream** stream, AVCodecContext** context,
               const AVCodec** codec, const AVOutputFormat* format, AVCodecID id);
bool openVideoStream(MuxerOutput& output);
bool openAudioStream(MuxerOutput& output);
// One tick's work on the Muxer thread.
void encodeVideoStep(MuxerOutput& output);
void encodeAudioStep(MuxerOutput& output);
// Encodes all the sound still waiting, to its last sample.
void finishAudio(MuxerOutput& output);
// Ends both tracks and writes the trailer, once.
void finish(MuxerOutput& output);
// Under mutex, Muxer thread: lets the video clock catch up with the audio
// clock by a jump of ten frames. True when it jumped.
bool compareClocks(MuxerOutput& output);
// Under mutex: appends a chunk, dropping the oldest beyond ten seconds.
void queueAudio(MuxerOutput& output, const QByteArray& samples, qint64 sampleCount);
// Any thread: the frames given to the video encoder, in milliseconds.
std::chrono::milliseconds recordedTime(const MuxerOutput& output);

// FFmpeg's count of the frames given to an encoder (renamed in libavcodec 60).
inline int64_t frameNumber(const AVCodecContext* context)
{
#if LIBAVCODEC_VERSION_MAJOR >= 60
    return context->frame_num;
#else
    return context->frame_number;
#endif
}

} // namespace orvane

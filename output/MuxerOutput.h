#pragma once

#include "AudioQueue.h"
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
#include <optional>
#include <vector>

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

// Where the two tracks stand on the capture clock, where the inputs give
// capture times. Muxer thread only.
struct Timeline
{
    // The capture time that belongs to time 0 of the file, measured as the
    // median over new images of their capture time less their time in the
    // file. The sound begins there, and follows it when it moves.
    CaptureTime start = noCaptureTime;
    std::vector<CaptureTime> starts;  // the measurements since the last look
    CaptureTime lastLook = noCaptureTime;  // their median at the last look
    uint64_t firstFrame = 0;          // video clock at the first picture (from 1)
    bool settled = false;             // the grabber's first second is over
    // How long new images waited for their tick (milliseconds), while the
    // ticks' phase is being chosen; then how far to delay the next tick.
    std::vector<double> waits;
    std::chrono::microseconds delay{0};
    bool untimed = false;             // an input gives none: the counters alone time the tracks
    qint64 audioPlaced = 0;           // source samples on the audio track, silence included
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
    int audioFrameFill = 0;         // samples in audioFrame still waiting for the rest of it
};

// Adds the track's stream and opens its encoder with the track's constants
// (videoStream and videoContext, or audioStream and audioContext).
enum class Track { video, audio };
bool openStream(MuxerOutput& output, Track track);
// The track's stream, then what its encoder is given: the picture, or the
// frame and the resampler.
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
// Muxer thread. A new image of capture time `captured`, handed in `waited`
// before this tick, went into the picture under the current video clock:
// measurements of the ticks' phase and of the timeline's start.
void noteImage(MuxerOutput& output, CaptureTime captured, std::chrono::microseconds waited);
// The delay of the ticks that makes images wait half a tick on average, from
// how long they waited (milliseconds, each within a tick).
std::chrono::microseconds tickDelay(const std::vector<double>& waits, int frameRate);
// Muxer thread. Fixes the timeline's start by what has been measured, if
// anything (else the tracks are timed by the counters alone).
void fixTimelineStart(Timeline& timeline);
// Where a chunk of `count` source samples captured at `captured` goes on an
// audio track whose next sample is due at `due` (both on the capture clock),
// at `rate` samples a second: samples to drop from its head (sound from
// before the track's start, or that overlaps sound already placed), or
// silence to put before it (a gap: a suspended or starved source, chunks
// dropped). Offsets within `tolerance` microseconds are left alone.
struct Placement
{
    qint64 skip = 0;
    qint64 silence = 0;
};
Placement placeChunk(CaptureTime due, CaptureTime captured, qint64 count, int rate, int64_t tolerance);
// Any thread: the frames given to the video encoder, in milliseconds.
std::chrono::milliseconds recordedTime(const MuxerOutput& output);

} // namespace orvane

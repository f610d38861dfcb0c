#include "Muxer.h"

#include "AvError.h"
#include "MuxerOutput.h"
#include "PacketWriter.h"
#include "pipeline/Logging.h"

#include <QIODevice>

#include <chrono>
#include <exception>
#include <thread>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
}

namespace orvane {

namespace {

constexpr int ioBufferSize = 32768;

// FFmpeg 7 hands the buffer over as const.
#if LIBAVFORMAT_VERSION_MAJOR >= 61
using IoBuffer = const uint8_t*;
#else
using IoBuffer = uint8_t*;
#endif

int ioWrite(void* opaque, IoBuffer buffer, int size)
{
    auto* output = static_cast<MuxerOutput*>(opaque);
    return int(output->device->write(reinterpret_cast<const char*>(buffer), size));
}

int64_t ioSeek(void* opaque, int64_t offset, int whence)
{
    auto* output = static_cast<MuxerOutput*>(opaque);
    if (whence == AVSEEK_SIZE || output->device->isSequential())
        return -1;
    if (!output->device->seek(offset))
        return -1;
    return output->device->pos();
}

} // namespace

MuxerOutput::MuxerOutput(QIODevice* device, const QSize& size,
                         const std::optional<AudioFormat>& audioFormat)
    : device(device)
    , size(size)
    , audioFormat(audioFormat)
    , audioQueue(audioFormat ? audioFormat->sampleRate : 0)
{
}

bool MuxerOutput::setUp()
{
    // An audio source that failed to open gives the all-zero format, and has
    // said why: a resampler's complaint after that would only mislead.
    if (audioFormat && *audioFormat == AudioFormat{})
        return false;
    // Every packet would be refused one by one: say it once, up front.
    if (!device->isWritable()) {
        qCWarning(lcScreenReel) << "the output device is not open for writing";
        return false;
    }
    outputFormat = av_guess_format("mp4", nullptr, "video/mp4");
    if (!outputFormat) {
        qCWarning(lcScreenReel) << "can't create output format";
        return false;
    }
    const int result = avformat_alloc_output_context2(&formatContext, outputFormat, nullptr, nullptr);
    if (result != 0) {
        qCWarning(lcScreenReel) << "can't create output context: " << avErrorText(result);
        return false;
    }
    auto* buffer = static_cast<unsigned char*>(av_malloc(ioBufferSize));
    if (buffer)
        ioContext = avio_alloc_context(buffer, ioBufferSize, 1, this, nullptr, ioWrite, ioSeek);
    if (!ioContext) {
        av_free(buffer);
        qCWarning(lcScreenReel) << "Failed to create custom I/O";
        return false;
    }
    // A pipe or socket cannot take the plain layout, which goes back to
    // write the index: it gets fragments that play while they are written.
    const bool sequential = device->isSequential();
    if (sequential)
        ioContext->seekable = 0;
    formatContext->pb = ioContext;
    formatContext->flags = AVFMT_FLAG_CUSTOM_IO;
    // A reader at the other end of a pipe gets each fragment as it is done,
    // not whenever the I/O buffer happens to fill.
    if (sequential)
        formatContext->flush_packets = 1;

    if (!openVideoStream(*this)) {
        qCWarning(lcScreenReel) << "Failed to init muxer video";
        return false;
    }
    if (audioFormat && !openAudioStream(*this)) {
        qCWarning(lcScreenReel) << "Failed to init muxer audio";
        return false;
    }
    av_dump_format(formatContext, 0, "output", 1);

    AVDictionary* options = nullptr;
    if (sequential)
        av_dict_set(&options, "movflags", "frag_keyframe+empty_moov+default_base_moof", 0);
    const int header = avformat_write_header(formatContext, &options);
    av_dict_free(&options);
    if (header < 0) {
        qCWarning(lcScreenReel) << "Failed to write header: " << avErrorText(header);
        return false;
    }
    return true;
}

MuxerOutput::~MuxerOutput()
{
    // A Muxer set up but never run, or whose loop failed, is finished here.
    if (valid)
        finish(*this);
    // The tracks free their own handles.
    avformat_free_context(formatContext);
    formatContext = nullptr;
    // FFmpeg may have replaced the buffer first given: free the current one.
    if (ioContext)
        av_freep(&ioContext->buffer);
    avio_context_free(&ioContext);
    swr_free(&resampler);
    device->close();
}

void finish(MuxerOutput& output)
{
    if (output.finished)
        return;
    output.finished = true;
    finishAudio(output);
    for (const OutputTrack* track : {&output.video, &output.audio}) {
        if (track->context)
            encodeFrame(output.formatContext, *track, nullptr);
    }
    av_write_trailer(output.formatContext);
}

Muxer::Muxer(const QSize& size, const std::optional<AudioFormat>& format, QIODevice* output,
             Pipeline* pipeline)
    : PartThread(QStringLiteral("Muxer"), pipeline)
    , Target(pipeline)
    , state(std::make_unique<MuxerOutput>(output, size, format))
{
    state->valid = state->setUp();
}

Muxer::~Muxer()
{
    stop();
}

bool Muxer::start()
{
    return startIf(state->valid);
}

void Muxer::stop()
{
    stopAndWait();
}

std::chrono::milliseconds Muxer::recordedTime()
{
    return orvane::recordedTime(*state);
}

void Muxer::writeVideo(const QImage& image, CaptureTime captured)
{
    if (isInterruptionRequested())
        return;
    QMutexLocker lock(&state->mutex);
    state->image = image;
    state->imageCaptured = captured;
    state->imageArrived = std::chrono::steady_clock::now();
    state->imageFresh = true;
}

void Muxer::writeAudio(const QByteArray& samples, qint64 sampleCount, CaptureTime captured)
{
    if (isInterruptionRequested() || !state->audioFormat)
        return;
    QMutexLocker lock(&state->mutex);
    state->audioQueue.append(AudioChunk{samples, sampleCount, captured});
}

std::chrono::milliseconds recordedTime(const MuxerOutput& output)
{
    // The picture's frames, 40 ms apiece: those encoded and the lost ticks
    // they cover, so that a host stopping at a length gets a picture that
    // long on a busy machine too. The clock's jumps are not in it. Whole
    // numbers: in floating point 803 frames would read 32119 ms.
    if (!output.video.context)
        return std::chrono::milliseconds(0);
    const AVRational timeBase = output.video.context->time_base;
    const int64_t frames = output.pictureFrames.load(std::memory_order_relaxed);
    return std::chrono::milliseconds(frames * 1000 * timeBase.num / timeBase.den);
}

void runTick(MuxerOutput& output, uint64_t lost)
{
    // Ticks lost wholly to a late one are not made up, but the video clock
    // counts them: the picture before stays on for their time, the track
    // keeps real time, and their sound is due now. Before the first picture
    // there is no track to keep in time.
    if (output.video.count > 0) {
        output.video.count += lost;
        output.lostTicks += lost;
    }
    if (output.audioFormat && videoBehind(output.video.count, output.frameRate, output.audio.count,
                                          output.audio.context->sample_rate)) {
        output.video.count += 10;
        qCDebug(lcScreenReel) << "video frame count adjusted";
    }
    encodeVideoStep(output);
    encodeAudioStep(output);
}

void Muxer::run()
{
    setPriority(QThread::TimeCriticalPriority);
    MuxerOutput& out = *state;
    try {
        // Tick n is due at start + n ticks; a late one reports the ticks it
        // lost to the next.
        using Clock = std::chrono::steady_clock;
        const auto tick = std::chrono::milliseconds(1000 / out.frameRate);
        auto deadline = Clock::now() + tick;
        uint64_t lost = 0;
        for (;;) {
            runTick(out, std::exchange(lost, 0));
            if (isInterruptionRequested()) {
                finish(out);
                return;
            }
            // Once, early: the ticks move to where the grabber's images
            // arrive half a tick before them, not by a hair.
            deadline += std::exchange(out.timeline.delay, {});

            const auto now = Clock::now();
            if (now - deadline >= tick) {
                lost = uint64_t((now - deadline) / tick);
                deadline += int64_t(lost) * tick;
            } else {
                std::this_thread::sleep_until(deadline);
            }
            deadline += tick;
        }
    } catch (const std::exception& e) {
        qCWarning(lcScreenReel) << e.what();
        abort();
    }
}

} // namespace orvane

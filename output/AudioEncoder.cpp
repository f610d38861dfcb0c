// The audio track: every chunk goes through the resampler to the encoder's
// format, and the track is timed by the samples that come out of it.

#include "AvError.h"
#include "MuxerOutput.h"
#include "PacketWriter.h"
#include "pipeline/Logging.h"

#include <algorithm>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
#include <libavutil/opt.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

namespace orvane {

namespace {

// Frame size for encoders that take any: large enough to empty the
// resampler in one frame per chunk.
constexpr int variableFrameSize = 10000;
// How far the sound's capture times may stray from where its samples have
// put it before the track is corrected (microseconds). They jitter by a few
// milliseconds; this is half a frame of the picture.
constexpr int64_t placementTolerance = 20000;

AVChannelLayout sourceLayout(const AudioFormat& format)
{
    AVChannelLayout layout{};
    if (format.channelLayout
        && av_channel_layout_from_mask(&layout, format.channelLayout) == 0
        && layout.nb_channels == format.channels)
        return layout;
    av_channel_layout_uninit(&layout);
    av_channel_layout_default(&layout, format.channels);
    return layout;
}

} // namespace

bool openAudioStream(MuxerOutput& output)
{
    if (!openStream(output, Track::audio))
        return false;
    AVCodecContext* context = output.audioContext;
    output.audioFrameSize = (context->codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE)
                                ? variableFrameSize
                                : context->frame_size;

    output.audioFrame = av_frame_alloc();
    if (!output.audioFrame) {
        qCWarning(lcScreenReel) << "failed to allocate audio frame: " << avErrorText(AVERROR(ENOMEM));
        return false;
    }
    av_channel_layout_copy(&output.audioFrame->ch_layout, &context->ch_layout);
    output.audioFrame->nb_samples = output.audioFrameSize;
    output.audioFrame->format = context->sample_fmt;
    output.audioFrame->sample_rate = context->sample_rate;
    int result = av_frame_get_buffer(output.audioFrame, 0);
    if (result < 0) {
        qCWarning(lcScreenReel) << "failed to allocate audio frame: " << avErrorText(result);
        return false;
    }
    result = av_frame_make_writable(output.audioFrame);
    if (result < 0)
        qCWarning(lcScreenReel) << "failed to make audio frame writable: " << avErrorText(result);

    output.resampler = swr_alloc();
    if (!output.resampler) {
        qCWarning(lcScreenReel) << "Could not allocate resampler context";
        return false;
    }
    const AudioFormat& in = *output.audioFormat;
    AVChannelLayout inLayout = sourceLayout(in);
    av_opt_set_chlayout(output.resampler, "in_chlayout", &inLayout, 0);
    av_opt_set_int(output.resampler, "in_sample_rate", in.sampleRate, 0);
    av_opt_set_sample_fmt(output.resampler, "in_sample_fmt", in.sampleFormat, 0);
    av_opt_set_chlayout(output.resampler, "out_chlayout", &context->ch_layout, 0);
    av_opt_set_int(output.resampler, "out_sample_rate", context->sample_rate, 0);
    av_opt_set_sample_fmt(output.resampler, "out_sample_fmt", context->sample_fmt, 0);
    av_channel_layout_uninit(&inLayout);
    result = swr_init(output.resampler);
    if (result < 0) {
        qCWarning(lcScreenReel) << "Failed to initialize the resampling context: " << avErrorText(result);
        return false;
    }
    return true;
}

namespace {

// Hands the first `samples` of audioFrame to the encoder, timed by the
// samples up to their end.
void encodeAudioFrame(MuxerOutput& output, int samples)
{
    output.audioFrame->nb_samples = samples;
    output.audioSampleCount += uint64_t(samples);
    output.audioFrame->pts = av_rescale_q(int64_t(output.audioSampleCount), output.audioContext->time_base,
                                          output.audioStream->time_base);
    encodeFrame(output.formatContext, output.audioContext, output.audioStream, output.audioFrame,
                output.audioPacket);
}

// Converts `count` samples per channel and hands every whole frame that comes
// out to the encoder. A null `planes` empties the resampler. The encoder takes
// whole frames only: a short rest stays in audioFrame until more comes, since
// handing it in short would replay the tail of the frame before.
void resample(MuxerOutput& output, const uint8_t** planes, int count)
{
    const auto format = AVSampleFormat(output.audioFrame->format);
    const int bytesPerSample = av_get_bytes_per_sample(format)
                               * (av_sample_fmt_is_planar(format) ? 1 : output.audioFrame->ch_layout.nb_channels);
    for (;;) {
        uint8_t* outPlanes[AV_NUM_DATA_POINTERS] = {};
        const int offset = output.audioFrameFill * bytesPerSample;
        for (int i = 0; i < AV_NUM_DATA_POINTERS && output.audioFrame->data[i]; ++i)
            outPlanes[i] = output.audioFrame->data[i] + offset;
        const int converted = swr_convert(output.resampler, outPlanes,
                                          output.audioFrameSize - output.audioFrameFill, planes, count);
        if (converted == 0)
            break;
        if (converted < 0) {
            qCWarning(lcScreenReel) << "failed swr convert: " << avErrorText(converted);
            break;
        }
        // What the resampler still holds comes out with an empty input.
        count = 0;
        output.audioFrameFill += converted;
        if (output.audioFrameFill < output.audioFrameSize)
            continue;
        output.audioFrameFill = 0;
        encodeAudioFrame(output, output.audioFrameSize);
    }
}

// Takes the oldest chunk off the queue; false when there is none. While the
// picture's start is not known yet, sound with capture times waits for it.
bool takeChunk(MuxerOutput& output, AudioChunk* chunk)
{
    QMutexLocker lock(&output.mutex);
    const Timeline& timeline = output.timeline;
    if (timeline.start == noCaptureTime && !timeline.untimed
        && output.audioQueue.firstCaptured() != noCaptureTime)
        return false;
    return output.audioQueue.take(chunk);
}

// Encodes `count` samples of the chunk from sample `from` on.
void encodeChunk(MuxerOutput& output, const AudioChunk& chunk, qint64 from, qint64 count)
{
    // A planar source carries its planes one after the other in the chunk.
    const AudioFormat& format = *output.audioFormat;
    const bool planar = av_sample_fmt_is_planar(format.sampleFormat);
    const int planeCount = planar ? format.channels : 1;
    const int sampleSize = av_get_bytes_per_sample(format.sampleFormat) * (planar ? 1 : format.channels);
    // Never null, even when empty: a null input would empty the resampler.
    const uint8_t* planes[AV_NUM_DATA_POINTERS] = {};
    const int planeSize = chunk.samples.size() / qMax(planeCount, 1);
    const auto* data = reinterpret_cast<const uint8_t*>(chunk.samples.constData());
    for (int i = 0; i < planeCount && i < AV_NUM_DATA_POINTERS; ++i)
        planes[i] = data + i * planeSize + from * sampleSize;
    resample(output, planes, int(count));
}

void encodeSilence(MuxerOutput& output, qint64 count)
{
    const AudioFormat& format = *output.audioFormat;
    const bool planar = av_sample_fmt_is_planar(format.sampleFormat);
    const int planeCount = planar ? format.channels : 1;
    const int planeSize = int(count) * av_get_bytes_per_sample(format.sampleFormat) * (planar ? 1 : format.channels);
    AudioChunk silence{QByteArray(planeSize * planeCount, Qt::Uninitialized), count, noCaptureTime};
    uint8_t* planes[AV_NUM_DATA_POINTERS] = {};
    for (int i = 0; i < planeCount && i < AV_NUM_DATA_POINTERS; ++i)
        planes[i] = reinterpret_cast<uint8_t*>(silence.samples.data()) + i * planeSize;
    av_samples_set_silence(planes, 0, int(count), format.channels, format.sampleFormat);
    encodeChunk(output, silence, 0, count);
}

// The capture time the next source sample on the track is due at.
CaptureTime audioDue(const MuxerOutput& output)
{
    // The track's first sample plays one encoder frame into the file.
    const int64_t lead = av_rescale(output.audioFrameSize, AV_TIME_BASE, output.audioContext->sample_rate);
    return output.timeline.start + lead
           + av_rescale(output.timeline.audioPlaced, AV_TIME_BASE, output.audioFormat->sampleRate);
}

// Puts the chunk on the track at the place its capture time gives, sound up
// to `end` (a capture time) only.
void putOnTrack(MuxerOutput& output, const AudioChunk& chunk, CaptureTime end)
{
    Timeline& timeline = output.timeline;
    if (timeline.untimed || timeline.start == noCaptureTime || chunk.captured == noCaptureTime) {
        encodeChunk(output, chunk, 0, chunk.sampleCount);
        return;
    }
    const int rate = output.audioFormat->sampleRate;
    // The start is exact; later the capture times may jitter a little.
    const int64_t tolerance = timeline.audioPlaced == 0 ? 0 : placementTolerance;
    const Placement place = placeChunk(audioDue(output), chunk.captured, chunk.sampleCount, rate, tolerance);
    qint64 silence = place.silence;
    qint64 count = chunk.sampleCount - place.skip;
    if (end != noCaptureTime) {
        const qint64 room = std::max<qint64>(0, av_rescale(end - audioDue(output), rate, AV_TIME_BASE));
        silence = std::min(silence, room);
        count = std::min(count, room - silence);
    }
    if (silence > 0) {
        encodeSilence(output, silence);
        timeline.audioPlaced += silence;
    }
    if (count > 0) {
        encodeChunk(output, chunk, place.skip, count);
        timeline.audioPlaced += count;
    }
}

} // namespace

void encodeAudioStep(MuxerOutput& output)
{
    if (!output.audioFormat)
        return;
    AudioChunk chunk;
    if (takeChunk(output, &chunk))
        putOnTrack(output, chunk, noCaptureTime);
}

void finishAudio(MuxerOutput& output)
{
    if (!output.audioContext || !output.resampler || !output.audioFrame)
        return;
    // All the sound the producer delivered before it stopped belongs in the
    // file: the rest of the queue, what the resampler holds, the short last
    // frame and what the encoder still delays. On the capture clock the
    // sound ends with the picture, and a silent end is filled to there.
    Timeline& timeline = output.timeline;
    if (timeline.start == noCaptureTime && !timeline.untimed)
        fixTimelineStart(timeline);
    CaptureTime end = noCaptureTime;
    if (!timeline.untimed)
        end = timeline.start + int64_t(output.videoFrameCount + 1) * (AV_TIME_BASE / output.frameRate);
    AudioChunk chunk;
    while (takeChunk(output, &chunk))
        putOnTrack(output, chunk, end);
    if (end != noCaptureTime)
        putOnTrack(output, AudioChunk{QByteArray(), 0, end}, end);
    resample(output, nullptr, 0);
    if (output.audioFrameFill > 0)
        encodeAudioFrame(output, std::exchange(output.audioFrameFill, 0));
    encodeFrame(output.formatContext, output.audioContext, output.audioStream, nullptr,
                output.audioPacket);
}

} // namespace orvane

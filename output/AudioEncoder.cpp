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
// Offsets under this are the capture times' unsteadiness on a busy machine
// (tens of milliseconds), made up by playing the sound a little faster or
// slower; beyond, a gap or an overlap. The sound's input, too, takes a jump
// of its stamps this large for a gap.
constexpr int64_t placementJitter = 100000;
constexpr int preferredSampleRate = 44100;

int chooseSampleRate(const AVCodec* codec)
{
    if (!codec->supported_samplerates)
        return preferredSampleRate;
    for (const int* rate = codec->supported_samplerates; *rate; ++rate) {
        if (*rate == preferredSampleRate)
            return preferredSampleRate;
    }
    return codec->supported_samplerates[0];
}

// The encoder's layout with the most channels, else plain stereo.
void chooseChannelLayout(const AVCodec* codec, AVChannelLayout* layout)
{
    if (!codec->ch_layouts) {
        av_channel_layout_default(layout, 2);
        return;
    }
    const AVChannelLayout* best = codec->ch_layouts;
    for (const AVChannelLayout* candidate = codec->ch_layouts; candidate->nb_channels; ++candidate) {
        if (candidate->nb_channels > best->nb_channels)
            best = candidate;
    }
    av_channel_layout_copy(layout, best);
}

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
    const auto configure = [](AVCodecContext* context) {
        const AVCodec* codec = context->codec;
        context->sample_fmt = codec->sample_fmts ? codec->sample_fmts[0] : AV_SAMPLE_FMT_FLTP;
        context->sample_rate = chooseSampleRate(codec);
        chooseChannelLayout(codec, &context->ch_layout);
        context->time_base = AVRational{1, context->sample_rate};
    };
    if (!openStream(output, output.audio, output.outputFormat->audio_codec, configure))
        return false;
    AVCodecContext* context = output.audio.context;
    output.audioFrameSize = (context->codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE)
                                ? variableFrameSize
                                : context->frame_size;

    AVFrame*& frame = output.audio.frame;
    frame = av_frame_alloc();
    if (!frame) {
        qCWarning(lcScreenReel) << "failed to allocate audio frame: " << avErrorText(AVERROR(ENOMEM));
        return false;
    }
    av_channel_layout_copy(&frame->ch_layout, &context->ch_layout);
    frame->nb_samples = output.audioFrameSize;
    frame->format = context->sample_fmt;
    frame->sample_rate = context->sample_rate;
    int result = av_frame_get_buffer(frame, 0);
    if (result < 0) {
        qCWarning(lcScreenReel) << "failed to allocate audio frame: " << avErrorText(result);
        return false;
    }
    result = av_frame_make_writable(frame);
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
    // Always through the resampling filter, even at one rate: a chunk's
    // stretch then never re-opens the resampler (which would lose what it
    // holds).
    av_opt_set_int(output.resampler, "flags", SWR_FLAG_RESAMPLE, 0);
    av_channel_layout_uninit(&inLayout);
    result = swr_init(output.resampler);
    if (result < 0) {
        qCWarning(lcScreenReel) << "Failed to initialize the resampling context: " << avErrorText(result);
        return false;
    }
    return true;
}

namespace {

// Hands the first `samples` of the frame to the encoder, timed by the
// samples up to their end.
void encodeAudioFrame(MuxerOutput& output, int samples)
{
    OutputTrack& audio = output.audio;
    audio.frame->nb_samples = samples;
    audio.count += uint64_t(samples);
    audio.frame->pts = av_rescale_q(int64_t(audio.count), audio.context->time_base, audio.stream->time_base);
    encodeFrame(output.formatContext, audio, audio.frame);
}

// Converts `count` samples per channel and hands every whole frame that comes
// out to the encoder. A null `planes` empties the resampler. The encoder takes
// whole frames only: a short rest stays in the frame until more comes, since
// handing it in short would replay the tail of the frame before.
void resample(MuxerOutput& output, const uint8_t** planes, int count)
{
    AVFrame* frame = output.audio.frame;
    const SampleLayout layout = sampleLayout(AVSampleFormat(frame->format), frame->ch_layout.nb_channels);
    for (;;) {
        uint8_t* outPlanes[AV_NUM_DATA_POINTERS] = {};
        for (int i = 0; i < layout.planes && i < AV_NUM_DATA_POINTERS; ++i)
            outPlanes[i] = frame->data[i] + output.audioFrameFill * layout.sampleBytes;
        const int converted = swr_convert(output.resampler, outPlanes, output.audioFrameSize - output.audioFrameFill,
                                          planes, count);
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

// Takes the oldest chunk off the queue if it is due by the picture's time,
// or at the end (`toEnd`) whatever is left; false when there is none.
bool takeChunk(MuxerOutput& output, AudioChunk* chunk, bool toEnd)
{
    QMutexLocker lock(&output.mutex);
    if (output.audioQueue.isEmpty())
        return false;
    if (!toEnd && !soundDue(output.timeline, output.audioQueue.firstCaptured(), output.video.count,
                            output.frameRate))
        return false;
    return output.audioQueue.take(chunk);
}

// Encodes `count` samples of the chunk from sample `from` on.
void encodeChunk(MuxerOutput& output, const AudioChunk& chunk, qint64 from, qint64 count)
{
    // A planar source carries its planes one after the other in the chunk.
    const AudioFormat& format = *output.audioFormat;
    const SampleLayout layout = sampleLayout(format.sampleFormat, format.channels);
    // Never null, even when empty: a null input would empty the resampler.
    const uint8_t* planes[AV_NUM_DATA_POINTERS] = {};
    const int planeSize = chunk.samples.size() / qMax(layout.planes, 1);
    const auto* data = reinterpret_cast<const uint8_t*>(chunk.samples.constData());
    for (int i = 0; i < layout.planes && i < AV_NUM_DATA_POINTERS; ++i)
        planes[i] = data + i * planeSize + from * layout.sampleBytes;
    resample(output, planes, int(count));
}

// The resampler takes the silence in its own input format; an empty input
// that is not null then gets it out without ending the stream.
void encodeSilence(MuxerOutput& output, qint64 count)
{
    const int result = swr_inject_silence(output.resampler, int(count));
    if (result < 0)
        qCWarning(lcScreenReel) << "failed swr convert: " << avErrorText(result);
    const uint8_t* none[AV_NUM_DATA_POINTERS] = {};
    none[0] = reinterpret_cast<const uint8_t*>("");
    resample(output, none, 0);
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
    // The track's first sample plays one encoder frame into the file.
    const int64_t lead = durationOf(output.audioFrameSize, output.audio.context->sample_rate);
    // The start is exact; later the capture times may jitter.
    const bool placed = timeline.soundPlaced > 0;
    const Placement place = placeChunk(soundNext(timeline, rate, lead), chunk.captured, chunk.sampleCount, rate,
                                       placed ? placementTolerance : 0, qint64(AudioQueue::maxSeconds) * rate, end,
                                       placed ? placementJitter : 0);
    if (place.stretch != 0 && place.keep > 0) {
        const int outRate = output.audio.context->sample_rate;
        const int result = swr_set_compensation(output.resampler, int(av_rescale(place.stretch, outRate, rate)),
                                                int(av_rescale(place.keep, outRate, rate)));
        if (result < 0)
            qCWarning(lcScreenReel) << "failed swr compensation: " << avErrorText(result);
    }
    if (place.silence > 0)
        encodeSilence(output, place.silence);
    if (place.keep > 0)
        encodeChunk(output, chunk, place.skip, place.keep);
    timeline.soundPlaced += place.silence + place.keep + (place.keep > 0 ? place.stretch : 0);
}

} // namespace

void encodeAudioStep(MuxerOutput& output)
{
    if (!output.audioFormat)
        return;
    AudioChunk chunk;
    while (takeChunk(output, &chunk, false))
        putOnTrack(output, chunk, noCaptureTime);
}

void finishAudio(MuxerOutput& output)
{
    if (!output.audio.context || !output.resampler || !output.audio.frame)
        return;
    // All the sound the producer delivered before it stopped belongs in the
    // file: the rest of the queue, what the resampler holds, the short last
    // frame and what the encoder still delays. On the capture clock the
    // sound ends with the picture, and a silent end is filled to there.
    Timeline& timeline = output.timeline;
    if (timeline.start == noCaptureTime && !timeline.untimed)
        fixTimelineStart(timeline);
    const CaptureTime end = pictureEnd(timeline, output.video.count, output.frameRate);
    AudioChunk chunk;
    while (takeChunk(output, &chunk, true))
        putOnTrack(output, chunk, end);
    if (end != noCaptureTime)
        putOnTrack(output, AudioChunk{QByteArray(), 0, end}, end);
    resample(output, nullptr, 0);
    if (output.audioFrameFill > 0)
        encodeAudioFrame(output, std::exchange(output.audioFrameFill, 0));
}

} // namespace orvane

// Measures how far sound and picture of a recording of the flashing scene
// lie apart. Every flash (the top-left patch turns white) comes with a beep
// at the same instant; the first white frame and the beep's onset are found
// in the file, paired, and their distance (audio minus video) followed over
// the recording.
//
//   sync-analyse [--pairs] [--beep HZ] [--max-gap MS] [--max-drift MS_PER_MIN]
//                [--silence AT:FOR] FILE [REFERENCE [OTHER...]]
//
// FILE is judged against REFERENCE: their offsets at the start and at the
// end must lie within the gap limit of each other. OTHER files are measured
// and compared with FILE for information only. The drift is judged only
// when --max-drift is given (a short recording's drift estimate is mostly
// the scatter of its pairs). --silence says the sound stopped AT seconds in
// for FOR seconds: FILE's offset must move across it no more than the gap
// limit beyond what REFERENCE's moved, and its sound must be as long as its
// picture (within 100 ms).
//
// Exit status: 0 when the files could be analysed and FILE is within the
// limits, 1 when a limit is exceeded, 2 when analysis failed.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// A patch pixel counts as white above this (full-range grey).
constexpr int whiteLevel = 230;
// A flash frame has nearly all of its sampled patch white.
constexpr double whiteShare = 0.9;
// Beeps and flashes come once a second: events closer than this are one.
constexpr double minEventGap = 0.5;
// A beep's onset follows at least this much time without it (seconds).
constexpr double quietBeforeOnset = 0.05;
// Offsets at the start and end are medians over this many pairs there:
// a flash is seen up to a frame late, so single pairs scatter by 40 ms.
constexpr size_t edgePairs = 10;

std::string errorText(int error)
{
    char text[64] = {};
    av_strerror(error, text, sizeof text);
    return text;
}

struct Decoder
{
    ~Decoder() { avcodec_free_context(&context); }
    AVStream* stream = nullptr;
    AVCodecContext* context = nullptr;
};

// Everything of one open file; one teardown frees whatever is there.
struct Input
{
    ~Input()
    {
        av_frame_free(&frame);
        av_packet_free(&packet);
        sws_freeContext(grey);
        swr_free(&mono);
        avformat_close_input(&format);
    }
    AVFormatContext* format = nullptr;
    Decoder video;
    Decoder audio;
    AVPacket* packet = nullptr;
    AVFrame* frame = nullptr;
    SwsContext* grey = nullptr;
    SwrContext* mono = nullptr;
    std::vector<uint8_t> greyPixels;
};

struct Events
{
    std::vector<double> flashes;  // seconds, first white frame of each flash
    std::vector<double> beeps;    // seconds, onset of each beep
    double videoStart = NAN;  // the first frame's time
    double videoLength = 0;  // to the end of the last frame
    double audioLength = 0;
};

bool openDecoder(AVFormatContext* format, AVMediaType type, Decoder* decoder, const char* path)
{
    const AVCodec* codec = nullptr;
    const int index = av_find_best_stream(format, type, -1, -1, &codec, 0);
    if (index < 0 || !codec) {
        std::fprintf(stderr, "%s: no %s stream\n", path, av_get_media_type_string(type));
        return false;
    }
    decoder->stream = format->streams[index];
    decoder->context = avcodec_alloc_context3(codec);
    if (!decoder->context)
        return false;
    avcodec_parameters_to_context(decoder->context, decoder->stream->codecpar);
    decoder->context->pkt_timebase = decoder->stream->time_base;
    const int result = avcodec_open2(decoder->context, codec, nullptr);
    if (result < 0) {
        std::fprintf(stderr, "%s: cannot open the %s decoder: %s\n", path,
                     av_get_media_type_string(type), errorText(result).c_str());
        return false;
    }
    return true;
}

double frameTime(const AVFrame* frame, const AVStream* stream)
{
    const int64_t pts = frame->best_effort_timestamp != AV_NOPTS_VALUE ? frame->best_effort_timestamp
                                                                       : frame->pts;
    return pts == AV_NOPTS_VALUE ? NAN : double(pts) * av_q2d(stream->time_base);
}

// Follows the patch from frame to frame; a flash starts where it turns white.
class FlashFinder
{
public:
    void add(Input& in, const AVFrame* frame, Events* events)
    {
        const double time = frameTime(frame, in.video.stream);
        const int w = frame->width;
        const int h = frame->height;
        in.grey = sws_getCachedContext(in.grey, w, h, AVPixelFormat(frame->format), w, h,
                                       AV_PIX_FMT_GRAY8, SWS_POINT, nullptr, nullptr, nullptr);
        if (!in.grey)
            return;
        in.greyPixels.resize(size_t(w) * size_t(h));
        uint8_t* planes[4] = {in.greyPixels.data(), nullptr, nullptr, nullptr};
        const int strides[4] = {w, 0, 0, 0};
        sws_scale(in.grey, frame->data, frame->linesize, 0, h, planes, strides);

        // The patch covers the top-left quarter; its edges are left out.
        const int x0 = w / 32, x1 = w / 4 - w / 32;
        const int y0 = h / 32, y1 = h / 4 - h / 32;
        long white = 0, all = 0;
        for (int y = y0; y < y1; y += 2) {
            const uint8_t* row = in.greyPixels.data() + size_t(y) * size_t(w);
            for (int x = x0; x < x1; x += 2) {
                white += row[x] >= whiteLevel;
                ++all;
            }
        }
        const bool flash = all > 0 && double(white) >= whiteShare * double(all);
        // A flash already on in the first frame began before the recording.
        if (flash && seenDark && !lastWasFlash && std::isfinite(time)
            && (events->flashes.empty() || time - events->flashes.back() > minEventGap))
            events->flashes.push_back(time);
        lastWasFlash = flash;
        seenDark = seenDark || !flash;
        // A frame lasts until the next one is due.
        const AVRational rate = in.video.stream->avg_frame_rate;
        const double length = rate.num > 0 ? av_q2d(av_inv_q(rate)) : 0.0;
        if (std::isfinite(time)) {
            if (std::isnan(events->videoStart))
                events->videoStart = time;
            events->videoLength = std::max(events->videoLength, time + length);
        }
    }

private:
    bool lastWasFlash = false;
    bool seenDark = false;
};

// Collects the sound as one mono track placed by its timestamps, so a gap in
// the file stays a gap in time.
class SoundTrack
{
public:
    bool add(Input& in, const AVFrame* frame)
    {
        if (!in.mono) {
            rate = frame->sample_rate;
            AVChannelLayout monoLayout = AV_CHANNEL_LAYOUT_MONO;
            AVChannelLayout inLayout{};
            av_channel_layout_copy(&inLayout, &frame->ch_layout);
            const int result = swr_alloc_set_opts2(&in.mono, &monoLayout, AV_SAMPLE_FMT_FLT, rate, &inLayout,
                                                   AVSampleFormat(frame->format), rate, 0, nullptr);
            av_channel_layout_uninit(&inLayout);
            if (result < 0 || swr_init(in.mono) < 0)
                return false;
        }
        const double time = frameTime(frame, in.audio.stream);
        std::vector<float> converted(size_t(frame->nb_samples));
        uint8_t* out[1] = {reinterpret_cast<uint8_t*>(converted.data())};
        const int count = swr_convert(in.mono, out, frame->nb_samples,
                                      const_cast<const uint8_t**>(frame->extended_data), frame->nb_samples);
        if (count <= 0)
            return count == 0;
        if (std::isnan(start))
            start = std::isfinite(time) ? time : 0.0;
        size_t at = samples.size();
        if (std::isfinite(time)) {
            const long long placed = std::llround((time - start) * rate);
            // Small jitter in timestamps is not a gap.
            if (placed >= 0 && std::llabs(placed - (long long)samples.size()) > rate / 1000)
                at = size_t(placed);
        }
        if (samples.size() < at + size_t(count))
            samples.resize(at + size_t(count), 0.0f);
        std::copy(converted.begin(), converted.begin() + count, samples.begin() + long(at));
        return true;
    }

    // Onsets of the tone at `frequency`: a Hann-windowed single-bin DFT
    // (Goertzel) over 10 ms windows every millisecond; the onset is where its
    // amplitude crosses half-way from the floor to the beep's level, which a
    // symmetric window reaches when the tone fills half of it: the window's
    // centre then lies on the onset.
    void findOnsets(double frequency, Events* events) const
    {
        if (samples.empty() || rate <= 0)
            return;
        const size_t window = size_t(rate / 100);
        const size_t hop = std::max<size_t>(1, size_t(rate / 1000));
        std::vector<double> hann(window);
        double weight = 0;
        for (size_t i = 0; i < window; ++i) {
            hann[i] = 0.5 - 0.5 * std::cos(2 * M_PI * double(i) / double(window - 1));
            weight += hann[i];
        }
        const double coefficient = 2 * std::cos(2 * M_PI * frequency / rate);
        std::vector<double> amplitude;
        for (size_t begin = 0; begin + window <= samples.size(); begin += hop) {
            double s1 = 0, s2 = 0;
            for (size_t i = 0; i < window; ++i) {
                const double s0 = double(samples[begin + i]) * hann[i] + coefficient * s1 - s2;
                s2 = s1;
                s1 = s0;
            }
            const double power = s1 * s1 + s2 * s2 - coefficient * s1 * s2;
            amplitude.push_back(2 * std::sqrt(std::max(0.0, power)) / weight);
        }
        if (amplitude.size() < 2)
            return;
        // Beeps fill an eighth of the time: the median is the floor, the
        // 95th percentile the beep's level.
        std::vector<double> sorted = amplitude;
        std::sort(sorted.begin(), sorted.end());
        const double floor = sorted[sorted.size() / 2];
        const double level = sorted[sorted.size() * 95 / 100];
        if (level < 4 * floor + 1e-4)
            return;  // no beeps to be heard
        const double threshold = (floor + level) / 2;
        // An onset needs quiet before it: a beep under way when the sound
        // starts (after the encoder's silent lead-in) began before it.
        const size_t quiet = size_t(quietBeforeOnset * 1000);
        size_t quietSince = 0;
        bool wasQuiet = false;
        for (size_t k = 1; k < amplitude.size(); ++k) {
            if (amplitude[k - 1] >= threshold) {
                wasQuiet = false;
                continue;
            }
            if (!wasQuiet) {
                wasQuiet = true;
                quietSince = k - 1;
            }
            if (amplitude[k] < threshold || k - 1 - quietSince < quiet)
                continue;
            const double fraction = (threshold - amplitude[k - 1]) / (amplitude[k] - amplitude[k - 1]);
            const double time = start + ((double(k - 1) + fraction) * double(hop) + double(window) / 2) / rate;
            if (events->beeps.empty() || time - events->beeps.back() > minEventGap)
                events->beeps.push_back(time);
        }
        events->audioLength = start + double(samples.size()) / rate;
    }

private:
    int rate = 0;
    double start = NAN;
    std::vector<float> samples;
};

template<typename Handle>
bool drain(Input& in, Decoder& decoder, Handle handle)
{
    for (;;) {
        const int result = avcodec_receive_frame(decoder.context, in.frame);
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
            return true;
        if (result < 0)
            return false;
        const bool ok = handle(in.frame);
        av_frame_unref(in.frame);
        if (!ok)
            return false;
    }
}

bool analyse(const char* path, double beepHz, Events* events)
{
    Input in;
    int result = avformat_open_input(&in.format, path, nullptr, nullptr);
    if (result < 0) {
        std::fprintf(stderr, "%s: %s\n", path, errorText(result).c_str());
        return false;
    }
    if (avformat_find_stream_info(in.format, nullptr) < 0
        || !openDecoder(in.format, AVMEDIA_TYPE_VIDEO, &in.video, path)
        || !openDecoder(in.format, AVMEDIA_TYPE_AUDIO, &in.audio, path))
        return false;
    in.packet = av_packet_alloc();
    in.frame = av_frame_alloc();
    if (!in.packet || !in.frame)
        return false;

    FlashFinder flashes;
    SoundTrack sound;
    const auto onVideo = [&](const AVFrame* f) {
        flashes.add(in, f, events);
        return true;
    };
    const auto onAudio = [&](const AVFrame* f) { return sound.add(in, f); };
    while ((result = av_read_frame(in.format, in.packet)) >= 0) {
        bool ok = true;
        if (in.packet->stream_index == in.video.stream->index) {
            if (avcodec_send_packet(in.video.context, in.packet) >= 0)
                ok = drain(in, in.video, onVideo);
        } else if (in.packet->stream_index == in.audio.stream->index) {
            if (avcodec_send_packet(in.audio.context, in.packet) >= 0)
                ok = drain(in, in.audio, onAudio);
        }
        av_packet_unref(in.packet);
        if (!ok) {
            std::fprintf(stderr, "%s: decoding failed\n", path);
            return false;
        }
    }
    avcodec_send_packet(in.video.context, nullptr);
    drain(in, in.video, onVideo);
    avcodec_send_packet(in.audio.context, nullptr);
    drain(in, in.audio, onAudio);
    sound.findOnsets(beepHz, events);
    return true;
}

struct Pair
{
    double time;    // of the flash
    double offset;  // beep minus flash, seconds
};

struct Summary
{
    std::vector<Pair> pairs;
    double videoStart = NAN;
    double videoLength = 0;
    double audioLength = 0;
    double start = NAN;   // ms
    double end = NAN;     // ms
    double drift = NAN;   // ms per minute
};

// Medians and the Theil-Sen slope: the first second of a recording is
// often off by tens of milliseconds, and one such pair must not decide the
// start or the drift.
double median(std::vector<double> values)
{
    const size_t middle = values.size() / 2;
    std::nth_element(values.begin(), values.begin() + long(middle), values.end());
    double m = values[middle];
    if (values.size() % 2 == 0)
        m = (m + *std::max_element(values.begin(), values.begin() + long(middle))) / 2;
    return m;
}

double medianOffset(std::vector<Pair>::const_iterator begin, std::vector<Pair>::const_iterator end)
{
    std::vector<double> offsets;
    for (auto p = begin; p != end; ++p)
        offsets.push_back(p->offset);
    return median(offsets) * 1000.0;
}

Summary summarise(const Events& events)
{
    Summary s;
    s.videoStart = events.videoStart;
    s.videoLength = events.videoLength;
    s.audioLength = events.audioLength;
    for (const double flash : events.flashes) {
        const auto nearest = std::min_element(events.beeps.begin(), events.beeps.end(),
                                              [flash](double a, double b) {
                                                  return std::abs(a - flash) < std::abs(b - flash);
                                              });
        if (nearest != events.beeps.end() && std::abs(*nearest - flash) < minEventGap)
            s.pairs.push_back({flash, *nearest - flash});
    }
    if (s.pairs.size() < 2)
        return s;
    const size_t n = std::min(edgePairs, s.pairs.size());
    s.start = medianOffset(s.pairs.begin(), s.pairs.begin() + long(n));
    s.end = medianOffset(s.pairs.end() - long(n), s.pairs.end());
    std::vector<double> slopes;
    slopes.reserve(s.pairs.size() * (s.pairs.size() - 1) / 2);
    for (size_t i = 0; i < s.pairs.size(); ++i) {
        for (size_t j = i + 1; j < s.pairs.size(); ++j) {
            const double dt = s.pairs[j].time - s.pairs[i].time;
            if (dt > 0)
                slopes.push_back((s.pairs[j].offset - s.pairs[i].offset) / dt);
        }
    }
    s.drift = slopes.empty() ? 0.0 : median(slopes) * 1000.0 * 60.0;
    return s;
}

void print(const char* path, const Events& events, const Summary& s, bool pairs)
{
    std::printf("%s\n", path);
    std::printf("  %zu flashes, %zu beeps, %zu pairs; picture %.1f s, sound %.1f s\n", events.flashes.size(),
                events.beeps.size(), s.pairs.size(), events.videoLength, events.audioLength);
    if (s.pairs.empty())
        return;
    double low = s.pairs.front().offset, high = low;
    for (const Pair& p : s.pairs) {
        low = std::min(low, p.offset);
        high = std::max(high, p.offset);
    }
    std::printf("  offset (audio minus video): start %+.1f ms, end %+.1f ms, range %+.1f..%+.1f ms\n",
                s.start, s.end, low * 1000, high * 1000);
    std::printf("  drift %+.2f ms/min\n", s.drift);
    if (pairs) {
        for (const Pair& p : s.pairs)
            std::printf("    flash %8.3f s  beep %+7.1f ms\n", p.time, p.offset * 1000);
    }
}

// The offset just before a silence AT seconds into the recording, FOR
// seconds long, and just after it (ms); false without pairs on both sides.
// Flashes well before and well after it: the sound's times settle within a
// second or two after it.
bool acrossSilence(const Summary& s, double at, double length, double* was, double* is)
{
    const double start = std::isfinite(s.videoStart) ? s.videoStart : 0.0;
    std::vector<Pair> before, after;
    for (const Pair& p : s.pairs) {
        if (p.time - start < at - 1)
            before.push_back(p);
        else if (p.time - start > at + length + 2.5)
            after.push_back(p);
    }
    if (before.empty() || after.empty())
        return false;
    const size_t n = std::min({edgePairs, before.size(), after.size()});
    *was = medianOffset(before.end() - long(n), before.end());
    *is = medianOffset(after.begin(), after.begin() + long(n));
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    double beepHz = 1000;
    double maxGap = 45;
    double maxDrift = NAN;  // not judged
    double silenceAt = -1, silenceFor = 0;
    bool pairs = false;
    std::vector<const char*> files;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--pairs") {
            pairs = true;
        } else if ((arg == "--beep" || arg == "--max-gap" || arg == "--max-drift") && i + 1 < argc) {
            const double value = std::atof(argv[++i]);
            (arg == "--beep" ? beepHz : arg == "--max-gap" ? maxGap : maxDrift) = value;
        } else if (arg == "--silence" && i + 1 < argc
                   && std::sscanf(argv[++i], "%lf:%lf", &silenceAt, &silenceFor) == 2) {
        } else if (arg == "-h" || arg == "--help" || arg.rfind("--", 0) == 0) {
            std::fprintf(stderr,
                         "usage: %s [--pairs] [--beep HZ] [--max-gap MS] [--max-drift MS_PER_MIN]"
                         " [--silence AT:FOR] FILE [REFERENCE [OTHER...]]\n",
                         argv[0]);
            return 2;
        } else {
            files.push_back(argv[i]);
        }
    }
    if (files.empty()) {
        std::fprintf(stderr, "no file given\n");
        return 2;
    }
    av_log_set_level(AV_LOG_ERROR);

    // A file compared for information only that cannot be measured is
    // reported and left out; the judged file and its reference must be.
    std::vector<Summary> summaries;
    std::vector<const char*> measured;
    for (const char* path : files) {
        const bool judged = measured.size() < 2;
        Events events;
        if (!analyse(path, beepHz, &events)) {
            if (judged)
                return 2;
            continue;
        }
        const Summary summary = summarise(events);
        print(path, events, summary, pairs);
        if (summary.pairs.size() < 2) {
            std::fprintf(stderr, "%s: too few flash and beep pairs to measure\n", path);
            if (judged)
                return 2;
            continue;
        }
        summaries.push_back(summary);
        measured.push_back(path);
    }

    const Summary& ours = summaries.front();
    bool within = true;
    if (std::isnan(maxDrift)) {
        std::printf("drift %+.2f ms/min (not judged)\n", ours.drift);
    } else {
        const bool steady = std::abs(ours.drift) < maxDrift;
        within = steady;
        std::printf("drift %+.2f ms/min (limit %.0f): %s\n", ours.drift, maxDrift, steady ? "within" : "OUTSIDE");
    }
    for (size_t i = 1; i < summaries.size(); ++i) {
        const Summary& ref = summaries[i];
        const double atStart = ours.start - ref.start;
        const double atEnd = ours.end - ref.end;
        if (i > 1) {
            std::printf("first minus %s: start %+.1f ms, end %+.1f ms (for comparison)\n", measured[i], atStart,
                        atEnd);
            continue;
        }
        const bool close = std::abs(atStart) <= maxGap && std::abs(atEnd) <= maxGap;
        within = within && close;
        std::printf("first minus %s: start %+.1f ms, end %+.1f ms (limit %.0f): %s\n", measured[i], atStart,
                    atEnd, maxGap, close ? "within" : "OUTSIDE");
    }
    if (silenceAt >= 0) {
        double was = 0, is = 0;
        if (!acrossSilence(ours, silenceAt, silenceFor, &was, &is)) {
            std::fprintf(stderr, "too few pairs before or after the silence\n");
            return 2;
        }
        // What the scene itself moved across the silence (its sound stream
        // is placed anew after a suspended sink) moves the reference too:
        // ours is judged by how far it moved beyond that.
        double refWas = 0, refIs = 0;
        const bool referenced = summaries.size() > 1
                                && acrossSilence(summaries[1], silenceAt, silenceFor, &refWas, &refIs);
        const double moved = (is - was) - (referenced ? refIs - refWas : 0.0);
        const bool kept = std::abs(moved) <= maxGap;
        if (referenced)
            std::printf("silence: the reference moved %+.1f ms across it\n", refIs - refWas);
        const double longer = (ours.audioLength - ours.videoLength) * 1000;
        const bool even = std::abs(longer) <= 100;
        within = within && kept && even;
        std::printf("silence at %.0f s for %.0f s: offset before %+.1f ms, after %+.1f ms, moved %+.1f ms,"
                    " %+.1f beyond the reference (limit %.0f): %s\n",
                    silenceAt, silenceFor, was, is, is - was, moved, maxGap, kept ? "within" : "OUTSIDE");
        std::printf("sound minus picture: %+.0f ms (limit 100): %s\n", longer, even ? "within" : "OUTSIDE");
    }
    return within ? 0 : 1;
}

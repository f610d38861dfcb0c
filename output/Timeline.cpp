#include "Timeline.h"

#include "pipeline/Logging.h"

#include <algorithm>
#include <cmath>

extern "C" {
#include <libavutil/avutil.h>
#include <libavutil/mathematics.h>
}

namespace orvane {

using namespace std::chrono_literals;

namespace {

// The grabber catches up on the time since it was opened with a burst of
// frames at first. After that, the ticks' phase is chosen by how long the
// images of the rest of the first second waited for their tick: an image
// that arrives a hair before its tick is as likely taken one tick later,
// and the picture then shows some images a frame later than others. Then
// the timeline's start is the median over the next second's new images, so
// that one taken a tick late (the machine was busy) cannot decide it.
constexpr uint64_t burstTicks = 10;
constexpr uint64_t settleTicks = 25;
constexpr uint64_t measureTicks = 25;
// Later the images are looked at every two seconds: when the machine's load
// changes, so can the time an image takes to reach its tick, and the
// picture then shows what was captured that much later or earlier. A start
// that two looks in a row find this far off moves, and the sound with it.
constexpr size_t lookImages = 50;
constexpr std::chrono::microseconds moveAtLeast = 20ms;

} // namespace

int64_t durationOf(int64_t count, int rate)
{
    return av_rescale(count, AV_TIME_BASE, rate);
}

void fixTimelineStart(Timeline& timeline)
{
    if (timeline.starts.empty()) {
        timeline.untimed = true;
        return;
    }
    timeline.start = median(timeline.starts);
    timeline.starts.clear();
}

std::chrono::microseconds tickDelay(const std::vector<double>& waits, int frameRate)
{
    if (waits.empty())
        return {};
    // The waits lie on a circle of one tick: an image that just missed its
    // tick waits nearly a whole one.
    const double tick = 1000.0 / frameRate;
    const double pi = std::acos(-1.0);  // M_PI is POSIX's, not standard C++
    double x = 0, y = 0;
    for (const double wait : waits) {
        x += std::cos(2 * pi * wait / tick);
        y += std::sin(2 * pi * wait / tick);
    }
    const double typical = std::atan2(y, x) / (2 * pi) * tick;
    const double delay = std::fmod(std::fmod(tick / 2 - typical, tick) + tick, tick);
    return std::chrono::microseconds(int64_t(delay * 1000));
}

void noteImage(Timeline& timeline, CaptureTime captured, std::chrono::microseconds waited, uint64_t frames,
               int frameRate)
{
    if (timeline.untimed)
        return;
    if (captured == noCaptureTime) {
        timeline.untimed = true;
        return;
    }
    const CaptureTime start = captured - durationOf(int64_t(frames), frameRate);
    if (timeline.start != noCaptureTime) {
        timeline.starts.push_back(start);
        if (timeline.starts.size() < lookImages)
            return;
        const CaptureTime look = median(timeline.starts);
        timeline.starts.clear();
        if (std::abs(look - timeline.start) >= moveAtLeast.count() && timeline.lastLook != noCaptureTime
            && std::abs(look - timeline.lastLook) < moveAtLeast.count()) {
            // The sound follows, stretched or squeezed into place (a move
            // of more than the capture times' jitter: a silence or a cut).
            qCDebug(lcScreenReel) << "the picture's start moved by" << (look - timeline.start) / 1000 << "ms";
            timeline.start = look;
        }
        timeline.lastLook = look;
        return;
    }
    if (timeline.firstFrame == 0)
        timeline.firstFrame = frames;
    const uint64_t since = frames - timeline.firstFrame;
    if (since >= burstTicks && since < settleTicks)
        timeline.waits.push_back(double(waited.count()) / 1000.0);
    if (since >= settleTicks && !timeline.settled) {
        // The ticks move from the next one on. What was measured so far
        // stands in only for a recording that ends before the next second.
        timeline.delay = tickDelay(timeline.waits, frameRate);
        timeline.waits = {};
        timeline.starts.clear();
        timeline.settled = true;
        return;
    }
    timeline.starts.push_back(start);
    if (since >= settleTicks + measureTicks)
        fixTimelineStart(timeline);
}

CaptureTime pictureEnd(const Timeline& timeline, uint64_t frames, int frameRate)
{
    if (timeline.untimed || timeline.start == noCaptureTime)
        return noCaptureTime;
    return timeline.start + durationOf(int64_t(frames) + 1, frameRate);
}

bool soundDue(const Timeline& timeline, CaptureTime captured, uint64_t frames, int frameRate)
{
    if (timeline.untimed || captured == noCaptureTime)
        return true;
    const CaptureTime end = pictureEnd(timeline, frames, frameRate);
    return end != noCaptureTime && captured < end;
}

CaptureTime soundNext(const Timeline& timeline, int rate, int64_t lead)
{
    return timeline.start + lead + durationOf(timeline.soundPlaced, rate);
}

Placement placeChunk(CaptureTime due, CaptureTime captured, qint64 count, int rate, int64_t tolerance,
                     qint64 maxSilence, CaptureTime end, int64_t jitter)
{
    Placement place;
    const int64_t offset = captured - due;
    const qint64 samples = av_rescale(std::abs(offset), rate, AV_TIME_BASE);
    if (std::abs(offset) > tolerance && std::abs(offset) < jitter && count > 0) {
        // Half a percent: a tone moves by less than a tenth of a semitone.
        const qint64 stretch = std::min(samples, std::max<qint64>(1, count / 200));
        place.stretch = offset < 0 ? -stretch : stretch;
    } else if (std::abs(offset) > tolerance) {
        if (offset < 0)
            place.skip = std::min(samples, count);
        else
            place.silence = std::min(samples, maxSilence);
    }
    place.keep = count - place.skip;
    if (end != noCaptureTime) {
        const qint64 room = std::max<qint64>(0, av_rescale(end - due, rate, AV_TIME_BASE));
        place.silence = std::min(place.silence, room);
        place.keep = std::min(place.keep, std::max<qint64>(0, room - place.silence - place.stretch));
    }
    return place;
}

bool videoBehind(uint64_t frames, int frameRate, uint64_t samples, int sampleRate)
{
    // In whole numbers: the sound's position beyond the picture's by more
    // than ten frames.
    return samples * uint64_t(frameRate) > (frames + 10) * uint64_t(sampleRate);
}

} // namespace orvane

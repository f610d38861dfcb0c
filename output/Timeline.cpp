// The two tracks on the capture clock. The picture's track is timed by the
// Muxer's ticks; where the inputs give capture times, its start on that
// clock is measured, and the sound is placed by its own capture times from
// there: what was captured before the picture began is cut off, and a gap
// in the sound becomes as much silence, so both keep real time.

#include "MuxerOutput.h"

#include <algorithm>

extern "C" {
#include <libavutil/mathematics.h>
}

namespace orvane {

namespace {

// Images measured before the start is fixed: one taken a tick late (the
// machine was busy) must not decide it. At most this many ticks are spent.
constexpr size_t startImages = 9;
constexpr uint64_t startTicks = 25;

} // namespace

void noteImage(MuxerOutput& output, CaptureTime captured)
{
    Timeline& timeline = output.timeline;
    if (timeline.start != noCaptureTime || timeline.untimed)
        return;
    if (captured == noCaptureTime) {
        timeline.untimed = true;
        return;
    }
    const int64_t frame = AV_TIME_BASE / output.frameRate;
    if (timeline.starts.empty())
        timeline.firstFrame = output.videoFrameCount;
    timeline.starts.push_back(captured - int64_t(output.videoFrameCount) * frame);
    if (timeline.starts.size() < startImages
        && output.videoFrameCount < timeline.firstFrame + startTicks)
        return;
    auto middle = timeline.starts.begin() + timeline.starts.size() / 2;
    std::nth_element(timeline.starts.begin(), middle, timeline.starts.end());
    timeline.start = *middle;
    timeline.starts = {};
}

Placement placeChunk(CaptureTime due, CaptureTime captured, qint64 count, int rate, int64_t tolerance)
{
    const int64_t offset = captured - due;
    if (std::abs(offset) <= tolerance)
        return {};
    const qint64 samples = av_rescale(std::abs(offset), rate, AV_TIME_BASE);
    if (offset < 0)
        return {std::min(samples, count), 0};
    return {0, std::min<qint64>(samples, qint64(AudioQueue::maxSeconds) * rate)};
}

} // namespace orvane

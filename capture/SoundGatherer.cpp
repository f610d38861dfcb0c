#include "SoundGatherer.h"

#include "pipeline/AudioFormat.h"

#include <algorithm>

extern "C" {
#include <libavutil/avutil.h>
#include <libavutil/mathematics.h>
}

namespace orvane {

using namespace std::chrono_literals;

namespace {

// A piece is a tick of the recording's 25 frames a second.
constexpr std::chrono::milliseconds pieceLength = 40ms;
// A stretch is placed once this much of its sound has come, by the stamps
// from `settleFrom` on, over the last `window`.
constexpr std::chrono::milliseconds settleAfter = 1500ms, settleFrom = 750ms, window = 2000ms;
// A stamp this far from the settled place of its stretch comes after a gap.
constexpr std::chrono::microseconds gapAtLeast = 100ms;

} // namespace

SoundGatherer::SoundGatherer(AVSampleFormat format, int channels, int rate, Push push)
    : rate(rate)
    , planeCount(sampleLayout(format, channels).planes)
    , push(std::move(push))
    , pieceSamples(samples(pieceLength))
{
    startPiece();
}

int64_t SoundGatherer::duration(qint64 samples) const
{
    return av_rescale(samples, AV_TIME_BASE, rate);
}

qint64 SoundGatherer::samples(std::chrono::milliseconds length) const
{
    return av_rescale_rnd(length.count(), rate, 1000, AV_ROUND_UP);
}

void SoundGatherer::startPiece()
{
    current = Piece{std::vector<QByteArray>(size_t(planeCount)), 0, next};
}

void SoundGatherer::add(const uint8_t* const* planes, int lineSize, int count, CaptureTime stamped)
{
    if (stamped == noCaptureTime)
        timed = false;
    const int64_t stampOffset = timed ? stamped - duration(next) : 0;
    if (timed && settled && std::chrono::microseconds(std::abs(stampOffset - offset)) >= gapAtLeast) {
        // A gap: what came before is placed by its own stretch.
        if (current.count > 0)
            waiting.push_back(std::move(current));
        startPiece();
        releaseWaiting(offset);
        stretchBegin = next;
        stamps.clear();
        settled = false;
    }
    if (timed) {
        stamps.push_back({next, stampOffset});
        while (stamps.front().sample < next - samples(window))
            stamps.pop_front();
    }
    for (int i = 0; i < planeCount; ++i)
        current.planes[size_t(i)].append(reinterpret_cast<const char*>(planes[i]), lineSize);
    current.count += count;
    next += count;
    if (current.count >= pieceSamples) {
        waiting.push_back(std::move(current));
        startPiece();
    }
    if (!timed) {
        releaseWaiting(noCaptureTime);
        return;
    }
    if (!settledOffset(false, &offset))
        return;
    settled = true;
    releaseWaiting(offset);
}

bool SoundGatherer::settledOffset(bool final, int64_t* result)
{
    const qint64 span = next - stretchBegin;
    if (!final && span < samples(settleAfter))
        return false;
    // The stamps after the swing; at the end of a short stretch its later half.
    const qint64 from = stretchBegin + std::min(samples(settleFrom), span / 2);
    std::vector<int64_t> offsets;
    for (const Stamp& stamp : stamps) {
        if (stamp.sample >= from)
            offsets.push_back(stamp.offset);
    }
    if (offsets.empty()) {
        if (stamps.empty())
            return false;
        offsets.push_back(stamps.back().offset);
    }
    *result = median(offsets);
    return true;
}

void SoundGatherer::flush()
{
    int64_t estimate = offset;
    const bool placed = timed && (settled || settledOffset(true, &estimate));
    if (current.count > 0)
        waiting.push_back(std::move(current));
    startPiece();
    releaseWaiting(placed ? estimate : noCaptureTime);
}

void SoundGatherer::releaseWaiting(CaptureTime stretchOffset)
{
    for (; !waiting.empty(); waiting.pop_front()) {
        Piece& piece = waiting.front();
        QByteArray samples = std::move(piece.planes[0]);
        for (size_t i = 1; i < piece.planes.size(); ++i)
            samples.append(piece.planes[i]);
        push(samples, piece.count,
             stretchOffset == noCaptureTime ? noCaptureTime : stretchOffset + duration(piece.first));
    }
}

} // namespace orvane

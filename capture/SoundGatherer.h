#pragma once

#include "pipeline/CaptureTime.h"

#include <QByteArray>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

extern "C" {
#include <libavutil/samplefmt.h>
}

namespace orvane {

// Gathers the decoded sound of one input into pieces of at least a tick of
// the consumer (40 ms: fewer, larger hand-overs), each with the capture time
// of its first sample. Planes travel one after the other in a piece.
//
// The sound inputs stamp each packet with the system clock less the latency
// the sound server reports. That figure swings for about a second after the
// stream starts and after each gap in it (a suspended or starved source), by
// up to half a second, before it settles within ten milliseconds. Within a
// stretch without a gap the samples follow each other at the sample rate, so
// the stretch's place on the clock is one number: it is taken from the
// settled stamps, and the pieces of a stretch wait until it is known. A
// stamp far from it starts a new stretch, after a gap.
class SoundGatherer
{
public:
    using Push = std::function<void(const QByteArray& samples, qint64 count, CaptureTime captured)>;

    SoundGatherer(AVSampleFormat format, int channels, int rate, Push push);

    // Adds `count` samples per channel, `lineSize` bytes in each plane, that
    // the input stamped `stamped` (noCaptureTime: it gives no times).
    void add(const uint8_t* const* planes, int lineSize, int count, CaptureTime stamped);
    // Hands on everything still held, timed as well as what came allows.
    void flush();

private:
    struct Piece
    {
        std::vector<QByteArray> planes;
        qint64 count = 0;  // samples per channel
        qint64 first = 0;  // the stream's number of its first sample
    };
    struct Stamp
    {
        qint64 sample;      // the stream's number of the first sample stamped
        int64_t offset;     // stamp less the time of that many samples
    };

    int64_t duration(qint64 samples) const;
    // Samples in `length`, rounded up.
    qint64 samples(std::chrono::milliseconds length) const;
    void startPiece();
    // Hands on the waiting pieces, placed by their stretch's offset (or none).
    void releaseWaiting(CaptureTime stretchOffset);
    // The offset of the stretch by the stamps that have settled; false while
    // too few have come.
    bool settledOffset(bool final, int64_t* offset);

    const int rate;
    const int planeCount;
    const Push push;
    const qint64 pieceSamples;
    qint64 next = 0;               // the stream's number of the next sample
    Piece current;
    std::deque<Piece> waiting;     // whole pieces of a stretch not yet placed
    qint64 stretchBegin = 0;       // the stream's number of its first sample
    std::deque<Stamp> stamps;      // of the stretch, the last few seconds
    bool settled = false;
    int64_t offset = 0;            // the stretch's, once settled
    bool timed = true;
};

} // namespace orvane

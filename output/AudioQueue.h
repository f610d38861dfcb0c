#pragma once

#include "pipeline/CaptureTime.h"

#include <QByteArray>
#include <QList>

namespace orvane {

// Samples of one writeAudio call, shared with the caller.
struct AudioChunk
{
    QByteArray samples;
    qint64 sampleCount = 0;  // per channel
    CaptureTime captured = noCaptureTime;  // of the first sample
};

// The sound waiting for the Muxer thread, oldest first. It holds at most
// ten seconds: beyond that the machine is not keeping up, and the oldest
// chunks are dropped (with one warning a spell) rather than memory growing
// for the whole recording. Their capture times show the loss to the track.
// Not locked itself: the Muxer's mutex guards it.
class AudioQueue
{
public:
    static constexpr int maxSeconds = 10;

    explicit AudioQueue(int sampleRate);

    // The audio thread, under the Muxer's mutex; never waits.
    void append(const AudioChunk& chunk);
    // The Muxer thread, under the mutex, as the three below. False when empty.
    bool take(AudioChunk* chunk);
    bool isEmpty() const { return chunks.isEmpty(); }
    qint64 queuedSamples() const { return queued; }
    // The capture time of the oldest chunk; noCaptureTime when there is none.
    CaptureTime firstCaptured() const { return chunks.isEmpty() ? noCaptureTime : chunks.first().captured; }

private:
    const qint64 limit;  // samples per channel
    QList<AudioChunk> chunks;
    qint64 queued = 0;   // samples per channel in `chunks`
    bool full = false;   // a drop has been reported
};

} // namespace orvane

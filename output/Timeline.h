#pragma once

#include "pipeline/CaptureTime.h"

#include <QtGlobal>

#include <chrono>
#include <cstdint>
#include <vector>

namespace orvane {

// The rules of the recording's clocks, on counts and rates alone. The
// picture's track is timed by the Muxer's ticks (frames, lost ticks
// included); where the inputs give capture times its start on that clock is
// measured, and the sound is placed by its own capture times from there:
// what was captured before the picture began is cut off, and a gap in the
// sound becomes as much silence, so both keep real time. Where they give
// none, the counters alone time the tracks and the picture follows the sound.
//
// Where the picture's track stands on the capture clock. Muxer thread only.
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
    qint64 soundPlaced = 0;           // source samples on the sound's track, silence included
};

// Microseconds of `count` at `rate` a second.
int64_t durationOf(int64_t count, int rate);

// The start. A new image of capture time `captured`, handed in `waited`
// before its tick, became the picture of frame `frames` (the video clock):
// measurements of the ticks' phase and of the start.
void noteImage(Timeline& timeline, CaptureTime captured, std::chrono::microseconds waited, uint64_t frames,
               int frameRate);
// Fixes the start by what has been measured, if anything (else the tracks
// are timed by the counters alone).
void fixTimelineStart(Timeline& timeline);
// The delay of the ticks that makes images wait half a tick on average, from
// how long they waited (milliseconds, each within a tick).
std::chrono::microseconds tickDelay(const std::vector<double>& waits, int frameRate);

// The end: the capture time where the picture ends when its last frame is
// frame `frames` of the video clock (shown for a tick from `frames` ticks
// after the start); noCaptureTime while there is no start on the capture
// clock.
CaptureTime pictureEnd(const Timeline& timeline, uint64_t frames, int frameRate);
// What is due: whether sound captured at `captured` goes on the track at a
// tick whose picture reaches frame `frames` of the video clock. Untimed sound is due
// at once (the picture follows it); timed sound waits for the start, then
// for the picture to reach it.
bool soundDue(const Timeline& timeline, CaptureTime captured, uint64_t frames, int frameRate);
// The capture time the next source sample at `rate` goes on the track at,
// the track's first sample playing `lead` microseconds into the file.
CaptureTime soundNext(const Timeline& timeline, int rate, int64_t lead);

// Where a chunk of `count` source samples captured at `captured` goes on a
// track whose next sample is due at `due` (both on the capture clock), at
// `rate` samples a second: samples to drop from its head (sound from before
// the track's start, or that overlaps sound already placed), or silence to
// put before it (a gap: a suspended or starved source, chunks dropped), at
// most `maxSilence` samples; then how many of its samples to keep, no more
// than reach `end` (noCaptureTime: no end). Offsets within `tolerance`
// microseconds are left alone. Offsets under `jitter` are the capture
// times' unsteadiness (or the picture's start moving), not a gap: the
// chunk is kept whole and played a little longer or shorter (`stretch`
// samples, at most 1/200 of it), so that unbroken sound stays unbroken
// while it drifts back into place.
struct Placement
{
    qint64 skip = 0;
    qint64 silence = 0;
    qint64 keep = 0;
    qint64 stretch = 0;
};
Placement placeChunk(CaptureTime due, CaptureTime captured, qint64 count, int rate, int64_t tolerance,
                     qint64 maxSilence, CaptureTime end, int64_t jitter = 0);

// The clocks' comparison: the video clock of `frames` at `frameRate` has
// fallen more than ten frames behind the audio clock of `samples` at
// `sampleRate`, and jumps ten frames ahead. Never the other way.
bool videoBehind(uint64_t frames, int frameRate, uint64_t samples, int sampleRate);

} // namespace orvane

#pragma once

// The few facilities that differ between the desktop systems the recorder
// runs on: which FFmpeg inputs grab the screen and the sound, how they are
// addressed, and how the graphics adapters are listed. Everything else is
// written once, against these. One source file per system and system
// library implements them (PlatformWindows.cpp; PlatformX11.cpp,
// PlatformPulse.cpp and PlatformPci.cpp on Linux), chosen by the build.

#include "GrabberChoice.h"

#include <QByteArray>
#include <QRect>
#include <QString>

#include <cstdint>
#include <vector>

struct AVDictionary;

namespace orvane::platform {

// The input that grabs the whole desktop by size and offset, its URL, and
// the names of its two offset options.
const char* desktopGrabber();
QByteArray desktopUrl();
const char* offsetXOption();
const char* offsetYOption();

// The part of the desktop the grabber is asked for when recording `region`
// (counted from the screen's corner) of `screen`: the whole screen, or where
// the grabber can cut it for less, the part of the region on the screen.
QRectF grabArea(const QRectF& screen, const QRect& region);

// The input that records a named audio device, the URL for it, and the
// options it needs (null for none; the caller owns the dictionary). A
// sound-server input names its stream, so that endAudioStream finds it.
struct SoundInput
{
    const char* format;
    QByteArray url;
    AVDictionary* options;
    QByteArray streamName;  // empty when the input has no server-side stream
};
SoundInput soundInput(const QString& deviceName);

// Ends the named stream from the sound server's side, so that a read blocked
// on it returns with an error. A device that delivers nothing (suspended, or
// a source without data) otherwise holds the read for as long as that lasts,
// and the input looks at no interrupt callback. Gives up after `timeoutMs`;
// true when a stream was ended.
bool endAudioStream(const QByteArray& streamName, int timeoutMs);

// The server's number of the device the named stream records from, -1 when
// unknown. The server moves the streams of a device that goes away to
// another one instead of ending them: a change of this number is how a
// removed device shows.
int64_t audioStreamDevice(const QByteArray& streamName, int timeoutMs);

// Whether the audio inputs time their packets on the system clock
// (microseconds since the epoch, as av_gettime gives it).
bool audioTimestampsAreWallClock();

// The graphics adapters of the machine.
std::vector<DisplayAdapter> displayAdapters();

} // namespace orvane::platform

#pragma once

// The few facilities that differ between the desktop systems the recorder
// runs on: which FFmpeg inputs grab the screen and the sound, how they are
// addressed, and how the graphics adapters are listed. Everything else is
// written once, against these. One source file per system and system
// library implements them (PlatformWindows.cpp; PlatformX11.cpp,
// PlatformPulse.cpp and PlatformPci.cpp on Linux), chosen by the build.

#include "GrabberChoice.h"

#include <QByteArray>
#include <QList>
#include <QRect>
#include <QString>

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

struct AVDictionary;
class QAudioDeviceInfo;

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

// The audio inputs a recording can take, in the system's order: on Windows
// every capture endpoint; on Linux the sound server's inputs where one runs,
// else the ALSA devices. (Qt lists the raw ALSA names beside the server's,
// and those are mostly plug-ins and pseudo-devices that record nothing.)
QList<QAudioDeviceInfo> recordableAudioInputs();

// The input that records a named audio device, the URL for it, and the
// options it needs (null for none; the caller owns the dictionary). A
// sound-server input names its stream, so that AudioStreamWatch finds it.
struct SoundInput
{
    const char* format;
    QByteArray url;
    AVDictionary* options;
    QByteArray streamName;  // empty when the input has no server-side stream
};
SoundInput soundInput(const QString& deviceName);

// Whether the screen and the sound inputs time their packets on the system
// clock (microseconds since the epoch, as av_gettime gives it), so that
// their times can be compared.
bool screenTimesOnSystemClock();
bool soundTimesOnSystemClock();

// The sound server's side of one recording stream, over one long-lived
// connection of its own, served on the connection's own thread. Where the
// input has no server-side stream every operation does nothing.
class AudioStreamWatch
{
public:
    explicit AudioStreamWatch(const QByteArray& streamName);
    ~AudioStreamWatch();

    AudioStreamWatch(const AudioStreamWatch&) = delete;
    AudioStreamWatch& operator=(const AudioStreamWatch&) = delete;

    // Any thread, waits for the server: whether it has an input of this
    // name. PipeWire's pulse server records its default input for a name it
    // does not know, where PulseAudio refuses. True where it cannot tell.
    bool hasSource(const QByteArray& name);
    // Any thread, does not wait for the server. Ends the stream on the
    // server, now or as soon as the server has made it, so that a read
    // blocked on it returns with an error: a device that delivers nothing
    // (suspended, or silent) otherwise holds the read for as long as that
    // lasts, and the input looks at no interrupt callback.
    void unblock();
    // Any thread, does not wait: unblock() once `delay` has passed, unless
    // cancelled before by finishUnblockAfter(), which tells whether it came to that.
    void unblockAfter(std::chrono::milliseconds delay);
    bool finishUnblockAfter();
    // Any thread, lock-free. True once the device the stream records from
    // has gone away; the stream is then ended too. (The server moves the
    // streams of a removed device to another one rather than ending them; a
    // move that the user makes is followed, not taken for a loss.)
    bool gone() const;

private:
    struct Private;
    const std::unique_ptr<Private> d;
};

// The graphics adapters of the machine.
std::vector<DisplayAdapter> displayAdapters();

} // namespace orvane::platform

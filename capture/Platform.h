#pragma once

// The few facilities that differ between the desktop systems the recorder
// runs on: which FFmpeg inputs grab the screen and the sound, how they are
// addressed, and how the graphics adapters are listed. Everything else is
// written once, against these.

#include "GrabberChoice.h"

#include <QByteArray>
#include <QString>

#include <vector>

struct AVDictionary;

namespace orvane::platform {

// The input that grabs the whole desktop by size and offset, its URL, and
// the names of its two offset options.
const char* desktopGrabber();
QByteArray desktopUrl();
const char* offsetXOption();
const char* offsetYOption();

// The input that records a named audio device, the URL for it, and the
// options it needs (null for none; the caller owns the dictionary).
struct AudioInput
{
    const char* format;
    QByteArray url;
    AVDictionary* options;
};
AudioInput audioInput(const QString& deviceName);

// The graphics adapters of the machine.
std::vector<DisplayAdapter> displayAdapters();

} // namespace orvane::platform

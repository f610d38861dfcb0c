// X11: the whole X root is the desktop, addressed by the display name.

#include "Platform.h"

namespace orvane::platform {

const char* desktopGrabber() { return "x11grab"; }
QByteArray desktopUrl() { return qgetenv("DISPLAY"); }
const char* offsetXOption() { return "grab_x"; }
const char* offsetYOption() { return "grab_y"; }

// Each packet carries the system clock at the moment its grab began.
bool screenTimesOnSystemClock()
{
    return true;
}

} // namespace orvane::platform

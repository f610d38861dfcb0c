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

// x11grab cuts the area out of the root as it reads it, so a smaller region
// costs less to grab and to convert. It refuses an area that leaves the
// root: only the part of the region on the screen is asked for. A region of
// the screen's size is taken whole and not cut, wherever it lies.
QRectF grabArea(const QRectF& screen, const QRect& region)
{
    if (region.size() == screen.size().toSize())
        return screen;
    const QRect onScreen = region.translated(screen.topLeft().toPoint()) & screen.toRect();
    return onScreen.isEmpty() ? screen : QRectF(onScreen);
}

} // namespace orvane::platform

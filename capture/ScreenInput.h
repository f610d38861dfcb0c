#pragma once

#include <QByteArray>

namespace orvane {

// How a screen is recorded. Under Wayland a client cannot read the screen
// itself, whatever platform Qt runs on (Qt 5 on a Wayland desktop usually
// runs on XWayland, whose root window shows nothing of the native windows):
// the desktop's screen-sharing portal hands over a PipeWire stream instead,
// after the user has agreed in the system's dialog.
enum class ScreenInput { Grabber, Portal };

// The input for a session whose environment has these two variables
// (XDG_SESSION_TYPE, WAYLAND_DISPLAY).
inline ScreenInput screenInputFor(const QByteArray& sessionType, const QByteArray& waylandDisplay)
{
    return sessionType.toLower() == "wayland" || !waylandDisplay.isEmpty() ? ScreenInput::Portal
                                                                            : ScreenInput::Grabber;
}

// Only Linux has the portal input.
inline ScreenInput currentScreenInput()
{
#ifdef Q_OS_LINUX
    return screenInputFor(qgetenv("XDG_SESSION_TYPE"), qgetenv("WAYLAND_DISPLAY"));
#else
    return ScreenInput::Grabber;
#endif
}

// For people: how the screens of this session will be recorded.
inline const char* screenInputText(ScreenInput input)
{
    return input == ScreenInput::Portal ? "through the Wayland session's screen-sharing portal"
                                        : "by the screen grabber";
}

} // namespace orvane

#pragma once

#include <QObject>
#include <QPoint>
#include <QRectF>
#include <QSize>
#include <QString>

#include <cstdint>
#include <optional>
#include <vector>

class QEventLoop;

namespace orvane {

// One stream the portal shares: a PipeWire node and, where the portal says
// so, the place and size of the monitor it shows.
struct SharedStream
{
    uint32_t node = 0;
    std::optional<QPoint> position;
    std::optional<QSize> size;
};

// The index of the stream that shows `screen` (its position in desktop
// coordinates, its size in device pixels, `ratio` of them to Qt's pixels),
// or -1. A stream must say its size to be taken, in device pixels or, as
// a scaled monitor's may, in Qt's; a position it says must match too.
int streamForScreen(const std::vector<SharedStream>& streams, const QRectF& screen, qreal ratio);

// The desktop's ScreenCast portal over the session bus: one session, which
// asks the user for a monitor in the system's dialog (once per process where
// the portal can restore a choice) and hands over a PipeWire remote. GUI
// thread only. The session ends with the object, without waiting.
class ScreenCastPortal
{
public:
    ScreenCastPortal() = default;
    ~ScreenCastPortal();

    ScreenCastPortal(const ScreenCastPortal&) = delete;
    ScreenCastPortal& operator=(const ScreenCastPortal&) = delete;

    // The whole handshake. Waits in a local event loop: for the system a
    // bounded time, for the user's answer in the dialog as long as it takes.
    // False, with a log line that says why, on any failure or a cancel().
    bool share();
    // GUI thread, from inside share()'s wait (a stop of the recording): gives
    // up the handshake; the portal is told to close its dialog.
    void cancel();

    const std::vector<SharedStream>& streams() const { return shared; }
    // The PipeWire remote's descriptor; the caller owns it once taken.
    int takeRemote();

private:
    struct Answer;
    Answer request(const QString& method, QList<QVariant> arguments, QVariantMap options,
                   std::optional<int> timeoutMs);

    QString session;  // the session's object path, empty before CreateSession answered
    std::vector<SharedStream> shared;
    int remote = -1;
    QEventLoop* waiting = nullptr;  // share()'s current wait
    bool cancelled = false;
};

} // namespace orvane

#pragma once

#include "interface/ScreenReel.h"
#include "pipeline/PartThread.h"
#include "pipeline/Source.h"

#include <QRect>

#include <memory>

namespace orvane {

struct PortalInput;

// Records a screen of a Wayland session: the desktop's screen-sharing portal
// asks the user (in the system's dialog) and hands over the monitor's
// PipeWire stream, whose pictures this cuts to the region and hands on as
// QImages (Format_RGB32) of the region's size, timed on the capture clock. The handshake
// and the stream's first picture happen in the constructor, on the GUI
// thread; a failure leaves the worker invalid. The stream's loop then runs
// on the worker's own thread.
class PortalVideoWorker : PartThread, public Source
{
    Q_OBJECT

public:
    PortalVideoWorker(const plugin::interface::VideoDevice& device, const QRect& region, Pipeline* pipeline);
    ~PortalVideoWorker() override;

    bool start() override;
    void stop() override;
    // The region's size when valid, else 0 by 0.
    QSize videoSize() override;

private:
    void run() override;

    const std::unique_ptr<PortalInput> input;
};

// When a picture stamped `ptsNs` on CLOCK_MONOTONIC was taken, on the
// capture clock, given both clocks' readings now. A stamp that cannot be on
// that clock (none, in the future, or older than any queue holds) gives now.
CaptureTime monotonicToCaptureTime(int64_t ptsNs, int64_t monotonicNowNs, CaptureTime systemNowUs);

} // namespace orvane

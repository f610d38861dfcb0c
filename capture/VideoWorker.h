#pragma once

#include "interface/ScreenReel.h"
#include "pipeline/PartThread.h"
#include "pipeline/Source.h"

#include <QRect>

#include <memory>

namespace orvane {

struct VideoInput;

// Grabs the screen of a VideoDevice, cuts out the region and hands each frame
// on as a QImage of Format_RGB32 of exactly the region's size, whose pixels
// are never written after it is handed on. The input is opened in the
// constructor; a failed open leaves the worker invalid.
class VideoWorker : PartThread, public Source
{
    Q_OBJECT

public:
    VideoWorker(const plugin::interface::VideoDevice& device, const QRect& region, Pipeline* pipeline);
    ~VideoWorker() override;

    bool start() override;
    void stop() override;
    // The region's size when valid, else 0 by 0.
    QSize videoSize() override;

private:
    void run() override;

    const std::unique_ptr<VideoInput> input;
};

} // namespace orvane

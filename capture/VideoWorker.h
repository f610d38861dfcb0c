#pragma once

#include "interface/ScreenReel.h"
#include "pipeline/Source.h"

#include <QRect>
#include <QThread>

#include <memory>

class QImage;
struct AVFrame;
struct SwsContext;

namespace orvane {

struct VideoInput;

// Converts one decoded frame into `image`, the working image of the video
// thread, and gives the image to hand on: of exactly the region's size, parts
// outside the frame black. `scaler` and `image` are remade when the frame's
// size differs from the image's. A null image when they cannot be made.
QImage convertFrame(const AVFrame& frame, SwsContext*& scaler, QImage& image, const QRect& region);

// Grabs the screen of a VideoDevice, cuts out the region and hands each frame
// on as a QImage of Format_BGR888 of exactly the region's size. The input is
// opened in the constructor; a failed open leaves the worker invalid.
class VideoWorker : QThread, public Source
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

#pragma once

#include "pipeline/AudioFormat.h"
#include "pipeline/PartThread.h"
#include "pipeline/Target.h"

#include <QSize>

#include <memory>
#include <optional>

class QIODevice;

namespace orvane {

struct MuxerOutput;

// Encodes a recording at 25 frames a second into one MP4 stream on the host's
// device. The encoders and the header are set up in the constructor; the
// stream is finished when the thread is stopped, or at destruction when it
// never ran. The device is closed at destruction.
class Muxer : PartThread, public Target
{
    Q_OBJECT

public:
    Muxer(const QSize& size, const std::optional<AudioFormat>& format, QIODevice* output,
          Pipeline* pipeline);
    ~Muxer() override;

    bool start() override;
    void stop() override;
    std::chrono::milliseconds recordedTime() override;
    void writeVideo(const QImage& image, CaptureTime captured) override;
    void writeAudio(const QByteArray& samples, qint64 sampleCount, CaptureTime captured) override;

private:
    void run() override;

    const std::unique_ptr<MuxerOutput> state;
};

} // namespace orvane

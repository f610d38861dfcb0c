#pragma once

#include "AudioFormat.h"
#include "CaptureTime.h"
#include "PipelinePart.h"

#include <QByteArray>
#include <QSize>

class QImage;

namespace orvane {

// A producer of one medium. A concrete Source is a thread class: it opens its
// device in its constructor, runs in its own thread after start(), and hands
// its product on through pushImage or pushAudio, never to the consumer itself.
class Source : public PipelinePart
{
public:
    explicit Source(Pipeline* pipeline);

    // GUI thread, does not block; valid right after construction.
    virtual AudioFormat audioFormat();
    virtual QSize videoSize();

protected:
    // The producer's own thread. pushImage may block on the consumer's short
    // lock and then on the preview's lock, never on both at once. The capture
    // time is that of the picture, or of the first of the samples.
    void pushImage(const QImage& image, CaptureTime captured);
    void pushAudio(const QByteArray& samples, qint64 sampleCount, CaptureTime captured);
};

} // namespace orvane

#pragma once

#include "AudioFormat.h"
#include "CaptureTime.h"

#include <QByteArray>
#include <QSize>

class QImage;

namespace orvane {

class Pipeline;

// A producer of one medium. A concrete Source is a thread class: it opens its
// device in its constructor, runs in its own thread after start(), and hands
// its product on through pushImage or pushAudio, never to the consumer itself.
class Source
{
public:
    explicit Source(Pipeline* pipeline);
    virtual ~Source();

    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    // GUI thread. False when the set-up failed; then no thread runs.
    virtual bool start() = 0;
    // Any thread. Returns when the thread has ended; on the thread itself at once.
    virtual void stop() = 0;
    // GUI thread, valid right after construction.
    virtual AudioFormat audioFormat();
    virtual QSize videoSize();

protected:
    // The producer's own thread. pushImage may block on the consumer's short
    // lock and then on the preview's lock, never on both at once. The capture
    // time is that of the picture, or of the first of the samples.
    void pushImage(const QImage& image, CaptureTime captured);
    void pushAudio(const QByteArray& samples, qint64 sampleCount, CaptureTime captured);
    // The producer's own thread, when it gives up: ends the whole recording.
    void abort();

    Pipeline* const pipeline;
};

} // namespace orvane

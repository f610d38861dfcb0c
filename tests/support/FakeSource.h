#pragma once

#include "pipeline/Source.h"

#include <QImage>

namespace orvane::test {

// A Source without a thread: start and stop only count, and the test hands
// the product on itself through push/pushSamples, as a worker thread would.
class FakeSource : public Source
{
public:
    explicit FakeSource(Pipeline* pipeline, const QSize& size = QSize(), const AudioFormat& format = {},
                        bool startResult = true)
        : Source(pipeline), size(size), format(format), startResult(startResult)
    {
    }

    bool start() override
    {
        ++starts;
        return startResult;
    }
    void stop() override { ++stops; }
    AudioFormat audioFormat() override { return format; }
    QSize videoSize() override { return size; }

    void push(const QImage& image) { pushImage(image); }
    void pushSamples(const QByteArray& samples, qint64 count) { pushAudio(samples, count); }
    void giveUp() { abort(); }

    const QSize size;
    const AudioFormat format;
    const bool startResult;
    int starts = 0;
    int stops = 0;
};

} // namespace orvane::test

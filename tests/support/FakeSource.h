#pragma once

#include "pipeline/Source.h"

namespace orvane::test {

// A Source without a thread that only reports a picture size and a format.
class FakeSource : public Source
{
public:
    explicit FakeSource(Pipeline* pipeline, const QSize& size = {}, const AudioFormat& format = {})
        : Source(pipeline), size(size), format(format)
    {
    }

    bool start() override { return true; }
    void stop() override {}
    AudioFormat audioFormat() override { return format; }
    QSize videoSize() override { return size; }

    const QSize size;
    const AudioFormat format;
};

} // namespace orvane::test

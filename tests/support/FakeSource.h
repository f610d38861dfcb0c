#pragma once

#include "pipeline/Source.h"

namespace orvane::test {

// A Source without a thread that only reports a picture size.
class FakeSource : public Source
{
public:
    explicit FakeSource(Pipeline* pipeline, const QSize& size = {}) : Source(pipeline), size(size) {}

    bool start() override { return true; }
    void stop() override {}
    AudioFormat audioFormat() override { return {}; }
    QSize videoSize() override { return size; }

    const QSize size;
};

} // namespace orvane::test

#pragma once

#include "interface/ScreenReel.h"
#include "pipeline/PartThread.h"
#include "pipeline/Source.h"

#include <memory>

namespace orvane {

struct AudioInput;

// Reads one audio input and hands every decoded frame's samples on, as they
// come, with no conversion and no pacing. The input is opened in the
// constructor, so its format is known before the consumer is built.
class AudioWorker : PartThread, public Source
{
    Q_OBJECT

public:
    AudioWorker(const plugin::interface::AudioDevice& device, Pipeline* pipeline);
    ~AudioWorker() override;

    bool start() override;
    // A read still blocked on a silent device after a short grace has its
    // stream ended to free it.
    void stop() override;
    // The decoder's format when valid, else all zero.
    AudioFormat audioFormat() override;

private:
    void run() override;

    const std::unique_ptr<AudioInput> input;
};

} // namespace orvane

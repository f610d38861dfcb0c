#pragma once

namespace orvane {

class Pipeline;

// What a producer and the consumer of a recording share: the Pipeline they
// belong to, their start and stop, and the way to end the whole recording
// from inside. Each concrete part is a thread class (see PartThread).
class PipelinePart
{
public:
    explicit PipelinePart(Pipeline* pipeline);
    virtual ~PipelinePart();

    PipelinePart(const PipelinePart&) = delete;
    PipelinePart& operator=(const PipelinePart&) = delete;

    // GUI thread, does not block. False when the set-up failed; then no
    // thread runs.
    virtual bool start() = 0;
    // Any thread. Blocks until the part's thread has ended (the consumer's
    // output is then finished); on that thread itself it returns at once.
    virtual void stop() = 0;

protected:
    // The part's own thread, when it gives up: ends the whole recording.
    // Blocks until every part has ended, but for the caller's own thread.
    void abort();

    Pipeline* const pipeline;
};

} // namespace orvane

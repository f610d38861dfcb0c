#pragma once

#include "FrameFitter.h"

#include <QString>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace orvane {

// One picture as the stream delivers it, borrowed for the call only.
struct BorrowedFrame
{
    Picture picture;    // alpha, where there is one, is left as padding
    int64_t ptsNs = 0;  // CLOCK_MONOTONIC; 0 when the buffer carries no header
};

// A PipeWire video stream that reads one node of a remote in shared-memory
// buffers. It knows nothing of how the remote was had. Its loop runs only
// inside iterate(), on whichever thread calls it; one thread at a time, the
// handover between threads ordered by the caller (a thread start).
class PipeWireStream
{
public:
    using FrameHandler = std::function<void(const BorrowedFrame&)>;

    PipeWireStream();
    ~PipeWireStream();

    PipeWireStream(const PipeWireStream&) = delete;
    PipeWireStream& operator=(const PipeWireStream&) = delete;

    // Connects to `node` through the remote `fd` (owned from now on). False,
    // with a log line, when PipeWire cannot be reached.
    bool open(int fd, uint32_t node, FrameHandler handler);
    // Runs the loop until the first picture has been handled or `limit` has
    // passed; false then.
    bool waitForFirstFrame(std::chrono::milliseconds limit);
    // Runs the loop once, waiting up to `timeout` for something to do.
    void iterate(std::chrono::milliseconds timeout);
    // The thread that iterates from now on (pairs around its iterations).
    void enter();
    void leave();
    // Why the stream ended (its node went, the connection broke), or empty
    // while it runs.
    QString ended() const;

private:
    struct State;
    const std::unique_ptr<State> state;
};

} // namespace orvane

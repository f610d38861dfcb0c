#pragma once

#include "FrameFitter.h"

#include <QString>

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
// buffers, on a loop thread of PipeWire's own. It knows nothing of how the
// remote was had. Its handlers run on that thread; they must only hand over
// (the frame is borrowed for the call).
class PipeWireStream
{
public:
    using FrameHandler = std::function<void(const BorrowedFrame&)>;
    // Why the stream ended: its node went, or the connection broke.
    using EndHandler = std::function<void(const QString&)>;

    PipeWireStream();
    // Stops the loop thread (it waits for nothing outside the process).
    ~PipeWireStream();

    PipeWireStream(const PipeWireStream&) = delete;
    PipeWireStream& operator=(const PipeWireStream&) = delete;

    // Connects to `node` through the remote `fd` (owned from now on) and
    // starts the loop thread. False, with a log line, when PipeWire cannot
    // be reached.
    bool open(int fd, uint32_t node, FrameHandler frames, EndHandler end);

private:
    struct State;
    const std::unique_ptr<State> state;
};

} // namespace orvane

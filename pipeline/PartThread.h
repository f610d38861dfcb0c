#pragma once

#include <QThread>

#include <chrono>
#include <functional>

namespace orvane {

class Pipeline;

// The thread of each thread class (VideoWorker, AudioWorker, Muxer): named
// for the process's thread list, started only when its set-up succeeded,
// and ended by an interruption request, which its loop looks at once per
// packet or tick, and a wait without a time limit.
class PartThread : public QThread
{
protected:
    // The thread object is a child of the recording's Pipeline.
    PartThread(const QString& name, Pipeline* pipeline);

    // GUI thread, does not block. Starts the thread when `valid`.
    bool startIf(bool valid);
    // Any thread. Asks the thread to end and blocks until it has; on the
    // thread itself (an abort) it returns at once. A thread still running
    // after `grace` has `unblock` called once: for one held where it cannot
    // look at the request.
    void stopAndWait(std::chrono::milliseconds grace = {}, const std::function<void()>& unblock = {});
};

} // namespace orvane

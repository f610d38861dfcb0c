#pragma once

#include "CaptureTime.h"

#include <QtGlobal>

#include <chrono>

class QByteArray;
class QImage;

namespace orvane {

class Pipeline;

// The consumer of a recording. writeVideo and writeAudio may be called from
// any thread between construction and destruction; they take one short lock
// and never wait for encoding or writing. Once the consumer's thread has been
// asked to stop they drop what they are given.
class Target
{
public:
    explicit Target(Pipeline* pipeline);
    virtual ~Target();

    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;

    // GUI thread. False when the set-up failed; then no thread runs.
    virtual bool start() = 0;
    // Any thread. Returns when the output is finished; on the thread itself at once.
    virtual void stop() = 0;
    // GUI thread, only on a consumer whose set-up succeeded.
    virtual std::chrono::milliseconds recordedTime() = 0;
    // Keeps the newest image only (a mailbox of one place).
    virtual void writeVideo(const QImage& image, CaptureTime captured) = 0;
    // Queues the samples in order; `captured` is the first sample's capture time.
    virtual void writeAudio(const QByteArray& samples, qint64 sampleCount, CaptureTime captured) = 0;

protected:
    // The consumer's own thread, when it gives up: ends the whole recording.
    void abort();

    Pipeline* const pipeline;
};

} // namespace orvane

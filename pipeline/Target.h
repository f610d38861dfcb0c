#pragma once

#include "CaptureTime.h"
#include "PipelinePart.h"

#include <QtGlobal>

#include <chrono>

class QByteArray;
class QImage;

namespace orvane {

// The consumer of a recording. Once its thread has been asked to stop,
// writeVideo and writeAudio drop what they are given.
class Target : public PipelinePart
{
public:
    using PipelinePart::PipelinePart;

    // GUI thread, does not block; only on a consumer whose set-up succeeded.
    virtual std::chrono::milliseconds recordedTime() = 0;
    // Any thread, from construction to destruction; blocks only on one short
    // lock, never on encoding or writing. Keeps the newest image only (a
    // mailbox of one place).
    virtual void writeVideo(const QImage& image, CaptureTime captured) = 0;
    // As writeVideo. Queues the samples in order; `captured` is the first
    // sample's capture time.
    virtual void writeAudio(const QByteArray& samples, qint64 sampleCount, CaptureTime captured) = 0;
};

} // namespace orvane

#pragma once

#include "Source.h"
#include "Target.h"

#include <QObject>

#include <atomic>
#include <chrono>
#include <memory>

namespace orvane {

class BufferView;
class PreviewFeed;

// One recording: up to two producers and one consumer, started and stopped in
// a fixed order. Lives on the GUI thread and has no lock: its members are
// written only while no worker thread runs.
//
// The threads of a recording, and every lock they take:
// - GUI thread: the host's calls, every constructor and destructor, the
//   opening of the devices, start and stop, timers, paints.
// - "VideoWorker", "AudioWorker", "Muxer" (PartThread): capture and
//   hand-over, encoding and writing. Each is ended by an interruption
//   request and an unbounded wait; none waits for another but in stop.
// - The sound server's connection thread (libpulse's threaded loop, one
//   per AudioStreamWatch), where the server has a stream for the input.
// Locks, never two held at once but the last pair:
// - MuxerOutput::mutex: the image mailbox, the audio queue and the clock
//   comparison; the capture threads hold it for a few assignments.
// - PreviewFeed::mutex: the preview's newest image and its figure; the
//   video thread and a paint hold it for a few assignments.
// - The sound server's loop lock, and inside it AudioStreamWatch's own
//   mutex: the watch's fields, for a few assignments; never held while
//   anything of ours is waited for.
class Pipeline : public QObject
{
    Q_OBJECT

public:
    Pipeline(BufferView* view, QObject* parent);
    ~Pipeline() override;

    // GUI thread. Starts the consumer, then the video, then the audio. On a
    // refusal everything is stopped again, stopedChanged is emitted and the
    // result is false. Touches nothing of the object after that emission.
    bool start();
    // GUI thread. Stops video, audio and consumer, each with an unbounded wait,
    // then emits stopedChanged; touches nothing of the object after it.
    void stop();
    // GUI thread, does not block.
    std::chrono::milliseconds recordedTime();

    // Filled by the owner after construction in the order audio, video,
    // target, and left alone until the destructor.
    std::unique_ptr<Source> audio;
    std::unique_ptr<Source> video;
    std::unique_ptr<Target> target;
    // The preview's hand-over point, null without a preview. It outlives the
    // widget, so the video thread never reaches a widget being destroyed.
    const std::shared_ptr<PreviewFeed> preview;

signals:
    // The owner stops the recording while an input is still being opened
    // (one that waits for the user in a system dialog): that input gives up.
    void openingCancelled();
    void startedChanged();
    void stopedChanged();
    void recorded(std::chrono::milliseconds time);

protected:
    void timerEvent(QTimerEvent* event) override;

private:
    friend class PipelinePart;

    // A part's own thread, when it gives up. Only the first caller runs the
    // stop sequence: a second worker giving up at the same moment returns at
    // once, so the two never wait for each other.
    void abort();
    void stopParts();

    std::atomic<bool> aborting{false};
};

} // namespace orvane

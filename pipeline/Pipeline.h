#pragma once

#include "Source.h"
#include "Target.h"

#include <QObject>

#include <atomic>
#include <chrono>
#include <memory>

class QThread;

namespace orvane {

class BufferView;
class PreviewFeed;

// One recording: up to two producers and one consumer, started and stopped in
// a fixed order. Lives on the GUI thread and has no lock: its members are
// written only while no worker thread runs.
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
    // GUI thread.
    std::chrono::milliseconds recordedTime();

    // Filled by the owner after construction in the order audio, video,
    // target, and left alone until the destructor.
    std::unique_ptr<Source> audio;
    std::unique_ptr<Source> video;
    std::unique_ptr<Target> target;
    // The preview's hand-over point, null without a preview. It outlives the
    // widget, so the video thread never reaches a widget being destroyed.
    const std::shared_ptr<PreviewFeed> view;

signals:
    void startedChanged();
    void stopedChanged();
    void recorded(std::chrono::milliseconds time);

protected:
    void timerEvent(QTimerEvent* event) override;

private:
    friend class Source;
    friend class Target;

    // A worker's own thread, when it gives up. Only the first caller runs the
    // stop sequence: a second worker giving up at the same moment returns at
    // once, so the two never wait for each other.
    void abort();
    void stopParts();

    std::atomic<bool> aborting{false};
};

// The common stop of the thread classes: ask the thread to end and wait for
// it without a time limit. Called on the thread itself (through abort) it
// returns at once.
void stopThread(QThread& thread);

} // namespace orvane

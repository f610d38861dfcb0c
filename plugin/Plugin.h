#pragma once

#include "interface/OpaqueUI.h"
#include "interface/ScreenReel.h"

#include <QStringList>

#include <memory>

class QTimer;

namespace orvane {

class BufferView;
class Pipeline;

// Named as the host knows it, so that the plug-in answers qt_metacast for "OpaqueUI".
using plugin::interface::OpaqueUI;

// The host's list of audio inputs from the system's device names, in order:
// the first device of a name wins, and an id keeps the device's place in the
// system's list, so ids can have gaps.
std::vector<plugin::interface::AudioDevice> audioDeviceList(const QStringList& names);

// The one object the host talks to. Every operation runs on the GUI thread.
class Plugin : public plugin::interface::ScreenReel, public OpaqueUI
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "com.orvane.ScreenReel")
    Q_INTERFACES(orvane::plugin::interface::ScreenReel orvane::plugin::interface::OpaqueUI)

public:
    Plugin();
    ~Plugin() override;

    std::vector<plugin::interface::AudioDevice> audioDevices() override;
    std::vector<plugin::interface::VideoDevice> videoDevices() override;
    bool start(const plugin::interface::VideoDevice& video, const QRect& region,
               const std::optional<plugin::interface::AudioDevice>& audio,
               QIODevice* output) override;
    void stop() override;
    std::chrono::milliseconds recordedTime() override;

    void createView(QLayout* layout, bool showRate) override;

protected:
    // The 5 s poll of the audio inputs.
    void timerEvent(QTimerEvent* event) override;

private:
    void pipelineStopped(quint64 recording);

    std::unique_ptr<Pipeline> pipeline;  // the recording that exists now, if any
    BufferView* view = nullptr;          // owned; cleared when destroyed from outside
    QTimer* changeTimer = nullptr;       // debounces deviceChanged()
    quint64 recording = 0;               // number of the newest recording
    bool opening = false;                // start() is opening the screen's input
};

} // namespace orvane

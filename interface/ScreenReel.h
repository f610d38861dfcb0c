#pragma once

#include "interface/OpaqueUI.h"
#include "interface/ScreenReelVersion.h"

#include <QByteArray>
#include <QMetaType>
#include <QObject>
#include <QRect>
#include <QRectF>
#include <QString>
#include <QtPlugin>

#include <chrono>
#include <optional>
#include <vector>

class QIODevice;
class QWindow;

#if defined(MODULEHUB_LIBRARY)
#define MODULEHUB_EXPORT Q_DECL_EXPORT
#else
#define MODULEHUB_EXPORT Q_DECL_IMPORT
#endif

namespace orvane::plugin::interface {

// One titled top-level window of the host, standing for the screen it is on.
struct VideoDevice
{
    QByteArray id;       // the window's identity, "{0x...}"
    QByteArray screen;   // decimal index of the window's screen
    QString name;        // window title
    QRectF geometry;     // screen position; size in device pixels
    QWindow* window = nullptr;
};

// One audio input.
struct AudioDevice
{
    QByteArray id;       // place in the system's list, decimal
    QString name;        // device name, selects the device to record
    bool first = false;  // true on the first list entry only
};

// What a host sees of the recorder. All operations are called on the GUI
// thread; the signals are emitted there too.
class MODULEHUB_EXPORT ScreenReel : public QObject
{
    Q_OBJECT

public:
    enum class State : int { Stopped = 0, Started = 1 };
    Q_ENUM(State)

    ScreenReel();
    ~ScreenReel() override;

    virtual std::vector<AudioDevice> audioDevices() = 0;
    virtual std::vector<VideoDevice> videoDevices() = 0;
    virtual bool start(const VideoDevice& video, const QRect& region,
                       const std::optional<AudioDevice>& audio, QIODevice* output) = 0;
    virtual void stop() = 0;
    virtual std::chrono::milliseconds recordedTime() = 0;

signals:
    void deviceChanged();
    void recorded(std::chrono::milliseconds time);
    void stateChanged(orvane::plugin::interface::ScreenReel::State state);
};

} // namespace orvane::plugin::interface

Q_DECLARE_METATYPE(std::chrono::milliseconds)

#define ScreenReel_iid "com.orvane.ScreenReel"
Q_DECLARE_INTERFACE(orvane::plugin::interface::ScreenReel, ScreenReel_iid)

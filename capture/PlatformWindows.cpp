// Windows: the desktop grabber, the sound input and the graphics adapters as
// the system itself names them.

#include "Platform.h"

#include <QAudioDeviceInfo>

#include <dxgi.h>

namespace orvane::platform {

const char* desktopGrabber() { return "gdigrab"; }
QByteArray desktopUrl() { return "desktop"; }
const char* offsetXOption() { return "offset_x"; }
const char* offsetYOption() { return "offset_y"; }
QRectF grabArea(const QRectF& screen, const QRect&) { return screen; }

QList<QAudioDeviceInfo> recordableAudioInputs()
{
    return QAudioDeviceInfo::availableDevices(QAudio::AudioInput);
}

SoundInput soundInput(const QString& deviceName)
{
    return {"dshow", "audio=" + QByteArray::fromStdString(deviceName.toStdString()), nullptr, {}};
}

// The grabber and the sound input time their packets on clocks of their own.
bool screenTimesOnSystemClock()
{
    return false;
}

bool soundTimesOnSystemClock()
{
    return false;
}

// The system ends a capture stream of a removed device by itself, and the
// input has no stream on a server to end: nothing to watch.
struct AudioStreamWatch::Private
{
};

AudioStreamWatch::AudioStreamWatch(const QByteArray&)
    : d(std::make_unique<Private>())
{
}

AudioStreamWatch::~AudioStreamWatch() = default;

bool AudioStreamWatch::hasSource(const QByteArray&) { return true; }
void AudioStreamWatch::unblock() {}
void AudioStreamWatch::unblockAfter(std::chrono::milliseconds) {}
bool AudioStreamWatch::finishUnblockAfter() { return false; }
bool AudioStreamWatch::gone() const { return false; }

std::vector<DisplayAdapter> displayAdapters()
{
    std::vector<DisplayAdapter> adapters;
    IDXGIFactory1* factory = nullptr;
    if (CreateDXGIFactory1(__uuidof(IDXGIFactory1), reinterpret_cast<void**>(&factory)) != 0)
        return adapters;
    IDXGIAdapter1* adapter = nullptr;
    for (UINT i = 0; factory->EnumAdapters1(i, &adapter) != DXGI_ERROR_NOT_FOUND; ++i) {
        DXGI_ADAPTER_DESC1 desc{};
        adapter->GetDesc1(&desc);
        adapters.push_back({desc.VendorId, QString::fromWCharArray(desc.Description)});
        adapter->Release();
    }
    factory->Release();
    return adapters;
}

} // namespace orvane::platform

#include "Platform.h"

#include <QAudioDeviceInfo>
#include <QDir>
#include <QFile>

extern "C" {
#include <libavutil/dict.h>
}

#if defined(Q_OS_WIN)
#include <dxgi.h>
#elif defined(SCREENREEL_HAVE_LIBPCI)
extern "C" {
#include <pci/pci.h>
}
#endif

namespace orvane::platform {

#if defined(Q_OS_WIN)

const char* desktopGrabber() { return "gdigrab"; }
QByteArray desktopUrl() { return "desktop"; }
const char* offsetXOption() { return "offset_x"; }
const char* offsetYOption() { return "offset_y"; }

AudioInput audioInput(const QString& deviceName)
{
    return {"dshow", "audio=" + QByteArray::fromStdString(deviceName.toStdString()), nullptr};
}

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

#else

namespace {

AudioInput pulseInput(const QString& deviceName)
{
    // The sound server's default fragments are shorter than the consumer's
    // 40 ms tick, which takes one chunk a tick: ask for 80 ms of its default
    // 48 kHz stereo 16-bit stream so the queue cannot grow.
    AVDictionary* options = nullptr;
    av_dict_set(&options, "fragment_size", "15360", 0);
    return {"pulse", deviceName.toUtf8(), options};
}

QString describePciDevice(uint32_t vendor, uint32_t device)
{
#if defined(SCREENREEL_HAVE_LIBPCI)
    pci_access* access = pci_alloc();
    if (!access)
        return {};
    pci_init(access);
    char name[256] = {};
    const char* found = pci_lookup_name(access, name, sizeof name, PCI_LOOKUP_DEVICE,
                                        int(vendor), int(device));
    QString description = found ? QString::fromLocal8Bit(found) : QString();
    pci_cleanup(access);
    return description;
#else
    Q_UNUSED(vendor)
    Q_UNUSED(device)
    return {};
#endif
}

} // namespace

// X11: the whole X root is the desktop, addressed by the display name.
const char* desktopGrabber() { return "x11grab"; }
QByteArray desktopUrl() { return qgetenv("DISPLAY"); }
const char* offsetXOption() { return "grab_x"; }
const char* offsetYOption() { return "grab_y"; }

AudioInput audioInput(const QString& deviceName)
{
    // Qt lists sound-server sources and raw ALSA devices side by side; a name
    // that only the ALSA realm knows is opened with the ALSA input.
    bool alsaOnly = false;
    for (const QAudioDeviceInfo& info : QAudioDeviceInfo::availableDevices(QAudio::AudioInput)) {
        if (info.deviceName() != deviceName)
            continue;
        if (info.realm() != QLatin1String("alsa"))
            return pulseInput(deviceName);
        alsaOnly = true;
    }
    if (alsaOnly)
        return {"alsa", deviceName.toUtf8(), nullptr};
    return pulseInput(deviceName);
}

std::vector<DisplayAdapter> displayAdapters()
{
    std::vector<DisplayAdapter> adapters;
    const QDir devices(QStringLiteral("/sys/bus/pci/devices"));
    for (const QString& name : devices.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const auto read = [&](const char* file) {
            QFile f(devices.filePath(name) + QLatin1Char('/') + QLatin1String(file));
            return f.open(QIODevice::ReadOnly) ? f.readAll().trimmed() : QByteArray();
        };
        // PCI class 0x03xxxx: display controllers.
        if (!read("class").startsWith("0x03"))
            continue;
        bool ok = false;
        const uint32_t vendor = read("vendor").toUInt(&ok, 16);
        const uint32_t device = read("device").toUInt(nullptr, 16);
        if (ok)
            adapters.push_back({vendor, describePciDevice(vendor, device)});
    }
    return adapters;
}

#endif

} // namespace orvane::platform

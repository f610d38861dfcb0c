// The graphics adapters of a Linux machine: the PCI display controllers in
// sysfs, described from the PCI ID database.

#include "Platform.h"

#include <QDir>
#include <QFile>

extern "C" {
#include <pci/pci.h>
}

namespace orvane::platform {

namespace {

QString describePciDevice(uint32_t vendor, uint32_t device)
{
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
}

} // namespace

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

} // namespace orvane::platform

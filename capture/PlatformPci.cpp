// The graphics adapters of a Linux machine: the PCI display controllers in
// sysfs, described from the PCI ID database.

#include "PlatformPci.h"

#include "Platform.h"
#include "pipeline/Logging.h"

#include <QDir>
#include <QFile>

#include <csetjmp>
#include <cstdarg>
#include <cstdio>

extern "C" {
#include <pci/pci.h>
}

namespace orvane::platform {

namespace {

struct PciId
{
    uint32_t vendor = 0;
    uint32_t device = 0;
    char name[256] = {};
};

// libpci's default error handler ends the process (a malformed ID database
// is enough), and libpci expects any replacement not to return either: after
// a failed pci_init it would go on with no access method. Ours leaves
// through longjmp to the frame that called libpci, which holds no object
// with a destructor.
thread_local std::jmp_buf* pciEscape = nullptr;
thread_local char pciFailure[256];

[[noreturn]] void onPciError(char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::vsnprintf(pciFailure, sizeof pciFailure, format, args);
    va_end(args);
    std::longjmp(*pciEscape, 1);
}

void onPciWarning(char* format, ...)
{
    char text[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    qCWarning(lcScreenReel) << "libpci:" << QByteArray(text).trimmed().constData();
}

void onPciDebug(char*, ...) {}

// False when libpci failed; the names are then incomplete.
bool lookUpNames(pci_access* access, PciId* ids, size_t count)
{
    std::jmp_buf escape;
    pciEscape = &escape;
    if (setjmp(escape) != 0) {
        pciEscape = nullptr;
        return false;
    }
    pci_init(access);
    for (size_t i = 0; i < count; ++i) {
        const char* name = pci_lookup_name(access, ids[i].name, sizeof ids[i].name, PCI_LOOKUP_DEVICE,
                                           int(ids[i].vendor), int(ids[i].device));
        if (name != ids[i].name)
            std::snprintf(ids[i].name, sizeof ids[i].name, "%s", name ? name : "");
    }
    pciEscape = nullptr;
    return true;
}

bool describe(PciId* ids, size_t count, const char* idFile)
{
    pci_access* access = pci_alloc();
    access->error = onPciError;
    access->warning = onPciWarning;
    access->debug = onPciDebug;
    if (idFile)
        pci_set_name_list_path(access, const_cast<char*>(idFile), 0);
    const bool named = lookUpNames(access, ids, count);
    pci_cleanup(access);
    return named;
}

} // namespace

std::vector<DisplayAdapter> readDisplayAdapters(const QString& devices, const QByteArray& idFile)
{
    std::vector<PciId> ids;
    const QDir dir(devices);
    for (const QString& name : dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const auto read = [&](const char* file) {
            QFile f(dir.filePath(name) + QLatin1Char('/') + QLatin1String(file));
            return f.open(QIODevice::ReadOnly) ? f.readAll().trimmed() : QByteArray();
        };
        // PCI class 0x03xxxx: display controllers.
        if (!read("class").startsWith("0x03"))
            continue;
        bool ok = false;
        PciId id;
        id.vendor = read("vendor").toUInt(&ok, 16);
        id.device = read("device").toUInt(nullptr, 16);
        if (ok)
            ids.push_back(id);
    }
    if (ids.empty())
        return {};

    if (!describe(ids.data(), ids.size(), idFile.isEmpty() ? nullptr : idFile.constData())) {
        qCWarning(lcScreenReel) << "libpci failed:" << QByteArray(pciFailure).trimmed().constData()
                                << "- the graphics adapters are described by number";
        for (PciId& id : ids)
            std::snprintf(id.name, sizeof id.name, "Device %04x", id.device);
    }
    std::vector<DisplayAdapter> adapters;
    for (const PciId& id : ids)
        adapters.push_back({id.vendor, QString::fromLocal8Bit(id.name)});
    return adapters;
}

std::vector<DisplayAdapter> displayAdapters()
{
    // Once per process: the adapters do not change while the host runs, and
    // libpci parses its whole database for the first name.
    static const std::vector<DisplayAdapter> adapters =
        readDisplayAdapters(QStringLiteral("/sys/bus/pci/devices"), QByteArray());
    return adapters;
}

} // namespace orvane::platform

#pragma once

// Linux only: how displayAdapters() reads the adapters, open to a test that
// gives it a sysfs tree and an ID database of its own.

#include "GrabberChoice.h"

#include <QByteArray>
#include <QString>

#include <vector>

namespace orvane::platform {

// The PCI display controllers under `devices` (sysfs's bus/pci/devices),
// each described from the PCI ID database `idFile` (empty: libpci's own).
// Where libpci cannot read the database, every adapter is described by
// number, as libpci describes a device missing from it ("Device 2204").
std::vector<DisplayAdapter> readDisplayAdapters(const QString& devices, const QByteArray& idFile);

} // namespace orvane::platform

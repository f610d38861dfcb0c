#pragma once

#include <QString>

#include <cstdint>
#include <vector>

namespace orvane {

// One graphics adapter as the system lists it.
struct DisplayAdapter
{
    uint32_t vendorId = 0;
    QString description;
};

// Whether a dedicated GPU is present: any NVIDIA adapter, an Intel adapter
// whose description says "Dedicated", or an AMD adapter whose description
// says "RX" (case-blind, parts of words count).
bool hasDedicatedGpu(const std::vector<DisplayAdapter>& adapters);

// The duplication-filter route is taken only on a system whose version text
// is a whole number of 8 or more, where the hardware device could be made,
// and without a dedicated GPU; every other case takes the desktop grabber.
bool useDuplicationGrabber(const QString& productVersion, bool hardwareProbeSucceeded,
                           bool dedicatedGpu);

} // namespace orvane

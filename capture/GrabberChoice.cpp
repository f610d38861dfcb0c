#include "GrabberChoice.h"

#include <cctype>

namespace orvane {

namespace {

// Compares the low byte of each UTF-16 unit, upper-cased by the C library,
// as the adapter description is matched on the system that reports it.
bool containsCaseBlind(const QString& text, const char* word)
{
    const int length = int(qstrlen(word));
    for (int start = 0; start + length <= text.size(); ++start) {
        int i = 0;
        while (i < length
               && std::toupper(text.at(start + i).unicode() & 0xFF)
                      == std::toupper(static_cast<unsigned char>(word[i])))
            ++i;
        if (i == length)
            return true;
    }
    return false;
}

} // namespace

bool hasDedicatedGpu(const std::vector<DisplayAdapter>& adapters)
{
    for (const DisplayAdapter& adapter : adapters) {
        switch (adapter.vendorId) {
        case 0x10DE:  // NVIDIA
            return true;
        case 0x8086:  // Intel
            if (containsCaseBlind(adapter.description, "Dedicated"))
                return true;
            break;
        case 0x1002:  // AMD
        case 0x1022:
            if (containsCaseBlind(adapter.description, "RX"))
                return true;
            break;
        default:
            break;
        }
    }
    return false;
}

bool useDuplicationGrabber(const QString& productVersion, bool hardwareProbeSucceeded,
                           bool dedicatedGpu)
{
    bool isNumber = false;
    const int version = productVersion.toInt(&isNumber, 10);
    return isNumber && version >= 8 && hardwareProbeSucceeded && !dedicatedGpu;
}

} // namespace orvane

#include "ScreenReel.h"

namespace orvane::plugin::interface {

ScreenReel::ScreenReel()
{
    // The signals cross queued connections in hosts that use them so.
    qRegisterMetaType<std::chrono::milliseconds>("std::chrono::milliseconds");
    qRegisterMetaType<State>("orvane::plugin::interface::ScreenReel::State");
}

ScreenReel::~ScreenReel() = default;

} // namespace orvane::plugin::interface

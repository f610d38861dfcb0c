#pragma once

#include <cstdint>
#include <limits>

namespace orvane {

// When a picture or a piece of sound was captured: microseconds on the
// system clock (as av_gettime gives it), so that the two inputs can be
// compared. Inputs that time their product on a clock of their own give
// noCaptureTime, and the recording is then timed by its counters alone.
using CaptureTime = int64_t;
constexpr CaptureTime noCaptureTime = std::numeric_limits<int64_t>::min();

} // namespace orvane

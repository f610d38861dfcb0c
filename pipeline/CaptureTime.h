#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

namespace orvane {

// When a picture or a piece of sound was captured: microseconds on the
// system clock (as av_gettime gives it), so that the two inputs can be
// compared. Inputs that time their product on a clock of their own give
// noCaptureTime, and the recording is then timed by its counters alone.
using CaptureTime = int64_t;
constexpr CaptureTime noCaptureTime = std::numeric_limits<int64_t>::min();

// The middle one of a few measurements (reorders them): one taken at a bad
// moment cannot decide it, as it could a mean.
inline int64_t median(std::vector<int64_t>& values)
{
    const auto middle = values.begin() + std::ptrdiff_t(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

} // namespace orvane

#pragma once

#include <cmath>

#include "lmkit/platform/Clock.hpp"

namespace lmkit::measure {

/// Wall-clock milliseconds since 1970 with a microsecond fraction. Echoed stamps are whole
/// milliseconds and arrival times are not, so a reported delay keeps sub-millisecond detail.
/// Rounded to the microsecond so that an injected clock's whole milliseconds come back exact.
inline double nowMilliseconds() {
    return std::round(Clock::nowSeconds() * 1e6) / 1e3;
}

}  // namespace lmkit::measure

#pragma once

#include <cstdint>
#include <functional>

namespace lmkit {

/// Wall-clock time for probe stamps and delays: milliseconds since 1970. Every delay the kit
/// computes reads this one clock, so tests can set it and check delay arithmetic exactly.
class Clock {
  public:
    /// Milliseconds since 1970 (the injected source when one is set).
    static std::int64_t nowMilliseconds();
    /// Seconds since 1970 with a fraction.
    static double nowSeconds();

    /// Replaces the source of nowMilliseconds(); an empty function restores the system clock.
    static void setNowForTesting(std::function<std::int64_t()> source);
};

}  // namespace lmkit

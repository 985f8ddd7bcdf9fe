#pragma once

#include <functional>

namespace lmkit {

/// Wall-clock time for probe stamps and delays: milliseconds since 1970 as a double with a
/// sub-microsecond fraction. Echoed stamps are whole milliseconds but arrival times are not, so a
/// reply that comes back within a fraction of a millisecond still measures a positive delay. Every
/// delay the kit computes reads this one clock (or a kernel receive stamp on the same scale), so
/// tests can set it and check delay arithmetic exactly.
class Clock {
  public:
    /// Milliseconds since 1970 with a fraction (the injected source when one is set).
    static double nowMilliseconds();
    /// Seconds since 1970 with a fraction.
    static double nowSeconds();
    /// Converts a CLOCK_REALTIME reading (a kernel receive stamp) to this clock's scale. With an
    /// injected source the reading means nothing to the test, so the source's now is used.
    static double millisecondsFromRealtime(long long seconds, long nanoseconds);

    /// Replaces the source of nowMilliseconds(); an empty function restores the system clock.
    static void setNowForTesting(std::function<double()> source);
    static bool isInjected();
};

}  // namespace lmkit

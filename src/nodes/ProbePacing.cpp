#include "lmkit/nodes/ProbePacing.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

namespace lmkit::pacing {

namespace {

// Base group counts by server-count band: [11, 100) 10, [100, 200) 17, then the band's hundreds
// times ten up to 999 servers.
long baseGroupCount(long n) {
    if (n < 100)
        return 10;
    if (n < 200)
        return 17;
    return (n / 100) * 10;
}

// 2^k as the 32-bit integer the multiplier is truncated to (saturating instead of overflowing).
long long powerOfTwo32(long k) {
    if (k <= 0)
        return 1;
    if (k >= 31)
        return std::numeric_limits<std::int32_t>::max();
    return 1LL << k;
}

// 2^k as a 64-bit integer, saturating.
long long powerOfTwo64(long k) {
    if (k <= 0)
        return 1;
    if (k >= 63)
        return std::numeric_limits<long long>::max();
    return 1LL << k;
}

// The base pause between groups; the value is the single-precision 0.006 widened, as the pacing
// has always used it.
constexpr double kBaseGroupInterval = static_cast<double>(0.006f);
constexpr double kSingleProbeTimeout = 0.3;
constexpr double kSmallRunTimeout = 3.0;
constexpr double kLargeRunTimeout = 5.0;
constexpr long kLargeRunProbes = 1000;
constexpr long kMaxPacedServers = 999;
constexpr long kMaxBurstServers = 10;

}  // namespace

long calculateSendPacketGroupCountByNodeCount(long n, long k) {
    // Past 999 servers the pacing would stretch a run beyond its time-out, so such runs go out
    // in a single burst and rely on the socket's large receive buffer instead.
    if (n <= kMaxBurstServers || n > kMaxPacedServers)
        return 1;
    long long groups = static_cast<long long>(baseGroupCount(n)) * powerOfTwo32(k);
    return static_cast<long>(std::min<long long>(groups, n));
}

double sendGroupPacketInternval(double testPingTimeout, long sendPacketCount, long k) {
    if (testPingTimeout > 0)
        return testPingTimeout / static_cast<double>(sendPacketCount + 1);
    return static_cast<double>(powerOfTwo64(k)) * kBaseGroupInterval;
}

double calculateReceivePacketTimeout(double testPingTimeout, long sendPacketCount, long n) {
    if (testPingTimeout > 0)
        return testPingTimeout;
    long long probes = static_cast<long long>(sendPacketCount) * n;
    if (probes == 1)
        return kSingleProbeTimeout;
    if (probes < kLargeRunProbes)
        return kSmallRunTimeout;
    return kLargeRunTimeout;
}

long probesPerGroup(long totalProbes, long groupCount, long n) {
    if (groupCount < 1)
        groupCount = 1;
    long perGroup = static_cast<long>((totalProbes + groupCount - 1) / groupCount);
    return std::min(perGroup, n);
}

}  // namespace lmkit::pacing

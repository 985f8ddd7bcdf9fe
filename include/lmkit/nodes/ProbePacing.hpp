#pragma once

namespace lmkit::pacing {

/// How many groups the probes of a run are paced in, for `pingServerCount` servers after
/// `noBufferSpaceEvents` no-buffer-space closes of the socket. Up to 10 servers and from 1,000 on
/// everything leaves in one burst; in between the base count of the server-count band is doubled
/// for each no-buffer-space event, and never exceeds the server count.
long calculateSendPacketGroupCountByNodeCount(long pingServerCount, long noBufferSpaceEvents);

/// The pause between two groups, in seconds: a fixed receive time-out spreads the probes over it
/// (`testPingTimeout` ÷ (`sendPacketCount` + 1)); otherwise 6 ms, doubled for each no-buffer-space
/// event.
double sendGroupPacketInternval(double testPingTimeout, long sendPacketCount,
                                long noBufferSpaceEvents);

/// How long to wait for replies after the last probe left, in seconds: the fixed
/// `testPingTimeout` when set, else 0.3 s for a single probe, 3 s below 1,000 probes, 5 s above.
double calculateReceivePacketTimeout(double testPingTimeout, long sendPacketCount,
                                     long pingServerCount);

/// Probes sent per group: ⌈total ÷ groups⌉, at most one per server so that each pass of the
/// round-robin touches a server once.
long probesPerGroup(long totalProbes, long groupCount, long pingServerCount);

}  // namespace lmkit::pacing

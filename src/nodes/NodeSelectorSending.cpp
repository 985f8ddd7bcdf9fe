// The node selector's send schedule: groups of probes at the group interval, each group in one
// system call.
#include "lmkit/nodes/NodeSelector.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/netinfo/IPAddressString.hpp"
#include "lmkit/nodes/DelayStatistics.hpp"
#include "lmkit/nodes/ProbePacing.hpp"
#include "lmkit/nodes/ProbePacket.hpp"
#include "lmkit/platform/Clock.hpp"
#include "nodes/NodeSelectorShared.hpp"

namespace lmkit {

using namespace node_selector;

// Sending.

NodeSelector::ProbeOrigin NodeSelector::probeOrigin() {
    std::lock_guard guard(mutex_);
    if (firstPacketTimeStamp_ == 0)
        firstPacketTimeStamp_ = Clock::nowMilliseconds();
    return {sendDataPrefix_, firstPacketTimeStamp_,
            static_cast<uint16_t>(port_ == 0 ? probe::kDefaultProbePort : port_)};
}

void NodeSelector::appendProbe(std::vector<OutgoingDatagram>& batch, const ProbeOrigin& origin,
                               const std::string& host, long tag, double now) {
    // Each probe is stamped just before its group leaves; the stamps share the run's origin.
    batch.push_back({probe::makeProbePayload(origin.prefix, origin.firstPacketTimeStamp, now), host,
                     origin.port, tag});
}

bool NodeSelector::sendProbes(std::uint64_t generation, const std::shared_ptr<UdpSocket>& socket,
                              const std::vector<OutgoingDatagram>& batch) {
    {
        std::lock_guard guard(mutex_);
        if (generation != generation_)
            return false;  // stopped, or a newer run took over: its count is not this run's
    }
    // A refused send comes back as a did-not-send event; the probe still counts as handed over.
    socket->sendDatagrams(batch);
    std::lock_guard guard(mutex_);
    if (generation != generation_)
        return false;
    for (std::size_t i = 0; i < batch.size(); ++i)
        setSendedPacketNumber(sendedPacketNumber_ + 1);
    return true;
}

void NodeSelector::sendDataToPingServer(const std::string& host, long repeatTime) {
    auto socket = udpSocket();
    if (!socket || repeatTime < 1)
        return;
    std::vector<OutgoingDatagram> batch;
    batch.reserve(static_cast<std::size_t>(repeatTime));
    std::uint64_t generation;
    {
        std::lock_guard guard(mutex_);
        generation = generation_;
    }
    const auto origin = probeOrigin();
    for (long i = 0; i < repeatTime; ++i)
        appendProbe(batch, origin, host, i, Clock::nowMilliseconds());
    sendProbes(generation, socket, batch);
}

void NodeSelector::sendPacketsDataByGroup(std::uint64_t generation) {
    for (;;) {
        double began = Clock::nowSeconds();
        std::shared_ptr<const std::vector<std::string>> servers;
        std::shared_ptr<UdpSocket> socket;
        long count, groups, index;
        double interval;
        {
            std::lock_guard guard(mutex_);
            if (generation != generation_ || !uniquePingServers_ || !udpSocket_)
                return;
            servers = uniquePingServers_;
            socket = udpSocket_;
            count = sendPacketCount_;
            groups = sendPacketGroupCount_;
            index = currentSendingGroupIndex_;
            interval = sendGroupPacketInternval_;
            if (index == 0)
                nextGroupDue_ = std::chrono::steady_clock::now();
        }
        const long n = static_cast<long>(servers->size());
        const long total = count * n;
        long lastIndex = total;  // one burst leaves nothing for a later tick
        if (groups <= 1) {
            sendBurst(generation, socket, *servers, count);
        } else {
            const long perGroup = pacing::probesPerGroup(total, groups, n);
            if (index * perGroup >= total)
                return;
            std::vector<OutgoingDatagram> batch;
            batch.reserve(static_cast<std::size_t>(perGroup));
            const auto origin = probeOrigin();
            // Round-robin: one probe per server per pass, so a slow group never starves a server.
            for (long j = 0; j < perGroup; ++j) {
                long i = j + index * perGroup;
                if (i >= total)
                    break;
                appendProbe(batch, origin, (*servers)[static_cast<std::size_t>(i % n)], i / n,
                            Clock::nowMilliseconds());
                lastIndex = i;
            }
            // The group leaves in one system call, so its last probe is not held back by its
            // first.
            sendProbes(generation, socket, batch);
        }
        {
            std::lock_guard guard(mutex_);
            if (generation != generation_)
                return;
            ++currentSendingGroupIndex_;
            costTimeOfSendPackets_ += Clock::nowSeconds() - began;
            // Nothing remains after the last index: no further tick is needed.
            if (lastIndex + 1 >= total)
                return;
            if (interval > 0) {
                if (sendGroupPacketTimer_)
                    sendGroupPacketTimer_->invalidate();
                // Each group is due one interval after the previous group was due, not after it
                // was sent: the time spent sending and any timer lateness do not add up over
                // the groups of a run.
                nextGroupDue_ += std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                    std::chrono::duration<double>(interval));
                const double wait = std::max(
                    0.0,
                    std::chrono::duration<double>(nextGroupDue_ - std::chrono::steady_clock::now())
                        .count());
                sendGroupPacketTimer_ = WeakTimer::scheduledTimer<NodeSelector>(
                    wait, weak_from_this(),
                    [generation](NodeSelector& self, WeakTimer&) {
                        self.sendPacketsDataByGroup(generation);
                    },
                    false, sendPacketQueue_);
                return;
            }
        }
    }
}

void NodeSelector::sendBurst(std::uint64_t generation, const std::shared_ptr<UdpSocket>& socket,
                             const std::vector<std::string>& servers, long count) {
    const auto origin = probeOrigin();
    // A system call's worth at a time, so that tens of thousands of probes are never all in
    // memory at once.
    std::vector<OutgoingDatagram> batch;
    batch.reserve(kProbesPerSendCall);
    for (const auto& server : servers) {
        // A server's probes are built together, within a microsecond: one reading of the clock
        // stamps them all.
        const double now = Clock::nowMilliseconds();
        for (long i = 0; i < count; ++i) {
            appendProbe(batch, origin, server, i, now);
            if (batch.size() == kProbesPerSendCall) {
                if (!sendProbes(generation, socket, batch))
                    return;
                batch.clear();
            }
        }
    }
    if (!batch.empty())
        sendProbes(generation, socket, batch);
}

void NodeSelector::setSendedPacketNumber(long value) {
    sendedPacketNumber_ = value;
    long total =
        sendPacketCount_ * static_cast<long>(uniquePingServers_ ? uniquePingServers_->size() : 0);
    long status = computingStatus_.load();
    if (value < 1 || total < 1 || value != total ||
        (status != kStatusIdle && status != kStatusComputing))
        return;
    if (packetRecvTimer_)
        packetRecvTimer_->invalidate();
    if (mode_ == kModeBestNode || mode_ == kModeTestMultipath)
        log::info("[NodeSelector] All packets sent, start recv timer");
    std::uint64_t generation = generation_;
    packetRecvTimer_ = WeakTimer::scheduledTimer<NodeSelector>(
        packetReceiveTimeout_, weak_from_this(),
        [generation](NodeSelector& self, WeakTimer&) {
            self.packetReceiveTimeoutHandler(generation);
        },
        false, dataProcessQueue_);
}

void NodeSelector::setIsIPV6(bool value) {
    bool old = isIPV6_;
    isIPV6_ = value;
    if (!old && value && (mode_ == kModeBestNode || mode_ == kModeTestMultipath))
        log::info("[NodeSelector] Detected IPV6 environment");
}

}  // namespace lmkit

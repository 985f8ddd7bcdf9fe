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

void NodeSelector::appendProbe(std::vector<OutgoingDatagram>& batch, const std::string& host,
                               long tag) {
    std::lock_guard guard(mutex_);
    // Each probe is stamped just before the group leaves; the stamps still share the run's one
    // origin, taken at its first probe.
    double now = Clock::nowMilliseconds();
    if (firstPacketTimeStamp_ == 0)
        firstPacketTimeStamp_ = now;
    batch.push_back({probe::makeProbePayload(sendDataPrefix_, firstPacketTimeStamp_, now), host,
                     static_cast<uint16_t>(port_ == 0 ? probe::kDefaultProbePort : port_), tag});
}

void NodeSelector::sendProbes(const std::shared_ptr<UdpSocket>& socket,
                              const std::vector<OutgoingDatagram>& batch) {
    // A refused send comes back as a did-not-send event; the probe still counts as handed over.
    socket->sendDatagrams(batch);
    std::lock_guard guard(mutex_);
    for (std::size_t i = 0; i < batch.size(); ++i)
        setSendedPacketNumber(sendedPacketNumber_ + 1);
}

void NodeSelector::sendDataToPingServer(const std::string& host, long repeatTime) {
    auto socket = udpSocket();
    if (!socket || repeatTime < 1)
        return;
    std::vector<OutgoingDatagram> batch;
    batch.reserve(static_cast<std::size_t>(repeatTime));
    for (long i = 0; i < repeatTime; ++i)
        appendProbe(batch, host, i);
    sendProbes(socket, batch);
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
        std::vector<OutgoingDatagram> batch;
        if (groups <= 1) {
            // One burst: handed over a system call's worth at a time, so that tens of thousands
            // of probes are never all in memory at once.
            batch.reserve(kProbesPerSendCall);
            for (const auto& server : *servers) {
                for (long i = 0; i < count; ++i) {
                    appendProbe(batch, server, i);
                    if (batch.size() == kProbesPerSendCall) {
                        sendProbes(socket, batch);
                        batch.clear();
                    }
                }
            }
        } else {
            const long perGroup = pacing::probesPerGroup(total, groups, n);
            if (index * perGroup >= total)
                return;
            batch.reserve(static_cast<std::size_t>(perGroup));
            // Round-robin: one probe per server per pass, so a slow group never starves a server.
            for (long j = 0; j < perGroup; ++j) {
                long i = j + index * perGroup;
                if (i >= total)
                    break;
                appendProbe(batch, (*servers)[static_cast<std::size_t>(i % n)], i / n);
                lastIndex = i;
            }
        }
        // The group leaves in one system call, so its last probe is not held back by its first.
        sendProbes(socket, batch);
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

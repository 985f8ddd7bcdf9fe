// The node selector's replies: matching them to probes, recording delays, scoring each node.
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
#include "nodes/ProbeKeys.hpp"

namespace lmkit {

using namespace node_selector;

// Receiving.

void NodeSelector::didReceiveDatagrams(UdpSocket& socket, const std::vector<Datagram>& datagrams) {
    std::string prefix;
    double first;
    std::uint64_t generation;
    {
        std::lock_guard guard(mutex_);
        if (udpSocket_.get() != &socket)
            return;  // a socket already replaced or closed
        prefix = sendDataPrefix_;
        first = firstPacketTimeStamp_;
        generation = generation_;
    }
    std::vector<Reply> replies;
    replies.reserve(datagrams.size());
    bool fromIPv6 = false;
    for (const auto& datagram : datagrams) {
        if (computingStatus_.load() == kStatusTimedOut) {
            // Past the receive time-out the run has given these probes up as lost.
            lateReplies_.fetch_add(1);
            continue;
        }
        const auto& source = datagram.source;
        // The kernel's arrival stamp, not the moment this queue got round to the datagram.
        auto decision =
            probe::decideProbeReply(datagram.data.data(), datagram.data.size(), prefix, first,
                                    datagram.receiveTime, source.host, source.port, source.family);
        switch (decision.action) {
            case probe::ReplyDecision::Action::Drop:
                continue;
            case probe::ReplyDecision::Action::InvalidPacket:
                log::warning("[NodeSelector] Invalid response packet: " + decision.text);
                continue;
            case probe::ReplyDecision::Action::InvalidTimestamp:
                log::warning("[NodeSelector] Invalid response timestamp: " + decision.text);
                continue;
            case probe::ReplyDecision::Action::Record:
                break;
        }
        long expected = kStatusIdle;
        computingStatus_.compare_exchange_strong(expected, kStatusComputing);
        fromIPv6 = fromIPv6 || decision.fromIPv6;
        std::string ipv6Host;
        if (decision.fromIPv6 && decision.host != decision.sourceHost)
            ipv6Host = std::move(decision.sourceHost);
        replies.push_back(
            {std::move(decision.host), decision.port, decision.delay, std::move(ipv6Host)});
    }
    if (fromIPv6) {
        std::lock_guard guard(mutex_);
        setIsIPV6(true);
    }
    if (replies.empty())
        return;
    // One hop to the data queue for the whole batch, on this thread: a burst of thousands of
    // echoes must not cost thousands of queue hand-overs and wake-ups.
    dataProcessQueue_.asyncHandOff(
        [weak = weak_from_this(), generation, replies = std::move(replies)] {
            if (auto self = weak.lock())
                self->recordDelays(generation, replies);
        });
}

void NodeSelector::computeDelay(double delay, const std::string& host, long port) {
    std::uint64_t generation;
    {
        std::lock_guard guard(mutex_);
        generation = generation_;
    }
    std::vector<Reply> replies{{host, port, delay, {}}};
    dataProcessQueue_.async([weak = weak_from_this(), generation, replies = std::move(replies)] {
        if (auto self = weak.lock())
            self->recordDelays(generation, replies);
    });
}

void NodeSelector::recordDelays(std::uint64_t generation, const std::vector<Reply>& replies) {
    long count;
    {
        std::lock_guard guard(mutex_);
        if (generation != generation_)
            return;
        count = sendPacketCount_;
    }
    std::string key;
    for (const auto& reply : replies) {
        // Once the run has reported, its nodes belong to the caller: late echoes change nothing.
        if (computingStatus_.load() == kStatusFinished) {
            lateReplies_.fetch_add(1);
            continue;
        }
        probe::assignKeyWithHost(key, reply.host, reply.port);
        auto k = keys_->find(key);
        if (k == ProbeKeys::kNone && !reply.ipv6Host.empty()) {
            probe::assignKeyWithHost(key, reply.ipv6Host, reply.port);
            k = keys_->find(key);
        }
        if (k == ProbeKeys::kNone)
            continue;
        const auto received = static_cast<long>(keys_->addDelay(k, reply.delay));
        if (received > count)
            duplicateReplies_.fetch_add(1);
        if (received == count)
            computeScoreOfObjectInDelayContainerWithKey(k);
    }
}

// Scoring.

void NodeSelector::computeScoreOfObjectInDelayContainerWithKey(std::uint32_t k) {
    long delayMode, count;
    bool rear;
    std::shared_ptr<AccConfig> config;
    {
        std::lock_guard guard(mutex_);
        delayMode = delayMode_;
        count = sendPacketCount_;
        rear = enableRearDelay_;
        config = accConfig_;
    }
    const auto delays = keys_->delays(k);
    std::optional<double> d;
    if (delayMode == kDelayModeMin)
        d = DelayStatistics::minOfNumbers(delays);
    else if (delayMode == kDelayModeAvg)
        d = DelayStatistics::computeAvgOfNumbers(delays);
    if (!d || !(*d > 0))
        d = kFallbackDelay;
    const float loss =
        static_cast<float>(count - keys_->receivedCount(k)) / static_cast<float>(count);
    const double minimum = DelayStatistics::minOfNumbers(delays).value_or(0);
    const double maximum = DelayStatistics::maxOfNumbers(delays);
    const double average = DelayStatistics::calculateAverageOfNumbers(delays);
    const double deviation = DelayStatistics::computeDeviationOfDelay(delays);
    keys_->forEachNode(k, [&](const std::shared_ptr<AccNode>& node) {
        double scored = *d;
        if (rear) {
            float rearDelay = node->rearDelay ? node->rearDelay->floatValue() : 0.0f;
            scored = static_cast<double>(static_cast<float>(*d) + rearDelay);
        }
        node->delayScore = AccNode::computeScoreOfDelay(Number(scored), config).doubleValue();
        node->lossScore = AccNode::computeScoreOfLoss(Number(static_cast<double>(loss)), config,
                                                      scoringSettings_.newLossScore)
                              .doubleValue();
        node->loadScore = node->computeScoreOfLoadReferToAccConfig(config).doubleValue();
        node->ispScore = node->computeScoreOfISPReferToAccConfig(config).doubleValue();
        node->delay = *d;
        node->minDelay = minimum;
        node->maxDelay = maximum;
        node->avgDelay = average;
        node->deviation = deviation;
        node->loss = static_cast<double>(loss);
    });
    keys_->setScored(k);
    long counter;
    {
        std::lock_guard guard(mutex_);
        counter = counterOfComputedDelay_;
    }
    setCounterOfComputedDelay(counter + 1);
}

void NodeSelector::setCounterOfComputedDelay(long value) {
    // The run is complete once every key is scored (the keys belong to this queue).
    const bool complete = keys_->size() != 0 && static_cast<std::size_t>(value) == keys_->size();
    std::uint64_t generation;
    {
        std::lock_guard guard(mutex_);
        counterOfComputedDelay_ = value;
        generation = generation_;
    }
    if (complete)
        finishRun(generation);
}

void NodeSelector::packetReceiveTimeoutHandler(std::uint64_t generation) {
    long status;
    {
        std::lock_guard guard(mutex_);
        if (generation != generation_)
            return;
        bool logs = mode_ == kModeBestNode || mode_ == kModeTestMultipath;
        long total = sendPacketCount_ *
                     static_cast<long>(uniquePingServers_ ? uniquePingServers_->size() : 0);
        if (logs) {
            log::info(
                fmt::format("[NodeSelector] Start timeout handler，sent packets count:{}, "
                            "time:{:.1f}ms",
                            sendedPacketNumber_, costTimeOfSendPackets_ * 1000));
        }
        if (sendedPacketNumber_ < total) {
            if (logs) {
                log::info(
                    fmt::format("[NodeSelector] Packet sent {}/{}, waiting for all packets sent...",
                                sendedPacketNumber_, total));
            }
            return;
        }
        status = computingStatus_.load();
        if (status == kStatusComputing)
            computingStatus_ = kStatusTimedOut;
        if (status == kStatusIdle) {
            log::info(std::string("[NodeSelector] ") + kTimeoutDescription);
            error_ = Error::withDescription(kErrorDomain, kErrorTimeout, kTimeoutDescription);
        }
    }
    if (status == kStatusIdle) {
        callFailureBlockIfNeeded();
        return;
    }
    if (status != kStatusComputing)
        return;
    // Keys still waiting for replies are scored first, so that the run completes exactly when
    // every key has a score; a complete key scored again would give the same values.
    const auto keyCount = static_cast<std::uint32_t>(keys_->size());
    std::vector<std::uint32_t> order;
    order.reserve(keyCount);
    for (std::uint32_t k = 0; k < keyCount; ++k)
        if (!keys_->scored(k))
            order.push_back(k);
    for (std::uint32_t k = 0; k < keyCount; ++k)
        if (keys_->scored(k))
            order.push_back(k);
    long silent = 0;
    for (std::uint32_t k : order) {
        if (computingStatus_.load() == kStatusFinished)
            break;
        if (keys_->receivedCount(k) == 0) {
            ++silent;
            log::debug(fmt::format("[NodeSelector] All packets lost node: {}", keys_->key(k)));
        }
        computeScoreOfObjectInDelayContainerWithKey(k);
    }
    if (silent > 0)
        log::info(fmt::format("[NodeSelector] All packets lost nodes: {} of {}", silent, keyCount));
}

}  // namespace lmkit

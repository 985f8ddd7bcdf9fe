// The node selector's completion: the receive time-out, ranking, and the one report of a run.
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

// Completion.

void NodeSelector::finishRun(std::uint64_t generation) {
    long mode, delayMode, count;
    bool rear;
    std::shared_ptr<AccConfig> config;
    long probePort;
    std::optional<std::uint64_t> seed;
    {
        std::lock_guard guard(mutex_);
        if (generation != generation_)
            return;
        seed = randomSeed_;
        computingStatus_ = kStatusFinished;
        if (packetRecvTimer_)
            packetRecvTimer_->invalidate();
        mode = mode_;
        delayMode = delayMode_;
        count = sendPacketCount_;
        rear = enableRearDelay_;
        config = accConfig_;
        probePort = port_ == 0 ? probe::kDefaultProbePort : port_;
    }
    Nodes all = keys_->allNodes();
    sortAndLogNodes(all);
    std::optional<Number> gap;
    if (mode != kModeTestMultipath)
        gap = scoringSettings_.scoreRangeGap;
    std::mt19937_64 random(seed ? *seed : std::random_device{}());
    ChoiceTrace trace;
    Nodes chosen = chooseBestNodes(all, mode, gap, random, &trace);
    explainChoice(all, config, probePort, trace);
    {
        std::lock_guard guard(mutex_);
        lastChoiceTrace_ = std::make_shared<const ChoiceTrace>(std::move(trace));
    }
    auto best = chosen.empty() ? nullptr : chosen.front();

    std::string bestKey;
    auto k = ProbeKeys::kNone;
    if (best) {
        bestKey = probe::constructKeyWithHost(best->safePingServer(), probePort);
        k = keys_->find(bestKey);
    }
    const auto delays = k == ProbeKeys::kNone ? std::span<const double>() : keys_->delays(k);
    std::optional<double> delay;
    if (delayMode == kDelayModeMin)
        delay = DelayStatistics::minOfNumbers(delays);
    else if (delayMode == kDelayModeAvg)
        delay = DelayStatistics::computeAvgOfNumbers(delays);
    if (!delay || !(*delay > 0))
        delay = kFallbackDelay;
    if (rear && best) {
        float rearDelay = best->rearDelay ? best->rearDelay->floatValue() : 0.0f;
        delay = static_cast<double>(static_cast<float>(*delay) + rearDelay);
    }
    long received = k == ProbeKeys::kNone ? 0 : keys_->receivedCount(k);
    double loss =
        static_cast<double>(static_cast<float>(count - received) / static_cast<float>(count));
    if (loss < 0)
        loss = 0;
    double deviation = DelayStatistics::computeDeviationOfDelay(delays);
    double elapsed;
    {
        std::lock_guard guard(mutex_);
        endTime_ = Clock::nowSeconds();
        elapsed = endTime_ - startTime_;
    }
    if (mode == kModeBestNode)
        logBestNodes(chosen, chosen.size(), true);
    // The run in one line; the per-node details above are debug lines.
    log::info(fmt::format(
        "[NodeSelector] Finish, nodes:{}, ping servers:{}, best:{}, delay:{:.3f}ms, loss:{:.2f}, "
        "deviation:{:.2f}, late replies:{}, duplicate replies:{}, time:{:.1f}ms",
        all.size(), keys_->size(), bestKey.empty() ? "(none)" : bestKey, *delay, loss, deviation,
        lateReplies_.load(), duplicateReplies_.load(), elapsed * 1000));

    std::string configPing = config ? formatNumber(config->ping) : "null";
    callbackQueue().async([weak = weak_from_this(), generation, chosen = std::move(chosen),
                           delay = *delay, loss, deviation, bestKey, configPing] {
        auto self = weak.lock();
        if (!self)
            return;
        BestNodeNotifyBlock success;
        FailureBlock failure;
        {
            std::lock_guard guard(self->mutex_);
            if (generation != self->generation_)
                return;  // stopped, or a newer run has taken over the callbacks
            if (delay == 0) {
                failure = std::move(self->failureBlock_);
                self->failureBlock_ = nullptr;
                self->bestNodeNotifyBlock_ = nullptr;
                self->error_.reset();
            } else if (!chosen.empty() && self->bestNodeNotifyBlock_) {
                success = std::move(self->bestNodeNotifyBlock_);
                self->bestNodeNotifyBlock_ = nullptr;
                self->failureBlock_ = nullptr;
            }
        }
        if (delay == 0) {
            log::info(
                fmt::format("[NodeSelector] Finish, best node:{} delay is zero, config "
                            "ping:{}",
                            bestKey, configPing));
            if (failure)
                failure(emptyNodesError());
        } else if (success) {
            success(chosen, delay, loss, deviation);
        }
    });
}

void NodeSelector::explainChoice(const Nodes& nodes, const std::shared_ptr<AccConfig>& config,
                                 long probePort, ChoiceTrace& trace) {
    // Every term of every candidate and every draw: enough to replay a user's report.
    if (!log::isEnabled(log::kDebug))
        return;
    std::string text;
    for (const auto& node : nodes) {
        auto key = probe::constructKeyWithHost(node->safePingServer(), probePort);
        text += fmt::format(
            "{}: delay {:.3f} ms, loss {:.2f}, deviation {:.2f}; delay score {:.2f}, loss score "
            "{:.2f}, load score {:.2f}, isp score {:.2f}, total {:.2f}\n",
            key, node->delay, node->loss, node->deviation, node->delayScore, node->lossScore,
            node->loadScore, node->ispScore, node->score());
    }
    if (config)
        text += fmt::format(
            "weights: ping {}, loss {}, loss2 {}, loss scale {}, load {}, load threshold {}, isp "
            "{}\n",
            formatNumber(config->ping), formatNumber(config->loss), formatNumber(config->loss2),
            formatNumber(config->lossScale), formatNumber(config->load),
            formatNumber(config->loadThreshold), formatNumber(config->isp));
    text += "score gap " + formatNumber(trace.scoreRangeGap) + "\n";
    for (const auto& line : trace.draws)
        text += "draw: " + line + "\n";
    log::debug("[NodeSelector] choice:\n" + text);
}

void NodeSelector::setRandomSeed(std::optional<std::uint64_t> seed) {
    std::lock_guard guard(mutex_);
    randomSeed_ = seed;
}

std::shared_ptr<const NodeSelector::ChoiceTrace> NodeSelector::lastChoiceTrace() const {
    std::lock_guard guard(mutex_);
    return lastChoiceTrace_;
}

void NodeSelector::callFailureBlockIfNeeded() {
    callbackQueue().async([weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self)
            return;
        FailureBlock failure;
        std::optional<Error> error;
        {
            std::lock_guard guard(self->mutex_);
            if (!self->failureBlock_)
                return;
            failure = std::move(self->failureBlock_);
            self->failureBlock_ = nullptr;
            self->bestNodeNotifyBlock_ = nullptr;
            error = std::move(self->error_);
            self->error_.reset();
        }
        failure(error.value_or(Error(kErrorDomain, 0)));
    });
}

}  // namespace lmkit

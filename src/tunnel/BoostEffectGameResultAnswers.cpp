// The boost-effect result item's answers: speed-test results, the meeting of a double-line
// round's two halves, and the result handlers that feed the period statistics.
#include "lmkit/tunnel/BoostEffectGameResultItem.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <fmt/format.h>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/netinfo/NetworkInfoProvider.hpp"
#include "lmkit/netinfo/VPNNetworkStatusMonitor.hpp"
#include "lmkit/platform/Clock.hpp"
#include "lmkit/tunnel/WormholeManager.hpp"
#include "tunnel/BoostEffectShared.hpp"
#include "tunnel/SpeedTestRun.hpp"

namespace lmkit {

using namespace boost_effect;

// Answers of the speed tests and the meeting of a double-line round's two halves.

void BoostEffectGameResultItem::directSpeedTestDidSucceed(double delay,
                                                          const std::vector<double>& delays) {
    if (mode_ == SingleLine) {
        if (shouldRecordProxySpeedTestLog())
            logProxyStatistics(&delays, std::min(delay + rearDelayValue(), kMaxDelay));
        singleLineSingleChannelSucceeded(delay);
        return;
    }
    if (shouldRecordDirectSpeedTestLog())
        logDirectStatistics(&delays);
    std::optional<CacheInfo> stored;
    {
        std::lock_guard lock(mutex_);
        if (cacheInfo_ && cacheInfo_->type >= CacheInfo::ProxySucceeded) {
            stored = cacheInfo_;
            cacheInfo_.reset();
        } else {
            cacheInfo_ = CacheInfo{CacheInfo::DirectSucceeded, delay, std::nullopt, std::nullopt};
        }
    }
    if (stored) {
        runStoredProxyHandler(*stored);
        doubleLineDirectCompleted(delay);
    }
}

void BoostEffectGameResultItem::directSpeedTestDidFail(const Error& error) {
    log::debug("[Speed Test] Speedometer failed: " + error.localizedDescription(),
               log::Stream::Tunnel);
    if (mode_ == SingleLine) {
        if (shouldRecordProxySpeedTestLog())
            logProxyStatistics(nullptr, kMaxDelay);
        singleLineSingleChannelFailed();
        return;
    }
    if (shouldRecordDirectSpeedTestLog())
        logDirectStatistics(nullptr);
    std::optional<CacheInfo> stored;
    {
        std::lock_guard lock(mutex_);
        if (cacheInfo_ && cacheInfo_->type >= CacheInfo::ProxySucceeded) {
            stored = cacheInfo_;
            cacheInfo_.reset();
        } else {
            cacheInfo_ = CacheInfo{CacheInfo::DirectFailed, kMaxDelay, std::nullopt, std::nullopt};
        }
    }
    if (stored) {
        runStoredProxyHandler(*stored);
        doubleLineDirectCompleted(kMaxDelay);
    }
}

void BoostEffectGameResultItem::proxySpeedTestDidSucceed(double frontDelay,
                                                         const std::vector<double>& delays) {
    const double totalDelay = frontDelay + rearDelayValue();
    if (shouldRecordProxySpeedTestLog())
        logProxyStatistics(&delays, std::min(totalDelay, kMaxDelay));
    std::optional<CacheInfo> stored;
    {
        std::lock_guard lock(mutex_);
        if (cacheInfo_ && cacheInfo_->type <= CacheInfo::DirectFailed) {
            stored = cacheInfo_;
            cacheInfo_.reset();
        } else {
            cacheInfo_ = CacheInfo{CacheInfo::ProxySucceeded, std::nullopt, frontDelay, totalDelay};
        }
    }
    if (stored) {
        doubleLineProxySucceeded(totalDelay, frontDelay);
        runStoredDirectHandler(*stored, stored->directDelay.value_or(kMaxDelay));
    }
}

void BoostEffectGameResultItem::proxySpeedTestDidFail(const Error& error) {
    log::debug("[Speed Test] Speedometer failed: " + error.localizedDescription(),
               log::Stream::Tunnel);
    if (shouldRecordProxySpeedTestLog())
        logProxyStatistics(nullptr, kMaxDelay);
    std::optional<CacheInfo> stored;
    {
        std::lock_guard lock(mutex_);
        if (cacheInfo_ && cacheInfo_->type <= CacheInfo::DirectFailed) {
            stored = cacheInfo_;
            cacheInfo_.reset();
        } else {
            cacheInfo_ = CacheInfo{CacheInfo::ProxyFailed, std::nullopt, kMaxDelay, kMaxDelay};
        }
    }
    if (stored) {
        doubleLineProxyFailed();
        // The stored direct answer is replaced by the failure value, whatever it was: a round
        // whose relay failed is not shown as a direct success.
        runStoredDirectHandler(*stored, kMaxDelay);
    }
}

void BoostEffectGameResultItem::dualChannelSpeedTestDidComplete(const DualChannelOutcome& outcome) {
    const double frontDelay = outcome.frontDelay();
    const double totalDelay = frontDelay + rearDelayValue();
    {
        std::lock_guard lock(mutex_);
        wifiDelay_ = outcome.wifiDelay;
        cellularDelay_ = outcome.cellularDelay;
    }
    auto [wifiInterface, cellularInterface] = environment_.dualChannelInterfaces();
    logTunnel(fmt::format(
        "[Speed Test] Game ID: {}, Dual-channel delays Wi-Fi:{}, interface: {}, cellular: {}, "
        "interface: {}",
        gidText(), Number(outcome.wifiDelay).description(), wifiInterface,
        Number(outcome.cellularDelay).description(), cellularInterface));
    if (shouldRecordProxySpeedTestLog())
        logDualChannel(outcome, std::min(totalDelay, kMaxDelay));
    if (mode_ == SingleLine) {
        singleLineDualChannelCompleted(totalDelay, frontDelay);
        return;
    }
    std::optional<CacheInfo> stored;
    {
        std::lock_guard lock(mutex_);
        if (cacheInfo_ && cacheInfo_->type <= CacheInfo::DirectFailed) {
            stored = cacheInfo_;
            cacheInfo_.reset();
        } else {
            cacheInfo_ =
                CacheInfo{CacheInfo::DualChannelCompleted, std::nullopt, frontDelay, totalDelay};
        }
    }
    if (stored) {
        doubleLineDualChannelCompleted(totalDelay, frontDelay);
        runStoredDirectHandler(*stored, stored->directDelay.value_or(kMaxDelay));
    }
}

void BoostEffectGameResultItem::runStoredDirectHandler(const CacheInfo&, double delay) {
    // A stored direct success and a stored direct failure (kept at 400) end in the same handler.
    doubleLineDirectCompleted(delay);
}

void BoostEffectGameResultItem::runStoredProxyHandler(const CacheInfo& stored) {
    switch (stored.type) {
        case CacheInfo::ProxySucceeded:
            doubleLineProxySucceeded(stored.totalDelay.value_or(kMaxDelay),
                                     stored.frontDelay.value_or(kMaxDelay));
            break;
        case CacheInfo::ProxyFailed:
            doubleLineProxyFailed();
            break;
        case CacheInfo::DualChannelCompleted:
            doubleLineDualChannelCompleted(stored.totalDelay.value_or(kMaxDelay),
                                           stored.frontDelay.value_or(kMaxDelay));
            break;
        default:
            break;
    }
}

// Result handlers. The period statistics take the raw relay delay (before the relay's own
// delay to the game server is added), and only once a traffic report has named the relay.

void BoostEffectGameResultItem::singleLineSingleChannelSucceeded(double delay) {
    double stored;
    {
        std::lock_guard lock(mutex_);
        stored = std::min(delay + (rearDelay_ ? rearDelay_->doubleValue() : 0), kMaxDelay);
        directDelay_ = stored;
        if (hasUpdatedProxyAddress_)
            updateDelaysLocked(delay);
    }
    addDelay(stored, directDelays_);
}

void BoostEffectGameResultItem::singleLineSingleChannelFailed() {
    {
        std::lock_guard lock(mutex_);
        directDelay_ = kMaxDelay;
    }
    addDelay(kMaxDelay, directDelays_);
}

void BoostEffectGameResultItem::singleLineDualChannelCompleted(double totalDelay,
                                                               double frontDelay) {
    const double stored = std::min(totalDelay, kMaxDelay);
    {
        std::lock_guard lock(mutex_);
        directDelay_ = stored;
        if (hasUpdatedProxyAddress_)
            updateDelaysLocked(frontDelay);
    }
    addDelay(stored, directDelays_);
}

void BoostEffectGameResultItem::doubleLineDirectCompleted(double delay) {
    const double stored = std::min(delay, kMaxDelay);
    {
        std::lock_guard lock(mutex_);
        directDelay_ = stored;
    }
    addDelay(stored, directDelays_);
}

void BoostEffectGameResultItem::doubleLineProxySucceeded(double totalDelay, double frontDelay) {
    const double stored = std::min(totalDelay, kMaxDelay);
    {
        std::lock_guard lock(mutex_);
        proxyDelay_ = stored;
        if (hasUpdatedProxyAddress_)
            updateDelaysLocked(frontDelay);
    }
    addDelay(stored, proxyDelays_);
}

void BoostEffectGameResultItem::doubleLineProxyFailed() {
    {
        std::lock_guard lock(mutex_);
        proxyDelay_ = kMaxDelay;
    }
    addDelay(kMaxDelay, proxyDelays_);
}

void BoostEffectGameResultItem::doubleLineDualChannelCompleted(double totalDelay,
                                                               double frontDelay) {
    doubleLineProxySucceeded(totalDelay, frontDelay);
}

void BoostEffectGameResultItem::addDelay(std::optional<double> delay,
                                         ThreadSafeMutableArray<double>& container) {
    if (!delay)
        return;
    if (container.count() >= kMaxDelayCount)
        container.removeObjectAtIndex(0);
    container.addObject(*delay);
}

void BoostEffectGameResultItem::updateDelaysWithDelay(std::optional<double> delay) {
    if (!delay)
        return;
    std::lock_guard lock(mutex_);
    updateDelaysLocked(*delay);
}

void BoostEffectGameResultItem::updateDelaysLocked(double delay) {
    if (static_cast<long>(delay) >= kFirstDelayPastCeiling)
        delay = kMaxDelay;
    if (delay > periodMaxDelay_)
        periodMaxDelay_ = delay;
    if (delay < periodMinDelay_)
        periodMinDelay_ = delay;
    ++periodCount_;
    periodAvgDelay_ =
        (periodAvgDelay_ * static_cast<double>(periodCount_ - 1) + delay) / periodCount_;
}

}  // namespace lmkit

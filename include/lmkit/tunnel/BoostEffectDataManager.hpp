#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lmkit/models/VPNSimpleStartOptions.hpp"
#include "lmkit/platform/Number.hpp"
#include "lmkit/tunnel/BoostEffectGameResultItem.hpp"

namespace lmkit {

/// The tunnel's registry of boost-effect measurers, one per started game, in start order.
/// Items are found by their game's gid; when several share a gid, the earliest wins every
/// lookup.
///
/// The list has no lock of its own: call every operation from one queue (the tunnel's). The
/// items themselves may be read from anywhere.
class BoostEffectDataManager {
  public:
    using Item = BoostEffectGameResultItem;

    static BoostEffectDataManager& sharedManager();

    /// An empty registry (tests and tools; the tunnel uses sharedManager()).
    BoostEffectDataManager() = default;
    BoostEffectDataManager(const BoostEffectDataManager&) = delete;
    BoostEffectDataManager& operator=(const BoostEffectDataManager&) = delete;

    const std::vector<std::shared_ptr<Item>>& speedTestResults() const { return speedTestResults_; }

    /// Creates a measurer for the options' game and tech-icon state, appends it (even when the
    /// game already has one) and starts its speed tests. Hand the same string object as
    /// speed-test and proxy address to measure the relay alone. Without a game, a proxy
    /// address or a non-zero proxy port nothing is added: the refusal is logged and nullptr
    /// returned.
    std::shared_ptr<Item> startSpeedTestWithOption(
        const std::shared_ptr<const VPNSimpleStartOptions>& option, bool udpDualChannel,
        std::optional<Number> startTime, double sendTimeInterval, Item::StringRef proxyAddress,
        long proxyPort, Item::StringRef speedTestAddress, long speedTestPort,
        std::optional<Number> rearDelay, Item::Environment environment = {});

    std::optional<double> directServerDelayWithGameId(const std::string& gameId) const;
    std::optional<double> proxyServerDelayWithGameId(const std::string& gameId) const;
    std::optional<double> directServerLossWithGameId(const std::string& gameId) const;
    std::optional<double> proxyServerLossWithGameId(const std::string& gameId) const;

    /// A copy of the item's samples; nil for an unknown game.
    std::optional<std::vector<double>> directServerDelaysWithGameId(
        const std::string& gameId) const;
    std::optional<std::vector<double>> proxyServerDelaysWithGameId(const std::string& gameId) const;
    /// The newest `latestLimitCount` samples in stored order; nil for an unknown game, an empty
    /// list or a negative limit.
    std::optional<std::vector<double>> directServerDelaysWithGameId(const std::string& gameId,
                                                                    long latestLimitCount) const;
    std::optional<std::vector<double>> proxyServerDelaysWithGameId(const std::string& gameId,
                                                                   long latestLimitCount) const;

    /// Stops the first item of the game and removes it; nothing for an unknown game.
    void stopWithGameId(const std::string& gameId);

    /// Hands a traffic report to the first item of the game; its finished period record, or nil
    /// (also for an unknown game).
    std::optional<Item::PeriodRecord> updateServerWithRemoteIP(
        const std::string& remoteIP, unsigned remotePort, const std::string& proxyIP,
        unsigned proxyPort, const std::optional<std::string>& directIP, std::optional<Number> rtt,
        long packets, long bytes, const std::string& gameId);

  private:
    std::shared_ptr<Item> itemWithGameId(const std::string& gameId) const;
    static std::optional<std::vector<double>> latest(const ThreadSafeMutableArray<double>& delays,
                                                     long limit);

    std::vector<std::shared_ptr<Item>> speedTestResults_;  // the caller's queue only
};

}  // namespace lmkit

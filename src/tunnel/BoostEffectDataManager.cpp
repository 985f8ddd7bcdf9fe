#include "lmkit/tunnel/BoostEffectDataManager.hpp"

#include <algorithm>

#include "lmkit/foundation/Log.hpp"

namespace lmkit {

BoostEffectDataManager& BoostEffectDataManager::sharedManager() {
    // Never destroyed: items may still be answering on their queues at process exit.
    static auto* manager = new BoostEffectDataManager();
    return *manager;
}

std::shared_ptr<BoostEffectDataManager::Item> BoostEffectDataManager::startSpeedTestWithOption(
    const std::shared_ptr<const VPNSimpleStartOptions>& option, bool udpDualChannel,
    std::optional<Number> startTime, double sendTimeInterval, Item::StringRef proxyAddress,
    long proxyPort, Item::StringRef speedTestAddress, long speedTestPort,
    std::optional<Number> rearDelay, Item::Environment environment) {
    auto item = Item::create(option ? option->game : nullptr, udpDualChannel, std::move(startTime),
                             sendTimeInterval, std::move(speedTestAddress), speedTestPort,
                             std::move(proxyAddress), proxyPort, std::move(rearDelay),
                             option ? option->techIconState : nullptr, std::move(environment));
    if (!item) {
        log::error(
            "[BoostEffectDataManager] Speed test not started: a game, a proxy address and a "
            "non-zero proxy port are required",
            log::Stream::Tunnel);
        return nullptr;
    }
    speedTestResults_.push_back(item);
    item->speedTest();
    return item;
}

std::shared_ptr<BoostEffectDataManager::Item> BoostEffectDataManager::itemWithGameId(
    const std::string& gameId) const {
    for (const auto& item : speedTestResults_) {
        if (item->game()->gid == gameId)
            return item;
    }
    return nullptr;
}

std::optional<double> BoostEffectDataManager::directServerDelayWithGameId(
    const std::string& gameId) const {
    auto item = itemWithGameId(gameId);
    return item ? item->directDelay() : std::nullopt;
}

std::optional<double> BoostEffectDataManager::proxyServerDelayWithGameId(
    const std::string& gameId) const {
    auto item = itemWithGameId(gameId);
    return item ? item->proxyDelay() : std::nullopt;
}

std::optional<double> BoostEffectDataManager::directServerLossWithGameId(
    const std::string& gameId) const {
    auto item = itemWithGameId(gameId);
    return item ? item->directLoss() : std::nullopt;
}

std::optional<double> BoostEffectDataManager::proxyServerLossWithGameId(
    const std::string& gameId) const {
    auto item = itemWithGameId(gameId);
    return item ? item->proxyLoss() : std::nullopt;
}

std::optional<std::vector<double>> BoostEffectDataManager::directServerDelaysWithGameId(
    const std::string& gameId) const {
    auto item = itemWithGameId(gameId);
    if (!item)
        return std::nullopt;
    return item->directDelays().immutableArray();
}

std::optional<std::vector<double>> BoostEffectDataManager::proxyServerDelaysWithGameId(
    const std::string& gameId) const {
    auto item = itemWithGameId(gameId);
    if (!item)
        return std::nullopt;
    return item->proxyDelays().immutableArray();
}

std::optional<std::vector<double>> BoostEffectDataManager::directServerDelaysWithGameId(
    const std::string& gameId, long latestLimitCount) const {
    auto item = itemWithGameId(gameId);
    if (!item)
        return std::nullopt;
    return latest(item->directDelays(), latestLimitCount);
}

std::optional<std::vector<double>> BoostEffectDataManager::proxyServerDelaysWithGameId(
    const std::string& gameId, long latestLimitCount) const {
    auto item = itemWithGameId(gameId);
    if (!item)
        return std::nullopt;
    return latest(item->proxyDelays(), latestLimitCount);
}

std::optional<std::vector<double>> BoostEffectDataManager::latest(
    const ThreadSafeMutableArray<double>& delays, long limit) {
    // A negative count has no newest samples to give; slicing with it would read before the
    // list.
    if (limit < 0)
        return std::nullopt;
    // One snapshot, so a sample added meanwhile cannot shift the slice.
    const std::vector<double> all = delays.immutableArray();
    if (all.empty())
        return std::nullopt;
    const std::size_t n = all.size();
    const std::size_t k = std::min(static_cast<std::size_t>(limit), n);
    if (k == 1)
        return std::vector<double>{all.back()};
    const std::size_t first = static_cast<std::size_t>(limit) >= n ? 0 : n - limit;
    return std::vector<double>(all.begin() + static_cast<std::ptrdiff_t>(first),
                               all.begin() + static_cast<std::ptrdiff_t>(first + k));
}

void BoostEffectDataManager::stopWithGameId(const std::string& gameId) {
    std::optional<std::size_t> found;
    for (std::size_t i = 0; i < speedTestResults_.size(); ++i) {
        if (speedTestResults_[i]->game()->gid == gameId) {
            found = i;
            speedTestResults_[i]->stop();
            break;
        }
    }
    if (found)
        speedTestResults_.erase(speedTestResults_.begin() + static_cast<std::ptrdiff_t>(*found));
}

std::optional<BoostEffectDataManager::Item::PeriodRecord>
BoostEffectDataManager::updateServerWithRemoteIP(const std::string& remoteIP, unsigned remotePort,
                                                 const std::string& proxyIP, unsigned proxyPort,
                                                 const std::optional<std::string>& directIP,
                                                 std::optional<Number> rtt, long packets,
                                                 long bytes, const std::string& gameId) {
    auto item = itemWithGameId(gameId);
    if (!item)
        return std::nullopt;
    return item->updateGameServerWithRemoteIP(remoteIP, remotePort, proxyIP, proxyPort, directIP,
                                              std::move(rtt), packets, bytes);
}

}  // namespace lmkit

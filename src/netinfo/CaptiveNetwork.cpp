#include "lmkit/netinfo/CaptiveNetwork.hpp"

namespace lmkit {

std::vector<std::string> CaptiveNetwork::supportedInterfaces() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    for (const auto& [name, info] : infos_)
        names.push_back(name);
    return names;
}

std::optional<CaptiveNetwork::NetworkInfo> CaptiveNetwork::copyCurrentNetworkInfo(
    const std::string& interfaceName) const {
    std::lock_guard lock(mutex_);
    auto found = infos_.find(interfaceName);
    if (found == infos_.end())
        return std::nullopt;
    return found->second;
}

void CaptiveNetwork::setCurrentNetworkInfo(const std::string& interfaceName, NetworkInfo info) {
    std::lock_guard lock(mutex_);
    infos_[interfaceName] = std::move(info);
}

void CaptiveNetwork::removeCurrentNetworkInfo(const std::string& interfaceName) {
    std::lock_guard lock(mutex_);
    infos_.erase(interfaceName);
}

}  // namespace lmkit

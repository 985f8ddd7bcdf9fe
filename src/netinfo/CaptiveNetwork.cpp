#include "lmkit/netinfo/CaptiveNetwork.hpp"

#include "lmkit/platform/SystemNetworkFacts.hpp"
#include "netinfo/CachedReading.hpp"

namespace lmkit {

CaptiveNetwork::CaptiveNetwork(SystemSource source, std::string serviceName)
    : systemSource_(std::move(source)), serviceName_(std::move(serviceName)) {}

std::shared_ptr<CaptiveNetwork> CaptiveNetwork::fromNetworkManager(
    std::chrono::milliseconds maxAge) {
    using Infos = std::map<std::string, NetworkInfo>;
    auto read = []() -> std::optional<Infos> {
        auto devices = SystemNetworkFacts::wifiDevices();
        if (!devices)
            return std::nullopt;
        Infos infos;
        for (const auto& device : *devices) {
            NetworkInfo& info = infos[device.interfaceName];
            if (device.ssid)
                info["SSID"] = *device.ssid;
            if (device.bssid)
                info["BSSID"] = *device.bssid;
        }
        return infos;
    };
    return std::make_shared<CaptiveNetwork>(detail::cachedReading<Infos>(read, maxAge),
                                            kNetworkManagerService);
}

std::optional<std::string> CaptiveNetwork::answeringService() const {
    if (systemSource_ && systemSource_())
        return serviceName_;
    return std::nullopt;
}

std::map<std::string, CaptiveNetwork::NetworkInfo> CaptiveNetwork::currentInfos() const {
    {
        std::lock_guard lock(mutex_);
        if (!infos_.empty() || !systemSource_)
            return infos_;
    }
    // Asked without the lock: a reading may take up to the service's time-out.
    if (auto system = systemSource_())
        return *system;
    std::lock_guard lock(mutex_);
    return infos_;
}

std::vector<std::string> CaptiveNetwork::supportedInterfaces() const {
    std::vector<std::string> names;
    for (const auto& [name, info] : currentInfos())
        names.push_back(name);
    return names;
}

std::optional<CaptiveNetwork::NetworkInfo> CaptiveNetwork::copyCurrentNetworkInfo(
    const std::string& interfaceName) const {
    auto infos = currentInfos();
    auto found = infos.find(interfaceName);
    // A device that is not associated has no current network.
    if (found == infos.end() || found->second.empty())
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

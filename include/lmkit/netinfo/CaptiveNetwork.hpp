#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace lmkit {

/// Current Wi-Fi network information per interface (keys "SSID" and "BSSID").
///
/// The information comes from two places. Whoever knows it may set it; otherwise an object made
/// with a system source (fromNetworkManager) reads it from the system's network service. While
/// the information of any interface is set, only set information is reported, so an app that
/// describes its Wi-Fi sees exactly its description; once none is set (or all is removed), the
/// system service's answer counts. When no service answers, the set information answers as it
/// stands: none, for an object that was never told anything.
class CaptiveNetwork {
  public:
    using NetworkInfo = std::map<std::string, std::string>;
    /// The Wi-Fi interfaces a system service knows, each with its current information (empty while
    /// it is not associated); nullopt when no service answers.
    using SystemSource = std::function<std::optional<std::map<std::string, NetworkInfo>>()>;
    static constexpr const char* kNetworkManagerService = "NetworkManager";
    /// How long one reading of NetworkManager stands; see TelephonyNetworkInfo::kSystemFactsMaxAge.
    static constexpr std::chrono::milliseconds kSystemFactsMaxAge{2000};

    /// Only what is set; no system service is asked.
    CaptiveNetwork() = default;
    /// Information not set is asked of `source` (on every question) as `serviceName`'s.
    CaptiveNetwork(SystemSource source, std::string serviceName);
    /// Information not set comes from NetworkManager on the system bus, one reading standing for
    /// `maxAge`: its Wi-Fi devices by interface name, with the active access point's SSID and
    /// hardware address (the BSSID).
    static std::shared_ptr<CaptiveNetwork> fromNetworkManager(
        std::chrono::milliseconds maxAge = kSystemFactsMaxAge);
    CaptiveNetwork(const CaptiveNetwork&) = delete;
    CaptiveNetwork& operator=(const CaptiveNetwork&) = delete;

    /// The name of the system service that answers now ("NetworkManager"); nullopt when the object
    /// has no system source or its service does not answer.
    std::optional<std::string> answeringService() const;

    /// The interfaces that have (or had) information, in name order.
    std::vector<std::string> supportedInterfaces() const;
    /// The information of `interfaceName`; nullopt when there is none.
    std::optional<NetworkInfo> copyCurrentNetworkInfo(const std::string& interfaceName) const;

    void setCurrentNetworkInfo(const std::string& interfaceName, NetworkInfo info);
    void removeCurrentNetworkInfo(const std::string& interfaceName);

  private:
    /// The information that counts now: the set information, else the system's.
    std::map<std::string, NetworkInfo> currentInfos() const;

    const SystemSource systemSource_;  // set once at construction
    const std::string serviceName_;
    mutable std::mutex mutex_;
    std::map<std::string, NetworkInfo> infos_;  // guarded by mutex_
};

}  // namespace lmkit

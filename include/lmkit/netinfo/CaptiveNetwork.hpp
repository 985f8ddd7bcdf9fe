#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace lmkit {

/// Current Wi-Fi network information per interface (keys "SSID" and "BSSID"). Linux offers no
/// portable unprivileged query, so the information is set by whoever knows it.
class CaptiveNetwork {
  public:
    using NetworkInfo = std::map<std::string, std::string>;

    /// The interfaces that have (or had) information, in name order.
    std::vector<std::string> supportedInterfaces() const;
    /// The information of `interfaceName`; nullopt when there is none.
    std::optional<NetworkInfo> copyCurrentNetworkInfo(const std::string& interfaceName) const;

    void setCurrentNetworkInfo(const std::string& interfaceName, NetworkInfo info);
    void removeCurrentNetworkInfo(const std::string& interfaceName);

  private:
    mutable std::mutex mutex_;
    std::map<std::string, NetworkInfo> infos_;  // guarded by mutex_
};

}  // namespace lmkit

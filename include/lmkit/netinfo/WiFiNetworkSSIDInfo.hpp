#pragma once

#include <optional>
#include <string>

namespace lmkit {

/// The current Wi-Fi network's name and access point.
struct WiFiNetworkSSIDInfo {
    std::optional<std::string> ssid;
    std::optional<std::string> bssid;
};

}  // namespace lmkit

#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// Name and access-point address of the current Wi-Fi network.
struct WiFiNetworkSSIDInfo : Model<WiFiNetworkSSIDInfo> {
    std::optional<std::string> ssid;
    std::optional<std::string> bssid;

    static const std::vector<Property<WiFiNetworkSSIDInfo>>& properties();
};

}  // namespace lmkit

#include "lmkit/models/WiFiNetworkSSIDInfo.hpp"

namespace lmkit {

const std::vector<Property<WiFiNetworkSSIDInfo>>& WiFiNetworkSSIDInfo::properties() {
    static const std::vector<Property<WiFiNetworkSSIDInfo>> table{
        prop("ssid", &WiFiNetworkSSIDInfo::ssid),
        prop("bssid", &WiFiNetworkSSIDInfo::bssid),
    };
    return table;
}

}  // namespace lmkit

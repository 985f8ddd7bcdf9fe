#include "lmkit/netinfo/InterfaceNaming.hpp"

#include <cstdlib>
#include <string_view>

namespace lmkit {

namespace {
bool hasPrefix(const std::string& name, const std::vector<std::string>& prefixes) {
    for (const auto& prefix : prefixes) {
        if (name.rfind(prefix, 0) == 0)
            return true;
    }
    return false;
}
}  // namespace

InterfaceNaming InterfaceNaming::linuxNames() {
    InterfaceNaming naming;
    // Wired "en…"/"eth…" links stand in for Wi-Fi: both are the non-metered path.
    naming.wifiPrefixes = {"wl", "en", "eth"};
    naming.cellularPrefixes = {"wwan", "rmnet", "ccmni", "pdp_ip0"};
    naming.cellularFamilyPrefixes = {"wwan", "rmnet", "ccmni", "pdp_ip"};
    naming.kindNames = {"lo", "ap0", "wlan0", "wwan0"};
    return naming;
}

InterfaceNaming InterfaceNaming::fromEnvironment() {
    const char* value = std::getenv("LMKIT_INTERFACE_NAMING");
    return value != nullptr && std::string_view(value) == "linux" ? linuxNames() : platformNames();
}

bool InterfaceNaming::isWiFi(const std::string& name) const {
    return hasPrefix(name, wifiPrefixes);
}

bool InterfaceNaming::isCellular(const std::string& name) const {
    return hasPrefix(name, cellularPrefixes);
}

bool InterfaceNaming::isListed(const std::string& name) const {
    return hasPrefix(name, wifiPrefixes) || hasPrefix(name, cellularFamilyPrefixes);
}

}  // namespace lmkit

#include "lmkit/netinfo/VPNNetworkStatusMonitor.hpp"

#include <sys/socket.h>

namespace lmkit {

VPNNetworkStatusMonitor& VPNNetworkStatusMonitor::sharedMonitor() {
    static auto* monitor =
        new VPNNetworkStatusMonitor(interfaceAddresses, InterfaceNaming::fromEnvironment());
    return *monitor;
}

VPNNetworkStatusMonitor::VPNNetworkStatusMonitor(InterfaceSource source, InterfaceNaming naming)
    : source_(std::move(source)), naming_(std::move(naming)) {}

void VPNNetworkStatusMonitor::setInterfaceNaming(InterfaceNaming naming) {
    std::lock_guard lock(mutex_);
    naming_ = std::move(naming);
}

InterfaceNaming VPNNetworkStatusMonitor::interfaceNaming() const {
    std::lock_guard lock(mutex_);
    return naming_;
}

bool VPNNetworkStatusMonitor::isValidIPAddress(const std::string& address, bool ipv4) {
    if (address.empty())
        return false;
    if (ipv4)
        return address != "0.0.0.0" && address.rfind("169.254", 0) != 0;
    return address != "::" && address.rfind("fe80::", 0) != 0 &&
           address.rfind("0:0:fe80::", 0) != 0;
}

NetworkInfo VPNNetworkStatusMonitor::getInterfaceInfo() const {
    NetworkInfo info;
    auto entries = source_();
    if (!entries)
        return info;
    InterfaceNaming naming = interfaceNaming();
    bool wifiValid = false;
    bool wwanValid = false;
    for (const auto& entry : *entries) {
        if (entry.family != AF_INET && entry.family != AF_INET6)
            continue;
        std::optional<std::string> text;
        bool valid = false;
        if (entry.isUp() && !entry.address.empty()) {
            text = entry.address;
            valid = isValidIPAddress(entry.address, entry.family == AF_INET);
        }
        if (naming.isWiFi(entry.name)) {
            if (text) {
                info.wifiIp = text;
                (entry.family == AF_INET ? info.wifiIpV4 : info.wifiIpV6) = text;
            }
            wifiValid |= valid;
        } else if (naming.isCellular(entry.name)) {
            // A later down or unformattable cellular entry clears an earlier address, so the
            // address reported is always that of the last cellular entry.
            info.wwanIp = text;
            if (valid && !wwanValid)
                info.wwanInterface = entry.name;
            wwanValid |= valid;
        }
    }
    info.WiFiValid = wifiValid;
    info.WWANValid = wwanValid;
    return info;
}

InterfaceBinding VPNNetworkStatusMonitor::bindingForInterfaceType(long type) const {
    constexpr long kWiFi = 1;
    constexpr long kCellular = 2;
    InterfaceBinding binding;
    if (type == kWiFi) {
        binding.usable = getInterfaceInfo().WiFiValid;
    } else if (type == kCellular) {
        auto info = getInterfaceInfo();
        binding.usable = info.WWANValid;
        binding.interfaceName = info.wwanInterface;
    }
    return binding;
}

}  // namespace lmkit

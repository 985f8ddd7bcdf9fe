#pragma once

#include <array>
#include <string>
#include <vector>

namespace lmkit {

/// Which interface names mean Wi-Fi and cellular. The default follows the phone platform's
/// names ("en…" is Wi-Fi, "pdp_ip0" is cellular); linuxNames() recognises the usual Linux ones.
struct InterfaceNaming {
    /// Names beginning with one of these are Wi-Fi.
    std::vector<std::string> wifiPrefixes{"en"};
    /// Names beginning with one of these are the cellular data interface (the tunnel's test).
    std::vector<std::string> cellularPrefixes{"pdp_ip0"};
    /// Names beginning with one of these are listed as cellular interfaces (interfaceInfos).
    std::vector<std::string> cellularFamilyPrefixes{"pdp_ip"};
    /// The interface of each interface kind 0 to 3 (loopback, access point, Wi-Fi, cellular).
    std::array<std::string, 4> kindNames{"lo0", "ap", "en0", "pdp_ip0"};

    static InterfaceNaming platformNames() { return {}; }
    static InterfaceNaming linuxNames();
    /// The naming the shared instances start with: linuxNames() when the environment variable
    /// LMKIT_INTERFACE_NAMING is "linux", else platformNames().
    static InterfaceNaming fromEnvironment();

    bool isWiFi(const std::string& name) const;
    bool isCellular(const std::string& name) const;
    bool isListed(const std::string& name) const;
    /// The cellular interface to bind to.
    const std::string& cellularInterface() const { return kindNames[3]; }
};

}  // namespace lmkit

#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "lmkit/netinfo/InterfaceNaming.hpp"
#include "lmkit/platform/InterfaceAddresses.hpp"

namespace lmkit {

/// Which Wi-Fi and cellular addresses are usable, as read from the interface list.
struct NetworkInfo {
    bool networkValid = false;
    bool WiFiValid = false;
    bool WWANValid = false;
    std::optional<std::string> wifiIp;
    std::optional<std::string> wifiIpV4;
    std::optional<std::string> wifiIpV6;
    std::optional<std::string> wwanIp;
    /// The cellular interface that made WWANValid true (the first usable one).
    std::optional<std::string> wwanInterface;
};

/// What a socket bound to an interface type may use, from one reading of the interface list.
struct InterfaceBinding {
    /// Whether the type's interface is usable; types other than Wi-Fi and cellular always are.
    bool usable = true;
    /// The interface to bind to: for cellular, the usable cellular interface itself, so that the
    /// socket binds to the very interface the check found. Wi-Fi is checked but not named: the
    /// default route already leaves through it.
    std::optional<std::string> interfaceName;
};

/// The tunnel's view of the network: every answer is computed afresh from the interface list,
/// because inside the tunnel the usual reachability services see only the tunnel itself.
class VPNNetworkStatusMonitor {
  public:
    using InterfaceSource = std::function<std::optional<std::vector<InterfaceAddress>>()>;

    static VPNNetworkStatusMonitor& sharedMonitor();

    /// Reads interfaces from `source` (the system's list by default).
    explicit VPNNetworkStatusMonitor(InterfaceSource source = interfaceAddresses,
                                     InterfaceNaming naming = InterfaceNaming::platformNames());

    NetworkInfo getInterfaceInfo() const;
    static bool isValidIPAddress(const std::string& address, bool ipv4);

    std::optional<std::string> wifiIp() const { return getInterfaceInfo().wifiIp; }
    std::optional<std::string> wifiIpV4() const { return getInterfaceInfo().wifiIpV4; }
    std::optional<std::string> wifiIpV6() const { return getInterfaceInfo().wifiIpV6; }
    std::optional<std::string> wwanIp() const { return getInterfaceInfo().wwanIp; }
    /// Never computed, so always false: callers test WiFiValid and WWANValid.
    bool networkValid() const { return getInterfaceInfo().networkValid; }
    bool WiFiValid() const { return getInterfaceInfo().WiFiValid; }
    bool WWANValid() const { return getInterfaceInfo().WWANValid; }

    /// The binding for interface type `type` (0 any, 1 Wi-Fi, 2 cellular, anything else any):
    /// every measuring socket checks and binds through this one answer.
    InterfaceBinding bindingForInterfaceType(long type) const;

    void setInterfaceNaming(InterfaceNaming naming);
    InterfaceNaming interfaceNaming() const;

  private:
    InterfaceSource source_;
    mutable std::mutex mutex_;
    InterfaceNaming naming_;  // guarded by mutex_
};

}  // namespace lmkit

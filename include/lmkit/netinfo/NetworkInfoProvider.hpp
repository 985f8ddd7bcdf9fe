#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "lmkit/models/WiFiNetworkSSIDInfo.hpp"
#include "lmkit/netinfo/CaptiveNetwork.hpp"
#include "lmkit/netinfo/InterfaceNaming.hpp"
#include "lmkit/netinfo/NetworkInterfaceInfo.hpp"
#include "lmkit/netinfo/Reachability.hpp"
#include "lmkit/netinfo/TelephonyNetworkInfo.hpp"
#include "lmkit/platform/DispatchQueue.hpp"
#include "lmkit/platform/InterfaceAddresses.hpp"

namespace lmkit {

class NotificationCenter;

/// Network type: -1 unknown, 0 none, 1 Wi-Fi, 2 to 5 for 2G to 5G.
enum NetworkType : int {
    NetworkTypeUnknown = -1,
    NetworkTypeNone = 0,
    NetworkTypeWiFi = 1,
    NetworkType2G = 2,
    NetworkType3G = 3,
    NetworkType4G = 4,
    NetworkType5G = 5,
};

/// Carrier of the SIM, from its mobile network code.
enum Carrier : int { CarrierUnknown = 0, CarrierTelecom = 1, CarrierMobile = 2, CarrierUnicom = 3 };

/// Facts about the device's network: its type, the carrier, interfaces and addresses, the current
/// Wi-Fi. Telephony, captive Wi-Fi and reachability come from the objects it holds, which can be
/// set and, with Sources::systemServices, also read the system's modem and network services;
/// interfaces are read from the system (or the given source) on every call.
class NetworkInfoProvider {
  public:
    static constexpr const char* kNetworkStatusDidChangeNotification =
        "NetworkInfoProviderNetworkStatusDidChangeNotification";
    static constexpr const char* kCurrentNetworkTypeKey =
        "NetworkInfoProviderNetworkStatusNotificationKeyCurrentNetworkType";
    static constexpr const char* kLastNetworkTypeKey =
        "NetworkInfoProviderNetworkStatusNotificationKeyLastNetworkType";

    using InterfaceSource = std::function<std::optional<std::vector<InterfaceAddress>>()>;

    struct Sources {
        InterfaceSource interfaces = interfaceAddresses;
        InterfaceNaming naming = InterfaceNaming::platformNames();
        std::shared_ptr<Reachability> reachability;       // made from the two above if null
        std::shared_ptr<TelephonyNetworkInfo> telephony;  // made here if null
        std::shared_ptr<CaptiveNetwork> captiveNetwork;   // made here if null
        // Whether the telephony and captive-network objects made here read ModemManager and
        // NetworkManager for what is not set; without, they hold only what is set.
        bool systemServices = false;
        NotificationCenter* notificationCenter = nullptr;  // the default centre if null
        bool watchChanges = true;  // start the reachability notifier (status notifications)
    };

    /// The process's provider, made on first use with the system's sources.
    static NetworkInfoProvider& sharedProvider();
    /// Makes AccNode::ipForCurrentCarrierTypeCode read the shared provider's carrierTypeCode.
    /// Done on first use of the shared provider and by every node selector, so that the
    /// carrier's node addresses work wherever the network facts are linked in; later calls change
    /// nothing. The shared provider itself is made only when a code is first asked for.
    static void connectCarrierTypeCodeToNodes();

    /// A provider over the system's sources, system services included.
    NetworkInfoProvider();
    explicit NetworkInfoProvider(Sources sources);
    /// Stops the reachability notifier.
    ~NetworkInfoProvider();
    NetworkInfoProvider(const NetworkInfoProvider&) = delete;
    NetworkInfoProvider& operator=(const NetworkInfoProvider&) = delete;

    int checkCurrentNetworkType() const;
    int currentNetworkType() const { return checkCurrentNetworkType(); }
    std::optional<std::string> currentNetworkTypeString() const;
    std::optional<std::string> currentRadioAccessTechnology() const;
    int currentNetworkFormat() const;
    std::optional<std::string> currentNetworkFormatString() const;
    /// The network type of a radio technology; -1 for anything unknown or absent.
    int networkType(const std::optional<std::string>& radioAccessTechnology) const;
    bool currentNetworkIsMobileNetwork() const;

    int carrier() const;
    std::string carrierNameString() const;
    std::optional<std::string> carrierName() const;
    std::optional<std::string> ISOCountryCode() const;
    bool allowsVOIP() const;
    /// The provider's codes; the placeholder "65535" reads as absent.
    std::optional<std::string> mobileCountryCode() const;
    std::optional<std::string> mobileNetworkCode() const;
    /// Country code directly followed by network code; absent unless both are non-empty.
    std::optional<std::string> carrierTypeCode() const;

    std::optional<WiFiNetworkSSIDInfo> wifiSSIDInfo() const;
    std::vector<NetworkInterfaceInfo> interfaceInfos() const;
    /// An IPv4 address of the interface of `interfaceKind` (0 to 3; see
    /// interfaceTypeStringWithType); the last matching entry wins. With preferIPv4 false it
    /// reads IPv6 entries the same way, which yields their flow information, not an address.
    std::optional<std::string> getPrivateIPOnInterface(int interfaceKind, bool preferIPv4) const;

    /// The type posted as current by the previous status notification (or found at creation).
    int lastNetworkType() const { return lastNetworkType_; }

    static std::optional<std::string> getNetworkTypeStringWithType(int type);
    static std::string carrierNameStringWithCarrier(int carrier);
    static int carrierWithMobileNetworkCode(const std::optional<std::string>& code);
    static std::optional<std::string> interfaceTypeStringWithType(int interfaceKind);

    TelephonyNetworkInfo& networkInfo() const { return *telephony_; }
    CaptiveNetwork& captiveNetwork() const { return *captive_; }
    Reachability& reachability() const { return *reachability_; }
    void setInterfaceNaming(InterfaceNaming naming);
    InterfaceNaming interfaceNaming() const;

  private:
    void reachabilityChanged(int status);
    std::optional<CarrierInfo> provider() const;

    InterfaceSource interfaces_;
    mutable std::mutex mutex_;
    InterfaceNaming naming_;  // guarded by mutex_
    std::shared_ptr<Reachability> reachability_;
    std::shared_ptr<TelephonyNetworkInfo> telephony_;
    std::shared_ptr<CaptiveNetwork> captive_;
    NotificationCenter* center_;
    std::atomic<int> lastNetworkType_{NetworkTypeUnknown};
    DispatchQueue notifierQueue_;
    bool watching_ = false;
};

}  // namespace lmkit

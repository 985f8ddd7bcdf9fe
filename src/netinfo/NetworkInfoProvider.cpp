#include "lmkit/netinfo/NetworkInfoProvider.hpp"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <map>

#include "lmkit/models/AccNode.hpp"
#include "lmkit/platform/NotificationCenter.hpp"

namespace lmkit {

namespace {

// The telephony service fills unknown codes with this placeholder.
constexpr const char* kPlaceholderCode = "65535";

std::optional<std::string> withoutPlaceholder(const std::optional<std::string>& code) {
    if (!code || *code == kPlaceholderCode)
        return std::nullopt;
    return code;
}

std::string pointerText(const void* pointer) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

}  // namespace

NetworkInfoProvider& NetworkInfoProvider::sharedProvider() {
    static auto* provider = [] {
        connectCarrierTypeCodeToNodes();
        Sources sources;
        sources.naming = InterfaceNaming::fromEnvironment();
        sources.systemServices = true;
        return new NetworkInfoProvider(std::move(sources));
    }();
    return *provider;
}

void NetworkInfoProvider::connectCarrierTypeCodeToNodes() {
    static std::once_flag once;
    std::call_once(once, [] {
        AccNode::setCarrierTypeCodeProvider([] { return sharedProvider().carrierTypeCode(); });
    });
}

NetworkInfoProvider::NetworkInfoProvider()
    : NetworkInfoProvider([] {
          Sources sources;
          sources.systemServices = true;
          return sources;
      }()) {}

NetworkInfoProvider::NetworkInfoProvider(Sources sources)
    : interfaces_(std::move(sources.interfaces)),
      naming_(sources.naming),
      reachability_(std::move(sources.reachability)),
      telephony_(std::move(sources.telephony)),
      captive_(std::move(sources.captiveNetwork)),
      center_(sources.notificationCenter ? sources.notificationCenter
                                         : &NotificationCenter::defaultCenter()),
      notifierQueue_(DispatchQueue::serial("com.networkinfoprovider." + pointerText(this))) {
    if (!reachability_)
        reachability_ = std::make_shared<Reachability>(interfaces_, naming_);
    if (!telephony_) {
        telephony_ = sources.systemServices ? TelephonyNetworkInfo::fromModemManager()
                                            : std::make_shared<TelephonyNetworkInfo>();
    }
    if (!captive_) {
        captive_ = sources.systemServices ? CaptiveNetwork::fromNetworkManager()
                                          : std::make_shared<CaptiveNetwork>();
    }
    lastNetworkType_ = checkCurrentNetworkType();
    if (sources.watchChanges) {
        watching_ = true;
        reachability_->startNotifier(notifierQueue_,
                                     [this](int status) { reachabilityChanged(status); });
    }
}

NetworkInfoProvider::~NetworkInfoProvider() {
    if (watching_)
        reachability_->stopNotifier();
}

void NetworkInfoProvider::setInterfaceNaming(InterfaceNaming naming) {
    reachability_->setInterfaceNaming(naming);
    std::lock_guard lock(mutex_);
    naming_ = std::move(naming);
}

InterfaceNaming NetworkInfoProvider::interfaceNaming() const {
    std::lock_guard lock(mutex_);
    return naming_;
}

void NetworkInfoProvider::reachabilityChanged(int status) {
    int type = NetworkTypeUnknown;
    switch (status) {
        case Reachability::NotReachable:
            type = NetworkTypeNone;
            break;
        case Reachability::ReachableViaWWAN:
            type = networkType(currentRadioAccessTechnology());
            break;
        case Reachability::ReachableViaWiFi:
            type = NetworkTypeWiFi;
            break;
        default:
            break;
    }
    // This change's type is the next one's last, taken before observers hear of it: one that
    // reacts by changing the network again must not find its own change counted as "last".
    // Changes arrive one by one on the notifier queue, so each is posted in turn.
    const int last = lastNetworkType_.exchange(type);
    nlohmann::ordered_json userInfo = {{kCurrentNetworkTypeKey, type}, {kLastNetworkTypeKey, last}};
    center_->post(kNetworkStatusDidChangeNotification, userInfo);
}

int NetworkInfoProvider::checkCurrentNetworkType() const {
    uint32_t flags = reachability_->flags();
    if ((flags & Reachability::kFlagReachable) == 0)
        return NetworkTypeNone;
    if ((flags & Reachability::kFlagIsWWAN) == 0)
        return NetworkTypeWiFi;
    return networkType(currentRadioAccessTechnology());
}

std::optional<std::string> NetworkInfoProvider::currentNetworkTypeString() const {
    return getNetworkTypeStringWithType(currentNetworkType());
}

std::optional<std::string> NetworkInfoProvider::currentRadioAccessTechnology() const {
    return telephony_->compatibleCurrentRadioAccessTechnology();
}

int NetworkInfoProvider::currentNetworkFormat() const {
    return networkType(currentRadioAccessTechnology());
}

std::optional<std::string> NetworkInfoProvider::currentNetworkFormatString() const {
    return getNetworkTypeStringWithType(currentNetworkFormat());
}

int NetworkInfoProvider::networkType(const std::optional<std::string>& technology) const {
    if (!technology)
        return NetworkTypeUnknown;
    const std::string& t = *technology;
    if (t == kRadioAccessTechnologyGPRS || t == kRadioAccessTechnologyEdge)
        return NetworkType2G;
    if (t == kRadioAccessTechnologyWCDMA || t == kRadioAccessTechnologyHSDPA ||
        t == kRadioAccessTechnologyHSUPA) {
        return NetworkType3G;
    }
    if (t == kRadioAccessTechnologyCDMA1x)
        return NetworkType2G;
    if (t == kRadioAccessTechnologyCDMAEVDORev0 || t == kRadioAccessTechnologyCDMAEVDORevA ||
        t == kRadioAccessTechnologyCDMAEVDORevB || t == kRadioAccessTechnologyeHRPD) {
        return NetworkType3G;
    }
    if (t == kRadioAccessTechnologyLTE)
        return NetworkType4G;
    // The NR technologies exist only from 14.1 on; earlier systems cannot report them.
    if ((t == kRadioAccessTechnologyNRNSA || t == kRadioAccessTechnologyNR) &&
        telephony_->systemVersion().isAtLeast(14, 1)) {
        return NetworkType5G;
    }
    return NetworkTypeUnknown;
}

bool NetworkInfoProvider::currentNetworkIsMobileNetwork() const {
    int type = currentNetworkType();
    return type != NetworkTypeUnknown && type != NetworkTypeNone && type != NetworkTypeWiFi;
}

std::optional<CarrierInfo> NetworkInfoProvider::provider() const {
    return telephony_->currentSubscriberCellularProvider();
}

int NetworkInfoProvider::carrier() const {
    return carrierWithMobileNetworkCode(mobileNetworkCode());
}

std::string NetworkInfoProvider::carrierNameString() const {
    return carrierNameStringWithCarrier(carrier());
}

std::optional<std::string> NetworkInfoProvider::carrierName() const {
    auto current = provider();
    return current ? current->carrierName : std::nullopt;
}

std::optional<std::string> NetworkInfoProvider::ISOCountryCode() const {
    auto current = provider();
    return current ? current->isoCountryCode : std::nullopt;
}

bool NetworkInfoProvider::allowsVOIP() const {
    auto current = provider();
    return current && current->allowsVOIP;
}

std::optional<std::string> NetworkInfoProvider::mobileCountryCode() const {
    auto current = provider();
    return current ? withoutPlaceholder(current->mobileCountryCode) : std::nullopt;
}

std::optional<std::string> NetworkInfoProvider::mobileNetworkCode() const {
    auto current = provider();
    return current ? withoutPlaceholder(current->mobileNetworkCode) : std::nullopt;
}

std::optional<std::string> NetworkInfoProvider::carrierTypeCode() const {
    auto country = mobileCountryCode();
    auto network = mobileNetworkCode();
    if (!country || !network || country->empty() || network->empty())
        return std::nullopt;
    return *country + *network;
}

std::optional<WiFiNetworkSSIDInfo> NetworkInfoProvider::wifiSSIDInfo() const {
    for (const auto& name : captive_->supportedInterfaces()) {
        auto info = captive_->copyCurrentNetworkInfo(name);
        if (!info || info->empty())
            continue;
        WiFiNetworkSSIDInfo result;
        if (auto ssid = info->find("SSID"); ssid != info->end())
            result.ssid = ssid->second;
        if (auto bssid = info->find("BSSID"); bssid != info->end())
            result.bssid = bssid->second;
        return result;
    }
    return std::nullopt;
}

std::vector<NetworkInterfaceInfo> NetworkInfoProvider::interfaceInfos() const {
    std::vector<NetworkInterfaceInfo> result;
    auto entries = interfaces_();
    if (!entries)
        return result;
    InterfaceNaming naming = interfaceNaming();
    std::map<std::string, size_t> byName;
    for (const auto& entry : *entries) {
        if (entry.name.empty() || (entry.family != AF_INET && entry.family != AF_INET6))
            continue;
        if (!naming.isListed(entry.name))
            continue;
        auto [found, added] = byName.emplace(entry.name, result.size());
        if (added)
            result.push_back({entry.name, {}});
        if (!entry.address.empty())
            result[found->second].ipAddresses.insert(entry.address);
    }
    return result;
}

std::optional<std::string> NetworkInfoProvider::getPrivateIPOnInterface(int interfaceKind,
                                                                        bool preferIPv4) const {
    if (interfaceKind < 0 || interfaceKind > 3)
        return std::nullopt;
    auto entries = interfaces_();
    if (!entries)
        return std::nullopt;
    const std::string name = interfaceNaming().kindNames[static_cast<size_t>(interfaceKind)];
    const int family = preferIPv4 ? AF_INET : AF_INET6;
    std::optional<std::string> result;
    for (const auto& entry : *entries) {
        if (entry.family != family || entry.name != name || entry.sockaddr.size() < 8)
            continue;
        // The four bytes where an IPv4 socket address keeps its address.
        const uint8_t* bytes = entry.sockaddr.data() + offsetof(sockaddr_in, sin_addr);
        result = std::to_string(bytes[0]) + "." + std::to_string(bytes[1]) + "." +
                 std::to_string(bytes[2]) + "." + std::to_string(bytes[3]);
    }
    return result;
}

std::optional<std::string> NetworkInfoProvider::getNetworkTypeStringWithType(int type) {
    switch (type) {
        case NetworkTypeUnknown:
        case NetworkTypeNone:
            return "(unknown)";
        case NetworkTypeWiFi:
            return "WIFI";
        case NetworkType2G:
            return "2G";
        case NetworkType3G:
            return "3G";
        case NetworkType4G:
            return "4G";
        case NetworkType5G:
            return "5G";
        default:
            return std::nullopt;
    }
}

std::string NetworkInfoProvider::carrierNameStringWithCarrier(int carrier) {
    switch (carrier) {
        case CarrierTelecom:
            return "Telecom";
        case CarrierMobile:
            return "Mobile";
        case CarrierUnicom:
            return "Unicom";
        default:
            return "Unknown";
    }
}

int NetworkInfoProvider::carrierWithMobileNetworkCode(const std::optional<std::string>& code) {
    if (!code)
        return CarrierUnknown;
    static const std::map<std::string, int> kCarriers = {
        {"00", CarrierMobile},  {"02", CarrierMobile}, {"04", CarrierMobile},
        {"07", CarrierMobile},  {"08", CarrierMobile}, {"01", CarrierUnicom},
        {"06", CarrierUnicom},  {"09", CarrierUnicom}, {"03", CarrierTelecom},
        {"05", CarrierTelecom}, {"11", CarrierTelecom}};
    auto found = kCarriers.find(*code);
    return found == kCarriers.end() ? CarrierUnknown : found->second;
}

std::optional<std::string> NetworkInfoProvider::interfaceTypeStringWithType(int interfaceKind) {
    static const char* const kNames[] = {"lo0", "ap", "en0", "pdp_ip0"};
    if (interfaceKind < 0 || interfaceKind > 3)
        return std::nullopt;
    return kNames[interfaceKind];
}

}  // namespace lmkit

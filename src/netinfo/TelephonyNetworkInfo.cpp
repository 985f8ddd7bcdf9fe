#include "lmkit/netinfo/TelephonyNetworkInfo.hpp"

#include <algorithm>
#include <charconv>

#include "netinfo/CachedReading.hpp"

namespace lmkit {

namespace {
// Per-service tables (several SIMs) replaced the single provider in this version.
constexpr int kPerServiceMajor = 13;
// A mobile country code always has three digits; the network code that follows has two or three.
constexpr size_t kCountryCodeLength = 3;

bool isOperatorCode(const std::string& code) {
    return code.size() >= kCountryCodeLength + 2 && code.size() <= kCountryCodeLength + 3 &&
           std::all_of(code.begin(), code.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::optional<CarrierInfo> providerOfModem(const ModemFacts& modem) {
    std::optional<std::string> code;
    if (modem.simOperatorCode && isOperatorCode(*modem.simOperatorCode))
        code = modem.simOperatorCode;
    else if (modem.operatorCode && isOperatorCode(*modem.operatorCode))
        code = modem.operatorCode;
    auto name = modem.simOperatorName ? modem.simOperatorName : modem.operatorName;
    if (!code && !name)
        return std::nullopt;
    CarrierInfo info;
    info.carrierName = name;
    if (code) {
        info.mobileCountryCode = code->substr(0, kCountryCodeLength);
        info.mobileNetworkCode = code->substr(kCountryCodeLength);
    }
    return info;
}
}  // namespace

std::optional<std::string> radioAccessTechnologyOfModem(uint32_t bits) {
    // Most capable first: a modem reports every technology in use at once.
    if (bits & ModemAccessTechnology5GNR) {
        return (bits & ModemAccessTechnologyLTE) ? kRadioAccessTechnologyNRNSA
                                                 : kRadioAccessTechnologyNR;
    }
    static constexpr std::pair<uint32_t, const char*> kOrder[] = {
        {ModemAccessTechnologyLTE | ModemAccessTechnologyLTECatM | ModemAccessTechnologyLTENBIoT,
         kRadioAccessTechnologyLTE},
        {ModemAccessTechnologyEVDOB, kRadioAccessTechnologyCDMAEVDORevB},
        {ModemAccessTechnologyEVDOA, kRadioAccessTechnologyCDMAEVDORevA},
        {ModemAccessTechnologyEVDO0, kRadioAccessTechnologyCDMAEVDORev0},
        // The telephony texts have no HSPA or HSPA+: downlink speed is what they name.
        {ModemAccessTechnologyHSPAPlus | ModemAccessTechnologyHSPA | ModemAccessTechnologyHSDPA,
         kRadioAccessTechnologyHSDPA},
        {ModemAccessTechnologyHSUPA, kRadioAccessTechnologyHSUPA},
        {ModemAccessTechnologyUMTS, kRadioAccessTechnologyWCDMA},
        {ModemAccessTechnology1xRTT, kRadioAccessTechnologyCDMA1x},
        {ModemAccessTechnologyEDGE, kRadioAccessTechnologyEdge},
        {ModemAccessTechnologyGPRS | ModemAccessTechnologyGSM | ModemAccessTechnologyGSMCompact,
         kRadioAccessTechnologyGPRS},
    };
    for (const auto& [mask, text] : kOrder) {
        if (bits & mask)
            return text;
    }
    return std::nullopt;
}

SystemCellularFacts cellularFactsOfModems(const std::vector<ModemFacts>& modems) {
    if (modems.empty())
        return {};
    auto data = std::find_if(modems.begin(), modems.end(),
                             [](const ModemFacts& m) { return m.accessTechnologies != 0; });
    if (data == modems.end()) {
        data = std::find_if(modems.begin(), modems.end(), [](const ModemFacts& m) {
            return m.operatorCode || m.simOperatorCode;
        });
    }
    if (data == modems.end())
        data = modems.begin();
    return {providerOfModem(*data), radioAccessTechnologyOfModem(data->accessTechnologies)};
}

TelephonyNetworkInfo::TelephonyNetworkInfo(SystemSource source, std::string serviceName)
    : systemSource_(std::move(source)), serviceName_(std::move(serviceName)) {}

std::shared_ptr<TelephonyNetworkInfo> TelephonyNetworkInfo::fromModemManager(
    std::chrono::milliseconds maxAge) {
    auto read = []() -> std::optional<SystemCellularFacts> {
        auto modems = SystemNetworkFacts::modems();
        if (!modems)
            return std::nullopt;
        return cellularFactsOfModems(*modems);
    };
    return std::make_shared<TelephonyNetworkInfo>(
        detail::cachedReading<SystemCellularFacts>(read, maxAge), kModemManagerService);
}

std::optional<std::string> TelephonyNetworkInfo::answeringService() const {
    if (systemSource_ && systemSource_())
        return serviceName_;
    return std::nullopt;
}

std::optional<OSVersion> OSVersion::parse(const std::string& text) {
    OSVersion version;
    const char* end = text.data() + text.size();
    auto [afterMajor, ec] = std::from_chars(text.data(), end, version.major);
    if (ec != std::errc() || afterMajor == text.data())
        return std::nullopt;
    if (afterMajor == end)
        return version;
    if (*afterMajor != '.')
        return std::nullopt;
    auto [afterMinor, ec2] = std::from_chars(afterMajor + 1, end, version.minor);
    if (ec2 != std::errc() || afterMinor != end)
        return std::nullopt;
    return version;
}

void TelephonyNetworkInfo::setSystemVersion(OSVersion version) {
    std::lock_guard lock(mutex_);
    version_ = version;
}

OSVersion TelephonyNetworkInfo::systemVersion() const {
    std::lock_guard lock(mutex_);
    return version_;
}

void TelephonyNetworkInfo::setDataServiceIdentifier(std::optional<std::string> identifier) {
    std::lock_guard lock(mutex_);
    dataServiceIdentifier_ = std::move(identifier);
}

void TelephonyNetworkInfo::setServiceSubscriberCellularProviders(
    std::map<std::string, CarrierInfo> providers) {
    std::lock_guard lock(mutex_);
    providers_ = std::move(providers);
    providersSet_ = true;
}

void TelephonyNetworkInfo::setServiceCurrentRadioAccessTechnology(
    std::map<std::string, std::string> technologies) {
    std::lock_guard lock(mutex_);
    technologies_ = std::move(technologies);
    technologiesSet_ = true;
}

void TelephonyNetworkInfo::setSubscriberCellularProvider(std::optional<CarrierInfo> provider) {
    std::lock_guard lock(mutex_);
    subscriberProvider_ = std::move(provider);
    providersSet_ = true;
}

std::optional<SystemCellularFacts> TelephonyNetworkInfo::systemFactsUnlessSet(
    const bool& set) const {
    if (!systemSource_)
        return std::nullopt;
    {
        std::lock_guard lock(mutex_);
        if (set)
            return std::nullopt;
    }
    // Asked without the lock: a reading may take up to the service's time-out.
    return systemSource_();
}

std::optional<CarrierInfo> TelephonyNetworkInfo::currentSubscriberCellularProvider() const {
    if (auto facts = systemFactsUnlessSet(providersSet_))
        return facts->provider;
    return setProvider();
}

std::optional<CarrierInfo> TelephonyNetworkInfo::setProvider() const {
    std::lock_guard lock(mutex_);
    if (!version_.isAtLeast(kPerServiceMajor, 0))
        return subscriberProvider_;
    if (!dataServiceIdentifier_ || providers_.empty())
        return std::nullopt;
    auto found = providers_.find(*dataServiceIdentifier_);
    if (found == providers_.end())
        return std::nullopt;
    return found->second;
}

std::optional<std::string> TelephonyNetworkInfo::compatibleCurrentRadioAccessTechnology() const {
    if (auto facts = systemFactsUnlessSet(technologiesSet_))
        return facts->radioAccessTechnology;
    return setRadioAccessTechnology();
}

std::optional<std::string> TelephonyNetworkInfo::setRadioAccessTechnology() const {
    std::lock_guard lock(mutex_);
    if (technologies_.empty())
        return std::nullopt;
    if (!version_.isAtLeast(kPerServiceMajor, 0))
        return technologies_.begin()->second;
    if (!dataServiceIdentifier_)
        return std::nullopt;
    auto found = technologies_.find(*dataServiceIdentifier_);
    if (found == technologies_.end())
        return std::nullopt;
    return found->second;
}

}  // namespace lmkit

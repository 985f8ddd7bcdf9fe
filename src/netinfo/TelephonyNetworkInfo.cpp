#include "lmkit/netinfo/TelephonyNetworkInfo.hpp"

#include <charconv>

namespace lmkit {

namespace {
// Per-service tables (several SIMs) replaced the single provider in this version.
constexpr int kPerServiceMajor = 13;
}  // namespace

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
}

void TelephonyNetworkInfo::setServiceCurrentRadioAccessTechnology(
    std::map<std::string, std::string> technologies) {
    std::lock_guard lock(mutex_);
    technologies_ = std::move(technologies);
}

void TelephonyNetworkInfo::setSubscriberCellularProvider(std::optional<CarrierInfo> provider) {
    std::lock_guard lock(mutex_);
    subscriberProvider_ = std::move(provider);
}

std::optional<CarrierInfo> TelephonyNetworkInfo::currentSubscriberCellularProvider() const {
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

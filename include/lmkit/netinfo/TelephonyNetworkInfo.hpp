#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace lmkit {

/// Radio access technology texts, as the telephony service names them.
inline constexpr const char* kRadioAccessTechnologyGPRS = "CTRadioAccessTechnologyGPRS";
inline constexpr const char* kRadioAccessTechnologyEdge = "CTRadioAccessTechnologyEdge";
inline constexpr const char* kRadioAccessTechnologyWCDMA = "CTRadioAccessTechnologyWCDMA";
inline constexpr const char* kRadioAccessTechnologyHSDPA = "CTRadioAccessTechnologyHSDPA";
inline constexpr const char* kRadioAccessTechnologyHSUPA = "CTRadioAccessTechnologyHSUPA";
inline constexpr const char* kRadioAccessTechnologyCDMA1x = "CTRadioAccessTechnologyCDMA1x";
inline constexpr const char* kRadioAccessTechnologyCDMAEVDORev0 =
    "CTRadioAccessTechnologyCDMAEVDORev0";
inline constexpr const char* kRadioAccessTechnologyCDMAEVDORevA =
    "CTRadioAccessTechnologyCDMAEVDORevA";
inline constexpr const char* kRadioAccessTechnologyCDMAEVDORevB =
    "CTRadioAccessTechnologyCDMAEVDORevB";
inline constexpr const char* kRadioAccessTechnologyeHRPD = "CTRadioAccessTechnologyeHRPD";
inline constexpr const char* kRadioAccessTechnologyLTE = "CTRadioAccessTechnologyLTE";
inline constexpr const char* kRadioAccessTechnologyNRNSA = "CTRadioAccessTechnologyNRNSA";
inline constexpr const char* kRadioAccessTechnologyNR = "CTRadioAccessTechnologyNR";

/// A version of the operating system whose telephony rules apply.
struct OSVersion {
    int major = 0;
    int minor = 0;
    bool isAtLeast(int wantedMajor, int wantedMinor) const {
        return major != wantedMajor ? major > wantedMajor : minor >= wantedMinor;
    }
    /// "14.1" and the like; nullopt for text that is not a version.
    static std::optional<OSVersion> parse(const std::string& text);
};

/// The data-service provider of a SIM.
struct CarrierInfo {
    std::optional<std::string> carrierName;
    std::optional<std::string> mobileCountryCode;
    std::optional<std::string> mobileNetworkCode;
    std::optional<std::string> isoCountryCode;
    bool allowsVOIP = false;
};

/// What the telephony service knows: providers and radio technologies per service (SIM). Linux
/// has no such service, so the facts are set (by tests, the command line or an app that knows
/// them); an unset object describes a device without cellular service.
class TelephonyNetworkInfo {
  public:
    /// The rules of the newest systems apply unless a version is set.
    static constexpr OSVersion kNewestRules{99, 0};

    void setSystemVersion(OSVersion version);
    OSVersion systemVersion() const;
    void setDataServiceIdentifier(std::optional<std::string> identifier);
    void setServiceSubscriberCellularProviders(std::map<std::string, CarrierInfo> providers);
    void setServiceCurrentRadioAccessTechnology(std::map<std::string, std::string> technologies);
    /// The single provider that systems before 13.0 report.
    void setSubscriberCellularProvider(std::optional<CarrierInfo> provider);

    /// The provider of the data service (13.0 and later), else the single subscriber provider.
    std::optional<CarrierInfo> currentSubscriberCellularProvider() const;
    /// The radio technology of the data service (13.0 and later), else the table's first entry.
    std::optional<std::string> compatibleCurrentRadioAccessTechnology() const;

  private:
    mutable std::mutex mutex_;
    OSVersion version_ = kNewestRules;                  // guarded by mutex_
    std::optional<std::string> dataServiceIdentifier_;  // guarded by mutex_
    std::map<std::string, CarrierInfo> providers_;      // guarded by mutex_
    std::map<std::string, std::string> technologies_;   // guarded by mutex_
    std::optional<CarrierInfo> subscriberProvider_;     // guarded by mutex_
};

}  // namespace lmkit

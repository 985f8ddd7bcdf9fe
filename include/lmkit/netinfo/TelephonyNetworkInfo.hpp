#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "lmkit/platform/SystemNetworkFacts.hpp"

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

/// What a system service reports of the modem that carries data.
struct SystemCellularFacts {
    std::optional<CarrierInfo> provider;               // nullopt without a SIM (or without a modem)
    std::optional<std::string> radioAccessTechnology;  // nullopt while not registered
};

/// The radio technology text (kRadioAccessTechnology…) of ModemManager's access-technology bits:
/// the most capable technology in use, so LTE with 5GNR reads as NR non-standalone; nullopt when
/// no cellular technology is in use.
std::optional<std::string> radioAccessTechnologyOfModem(uint32_t accessTechnologies);
/// The facts of the modem that carries data: the first registered one, else the first with an
/// operator, else the first. The provider is the SIM's home operator where the SIM names one (as
/// a telephony service reports the subscriber's carrier even when roaming), else the network the
/// modem is registered with.
SystemCellularFacts cellularFactsOfModems(const std::vector<ModemFacts>& modems);

/// What the telephony service knows: providers and radio technologies per service (SIM).
///
/// Facts come from two places. An app, a test or the command line may set them; otherwise an
/// object made with a system source (fromModemManager) reads them from the system's modem service.
/// What is set wins, table by table: once the providers (setServiceSubscriberCellularProviders or
/// setSubscriberCellularProvider) are set, the provider is only ever what was set, and once the
/// radio technologies are set, the technology is only ever what was set; even empty tables
/// (a device known to have no cellular service). A fact not set is the system service's answer,
/// which speaks for its own data modem, whatever service identifier or version is set. When no
/// service answers (none runs, no bus, time-out), the set facts answer as they stand: an object
/// with nothing set describes a device without cellular service.
class TelephonyNetworkInfo {
  public:
    /// The rules of the newest systems apply unless a version is set.
    static constexpr OSVersion kNewestRules{99, 0};
    /// What a source that asks the system returns; nullopt when no service answers.
    using SystemSource = std::function<std::optional<SystemCellularFacts>()>;
    static constexpr const char* kModemManagerService = "ModemManager";
    /// How long one reading of ModemManager stands. Questions come in bursts (a node list asks for
    /// the carrier per node) and a radio technology rarely changes within seconds, so a burst
    /// costs one reading, and a service that does not answer costs its time-out once per burst.
    static constexpr std::chrono::milliseconds kSystemFactsMaxAge{2000};

    /// Only what is set; no system service is asked.
    TelephonyNetworkInfo() = default;
    /// Facts not set are asked of `source` (on every question) and reported as `serviceName`'s.
    TelephonyNetworkInfo(SystemSource source, std::string serviceName);
    /// Facts not set come from ModemManager on the system bus, one reading standing for `maxAge`.
    static std::shared_ptr<TelephonyNetworkInfo> fromModemManager(
        std::chrono::milliseconds maxAge = kSystemFactsMaxAge);
    TelephonyNetworkInfo(const TelephonyNetworkInfo&) = delete;
    TelephonyNetworkInfo& operator=(const TelephonyNetworkInfo&) = delete;

    /// The name of the system service that answers now ("ModemManager"); nullopt when the object
    /// has no system source or its service does not answer, so that only set facts count.
    std::optional<std::string> answeringService() const;

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
    std::optional<CarrierInfo> setProvider() const;
    /// The system's reading, unless facts of that kind were set (`set`, read under the lock).
    std::optional<SystemCellularFacts> systemFactsUnlessSet(const bool& set) const;
    std::optional<std::string> setRadioAccessTechnology() const;

    const SystemSource systemSource_;  // set once at construction
    const std::string serviceName_;
    mutable std::mutex mutex_;
    bool providersSet_ = false;                         // guarded by mutex_
    bool technologiesSet_ = false;                      // guarded by mutex_
    OSVersion version_ = kNewestRules;                  // guarded by mutex_
    std::optional<std::string> dataServiceIdentifier_;  // guarded by mutex_
    std::map<std::string, CarrierInfo> providers_;      // guarded by mutex_
    std::map<std::string, std::string> technologies_;   // guarded by mutex_
    std::optional<CarrierInfo> subscriberProvider_;     // guarded by mutex_
};

}  // namespace lmkit

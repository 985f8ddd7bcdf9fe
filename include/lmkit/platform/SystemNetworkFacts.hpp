#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace lmkit {

/// ModemManager's access-technology bits (a modem reports every technology in use at once, so
/// LTE together with 5GNR means 5G non-standalone).
enum ModemAccessTechnology : uint32_t {
    ModemAccessTechnologyPOTS = 1u << 0,
    ModemAccessTechnologyGSM = 1u << 1,
    ModemAccessTechnologyGSMCompact = 1u << 2,
    ModemAccessTechnologyGPRS = 1u << 3,
    ModemAccessTechnologyEDGE = 1u << 4,
    ModemAccessTechnologyUMTS = 1u << 5,
    ModemAccessTechnologyHSDPA = 1u << 6,
    ModemAccessTechnologyHSUPA = 1u << 7,
    ModemAccessTechnologyHSPA = 1u << 8,
    ModemAccessTechnologyHSPAPlus = 1u << 9,
    ModemAccessTechnology1xRTT = 1u << 10,
    ModemAccessTechnologyEVDO0 = 1u << 11,
    ModemAccessTechnologyEVDOA = 1u << 12,
    ModemAccessTechnologyEVDOB = 1u << 13,
    ModemAccessTechnologyLTE = 1u << 14,
    ModemAccessTechnology5GNR = 1u << 15,
    ModemAccessTechnologyLTECatM = 1u << 16,
    ModemAccessTechnologyLTENBIoT = 1u << 17,
};

/// One modem as ModemManager describes it. Texts the service leaves empty are nullopt.
struct ModemFacts {
    std::string path;                            // the modem's object path
    std::optional<std::string> operatorCode;     // network registered with: MCC then MNC ("46000")
    std::optional<std::string> operatorName;     // its name
    std::optional<std::string> simOperatorCode;  // the SIM's home operator: MCC then MNC
    std::optional<std::string> simOperatorName;
    uint32_t accessTechnologies = 0;  // ModemAccessTechnology bits; 0 while not registered
};

/// One Wi-Fi device as NetworkManager describes it.
struct WiFiDeviceFacts {
    std::string interfaceName;  // "wlan0"
    // The access point in use; both nullopt while the device is not associated.
    std::optional<std::string> ssid;   // the SSID's bytes as they are (not always UTF-8)
    std::optional<std::string> bssid;  // the access point's hardware address, "AA:BB:CC:DD:EE:FF"
};

/// Reads what ModemManager and NetworkManager publish on the system D-Bus. Each reading opens its
/// own connection on the calling thread and closes it before returning, so it is safe from any
/// thread. Every call is bounded, so an absent, starting or hung service costs at most
/// kReadingBudget; none of these operations throws.
class SystemNetworkFacts {
  public:
    /// Names a bus address ("unix:path=/run/…") to read instead of the system bus.
    static constexpr const char* kBusAddressVariable = "LMKIT_SYSTEM_BUS_ADDRESS";
    /// The longest wait for one reply. Both services answer from memory within milliseconds;
    /// anything slower is a service that is stuck, and callers are waiting for a network fact.
    static constexpr std::chrono::milliseconds kCallTimeout{500};
    /// The longest one reading takes in all (a reading makes a call per device or modem).
    static constexpr std::chrono::milliseconds kReadingBudget{1500};

    /// The modems, in object-path order; an empty list when ModemManager runs without a modem;
    /// nullopt when it does not answer (no bus, no service, time-out).
    static std::optional<std::vector<ModemFacts>> modems();
    /// The Wi-Fi devices, in NetworkManager's order; nullopt when NetworkManager does not answer.
    static std::optional<std::vector<WiFiDeviceFacts>> wifiDevices();
};

}  // namespace lmkit

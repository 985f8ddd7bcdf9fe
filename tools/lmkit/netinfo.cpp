// lmkit netinfo: interfaces, addresses, Wi-Fi and cellular validity, network type, carrier and
// Wi-Fi network, each fact with the source that answered it.
#include <cstdio>
#include <map>
#include <string_view>

#include <nlohmann/json.hpp>

#include "Command.hpp"
#include "lmkit/netinfo/NetworkInfoProvider.hpp"
#include "lmkit/netinfo/VPNNetworkStatusMonitor.hpp"
#include "lmkit/platform/UdpSocket.hpp"

namespace lmkit::tool {
namespace {

struct NetinfoOptions {
    bool platformNames = false;
    std::string mcc;
    std::string mnc;
    std::string radio;
    std::string osVersion;
};

nlohmann::ordered_json orNull(const std::optional<std::string>& text) {
    return text ? nlohmann::ordered_json(*text) : nlohmann::ordered_json(nullptr);
}

std::string orDash(const std::optional<std::string>& text) {
    return text ? *text : "-";
}

/// Names where a fact came from: the options that set it, else the system service that answered,
/// else the in-memory facts (which hold nothing unless set).
std::string sourceText(bool setByOptions, const std::string& options,
                       const std::optional<std::string>& service) {
    if (setByOptions)
        return "set (" + options + ")";
    return service ? *service : "none (stub)";
}

std::string shortRadioText(const std::optional<std::string>& technology) {
    constexpr std::string_view kPrefix = "CTRadioAccessTechnology";
    if (!technology)
        return "-";
    return technology->rfind(kPrefix, 0) == 0 ? technology->substr(kPrefix.size()) : *technology;
}

/// Accepts a short technology name ("LTE") as well as the telephony service's full text.
std::string radioText(const std::string& name) {
    return name.rfind("CTRadioAccessTechnology", 0) == 0 ? name : "CTRadioAccessTechnology" + name;
}

Command netinfo(
    "netinfo",
    "Show interfaces, addresses, Wi-Fi/cellular validity, network type, carrier and Wi-Fi network "
    "(from ModemManager and NetworkManager where they run)",
    [](CLI::App& app, Common& common) {
        auto options = std::make_shared<NetinfoOptions>();
        app.add_flag("--json", common.json, "Print data as JSON");
        app.add_flag("--platform-names", options->platformNames,
                     "Use the phone's interface names (en… Wi-Fi, pdp_ip0 cellular) instead of "
                     "Linux names");
        app.add_option("--mcc", options->mcc, "Mobile country code of the SIM (e.g. 460)");
        app.add_option("--mnc", options->mnc, "Mobile network code of the SIM (e.g. 01)");
        app.add_option("--radio", options->radio, "Radio technology (e.g. LTE, NRNSA, WCDMA)");
        app.add_option("--os-version", options->osVersion,
                       "System version whose telephony rules apply (e.g. 14.1)");
        return [options, &common]() -> int {
            auto naming = options->platformNames ? InterfaceNaming::platformNames()
                                                 : InterfaceNaming::linuxNames();
            NetworkInfoProvider::Sources sources;
            sources.naming = naming;
            sources.watchChanges = false;
            sources.systemServices = true;
            NetworkInfoProvider provider(sources);
            auto& telephony = provider.networkInfo();
            if (!options->osVersion.empty()) {
                auto version = OSVersion::parse(options->osVersion);
                if (!version)
                    throw Failure("not a system version: " + options->osVersion);
                telephony.setSystemVersion(*version);
            }
            const std::string service = "0000000100000001";
            telephony.setDataServiceIdentifier(service);
            if (!options->mcc.empty() || !options->mnc.empty()) {
                CarrierInfo carrier;
                if (!options->mcc.empty())
                    carrier.mobileCountryCode = options->mcc;
                if (!options->mnc.empty())
                    carrier.mobileNetworkCode = options->mnc;
                telephony.setServiceSubscriberCellularProviders({{service, carrier}});
                telephony.setSubscriberCellularProvider(carrier);
            }
            if (!options->radio.empty()) {
                telephony.setServiceCurrentRadioAccessTechnology(
                    {{service, radioText(options->radio)}});
            }
            VPNNetworkStatusMonitor monitor(interfaceAddresses, naming);
            auto status = monitor.getInterfaceInfo();
            auto interfaces = provider.interfaceInfos();
            int type = provider.currentNetworkType();
            const bool carrierSet = !options->mcc.empty() || !options->mnc.empty();
            const bool radioSet = !options->radio.empty();
            auto cellularService = telephony.answeringService();
            const std::string carrierSource =
                sourceText(carrierSet, "--mcc/--mnc", cellularService);
            const std::string radioSource = sourceText(radioSet, "--radio", cellularService);
            const std::string wifiSource =
                sourceText(false, "", provider.captiveNetwork().answeringService());
            auto wifi = provider.wifiSSIDInfo();
            std::optional<std::string> ssid = wifi ? wifi->ssid : std::nullopt;
            std::optional<std::string> bssid = wifi ? wifi->bssid : std::nullopt;

            if (common.json) {
                nlohmann::ordered_json list = nlohmann::ordered_json::array();
                for (const auto& info : interfaces) {
                    list.push_back({{"name", info.name}, {"ipAddresses", info.ipAddresses}});
                }
                nlohmann::ordered_json out = {
                    {"interfaces", list},
                    {"WiFiValid", status.WiFiValid},
                    {"WWANValid", status.WWANValid},
                    {"wifiIp", orNull(status.wifiIp)},
                    {"wifiIpV4", orNull(status.wifiIpV4)},
                    {"wifiIpV6", orNull(status.wifiIpV6)},
                    {"wwanIp", orNull(status.wwanIp)},
                    {"networkType", type},
                    {"networkTypeString",
                     orNull(NetworkInfoProvider::getNetworkTypeStringWithType(type))},
                    {"radioAccessTechnology", orNull(provider.currentRadioAccessTechnology())},
                    {"radioSource", radioSource},
                    {"carrier", provider.carrier()},
                    {"carrierNameString", provider.carrierNameString()},
                    {"carrierName", orNull(provider.carrierName())},
                    {"carrierTypeCode", orNull(provider.carrierTypeCode())},
                    {"carrierSource", carrierSource},
                    {"ssid", orNull(ssid)},
                    {"bssid", orNull(bssid)},
                    {"wifiSource", wifiSource},
                    {"receiveTimestamps", UdpSocket::receiveTimestampSource()}};
                // An SSID is bytes, not always UTF-8: such bytes print as U+FFFD.
                std::printf("%s\n", out.dump(2, ' ', false,
                                             nlohmann::ordered_json::error_handler_t::replace)
                                        .c_str());
                return 0;
            }
            std::printf("%-12s %s\n", "INTERFACE", "ADDRESSES");
            for (const auto& info : interfaces) {
                std::string addresses;
                for (const auto& address : info.ipAddresses) {
                    addresses += (addresses.empty() ? "" : " ") + address;
                }
                std::printf("%-12s %s\n", info.name.c_str(), addresses.c_str());
            }
            std::printf("\nWi-Fi     %s  %s\n", status.WiFiValid ? "valid  " : "invalid",
                        orDash(status.wifiIp).c_str());
            std::printf("Cellular  %s  %s\n", status.WWANValid ? "valid  " : "invalid",
                        orDash(status.wwanIp).c_str());
            std::printf("Network   %s (%d)\n",
                        orDash(NetworkInfoProvider::getNetworkTypeStringWithType(type)).c_str(),
                        type);
            std::printf("Radio     %s  [%s]\n",
                        shortRadioText(provider.currentRadioAccessTechnology()).c_str(),
                        radioSource.c_str());
            std::printf("Carrier   %s (%s)  [%s]\n", provider.carrierNameString().c_str(),
                        orDash(provider.carrierTypeCode()).c_str(), carrierSource.c_str());
            std::printf("SSID      %s (%s)  [%s]\n", orDash(ssid).c_str(), orDash(bssid).c_str(),
                        wifiSource.c_str());
            // Where the measuring classes take a reply's arrival time from.
            std::printf("Receive timestamps  %s\n", UdpSocket::receiveTimestampSource().c_str());
            return 0;
        };
    });

}  // namespace
}  // namespace lmkit::tool

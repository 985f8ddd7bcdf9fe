#include "lmkit/models/HostsConfig.hpp"

#include <random>

#include "lmkit/models/Transformers.hpp"

namespace lmkit {

const std::vector<Property<HostDestination>>& HostDestination::properties() {
    static const std::vector<Property<HostDestination>> table{
        prop("sniIp", "sni_ip", &HostDestination::sniIp),
        prop("sniPort", "sni_port", &HostDestination::sniPort),
        prop("sniCryptType", "sni_crypt", &HostDestination::sniCryptType),
        prop("tcpEncryptKey", "obfs_key", &HostDestination::tcpEncryptKey),
        prop("portMap", "port_map", &HostDestination::portMap),
    };
    return table;
}

const std::vector<Property<HostsConfig>>& HostsConfig::properties() {
    static const std::vector<Property<HostsConfig>> table{
        prop("domainRegx", "domain", &HostsConfig::domainRegx, regularExpressionTransformer()),
        prop("destinations", "destination_v2", &HostsConfig::destinations),
        prop("accTunnel", "acc_tunnel", &HostsConfig::accTunnel),
        prop("webviewBoost", "webview_boost", &HostsConfig::webviewBoost),
    };
    return table;
}

std::vector<std::string> HostsConfig::destinationSniIpArray() const {
    std::set<std::string> seen;
    if (destinations) {
        for (const auto& destination : *destinations)
            if (destination && destination->sniIp && !destination->sniIp->empty())
                seen.insert(*destination->sniIp);
    }
    return {seen.begin(), seen.end()};
}

std::optional<std::set<std::string>> HostsConfig::uniqueIPSet() const {
    if (!destinations || destinations->empty())
        return std::nullopt;
    auto ips = destinationSniIpArray();
    return std::set<std::string>(ips.begin(), ips.end());
}

std::shared_ptr<HostDestination> HostsConfig::randomDestination() const {
    if (!destinations || destinations->empty())
        return nullptr;
    // A fresh 32-bit draw modulo the count, the spread relays have always been chosen with.
    static thread_local std::mt19937 engine{std::random_device{}()};
    std::uint32_t draw = static_cast<std::uint32_t>(engine());
    return (*destinations)[draw % destinations->size()];
}

std::optional<std::string> HostsConfig::randomDestinationIP() const {
    auto destination = randomDestination();
    return destination ? destination->sniIp : std::nullopt;
}

}  // namespace lmkit

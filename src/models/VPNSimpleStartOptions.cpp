#include "lmkit/models/VPNSimpleStartOptions.hpp"

#include "lmkit/models/Transformers.hpp"

namespace lmkit {

const std::vector<Property<VPNSimpleStartOptions>>& VPNSimpleStartOptions::properties() {
    using O = VPNSimpleStartOptions;
    static const std::vector<Property<O>> table{
        prop("game", &O::game),
        prop("account", &O::account),
        prop("socksInfos", &O::socksInfos),
        prop("accNodes", &O::accNodes),
        prop("multipathNodes", &O::multipathNodes),
        prop("multipathConfig", &O::multipathConfig),
        prop("autoRegionLockConfig", &O::autoRegionLockConfig),
        prop("directRTTs", &O::directRTTs),
        prop("ipPortHijacks", &O::ipPortHijacks),
        prop("ipDataPath", &O::ipDataPath),
        prop("hosts", &O::hosts),
        prop("dnsList", &O::dnsList),
        prop("mainlinkLoginTimeout", &O::mainlinkLoginTimeout),
        prop("keepaliveTimeInterval", &O::keepaliveTimeInterval),
        prop("routeDomains", &O::routeDomains),
        prop("remoteDNSServerAddress", &O::remoteDNSServerAddress),
        prop("vpnBufferDuration", &O::vpnBufferDuration),
        prop("domainBlacklist", &O::domainBlacklist),
        prop("domainRegexBlacklist", &O::domainRegexBlacklist, regularExpressionsTransformer()),
        prop("gamePingServerNode", &O::gamePingServerNode),
        prop("tcpIpOverUdpPortRange", &O::tcpIpOverUdpPortRange),
        prop("delayMode", &O::delayMode),
        prop("enableSproxyConfusion", &O::enableSproxyConfusion),
        prop("enableTCPEncryption", &O::enableTCPEncryption),
        prop("enableDualChannel", &O::enableDualChannel),
        prop("tcpBanList", &O::tcpBanList),
        prop("udpBanList", &O::udpBanList),
        prop("icmpBanList", &O::icmpBanList),
        prop("domainBanList", &O::domainBanList),
        prop("regionPacketBanList", &O::regionPacketBanList),
        prop("enableMultipath", &O::enableMultipath),
        prop("dualChannelType", &O::dualChannelType),
        prop("techIconState", &O::techIconState),
        prop("netToPingIPs", &O::netToPingIPs),
        prop("blackListPorts", &O::blackListPorts),
        prop("mainlinkUseTLS", &O::mainlinkUseTLS),
        prop("forceMainlinkTLS", &O::forceMainlinkTLS),
        prop("tcpChannelUseTLS", &O::tcpChannelUseTLS),
        prop("enableOldRouterDivider", &O::enableOldRouterDivider),
        prop("enableFDTUNReadMode", &O::enableFDTUNReadMode),
        prop("fallbackToUserDefaultsSync", &O::fallbackToUserDefaultsSync),
        prop("udpSocketSendBuffer", &O::udpSocketSendBuffer),
        prop("udpSocketRecvBuffer", &O::udpSocketRecvBuffer),
    };
    return table;
}

std::shared_ptr<AccNode> VPNSimpleStartOptions::pickAccNodeFromSocksInfo(
    const SocksInfo& socksInfo) const {
    if (!accNodes)
        return nullptr;
    for (const auto& node : *accNodes) {
        if (node && node->ip && socksInfo.ip && *node->ip == *socksInfo.ip && node->port &&
            socksInfo.port && *node->port == *socksInfo.port)
            return node;
    }
    return nullptr;
}

std::set<std::string> VPNSimpleStartOptions::uniqueAcceleratedIpFromHosts() const {
    std::set<std::string> ips;
    if (!hosts)
        return ips;
    for (const auto& rule : *hosts) {
        if (!rule || !rule->accTunnel || !rule->accTunnel->boolValue())
            continue;
        if (auto set = rule->uniqueIPSet())
            ips.insert(set->begin(), set->end());
    }
    return ips;
}

bool VPNSimpleStartOptions::matchDomainRegexOfBlacklist(
    const std::optional<std::string>& domain) const {
    if (!domain || !domainRegexBlacklist)
        return false;
    for (const auto& expression : *domainRegexBlacklist)
        if (expression.matchInString(*domain))
            return true;
    return false;
}

}  // namespace lmkit

#pragma once

#include <map>
#include <set>

#include "lmkit/models/AccAccount.hpp"
#include "lmkit/models/AccBlackListPortRange.hpp"
#include "lmkit/models/AccMultipathConfig.hpp"
#include "lmkit/models/AccNode.hpp"
#include "lmkit/models/AutoRegionLockConfig.hpp"
#include "lmkit/models/BanListItem.hpp"
#include "lmkit/models/BaseModel.hpp"
#include "lmkit/models/BoostTechIconState.hpp"
#include "lmkit/models/BridgeGame.hpp"
#include "lmkit/models/HostsConfig.hpp"
#include "lmkit/models/IPPortHijack.hpp"
#include "lmkit/models/NodeInfo.hpp"
#include "lmkit/models/RouteDomain.hpp"
#include "lmkit/models/SocksInfo.hpp"

namespace lmkit {

/// The start options as the tunnel decodes them: every key equals its property name. The tunnel
/// may replace socksInfos, accNodes, multipathNodes, multipathConfig, autoRegionLockConfig,
/// directRTTs, tcpIpOverUdpPortRange, delayMode, enableTCPEncryption, enableSproxyConfusion,
/// enableFDTUNReadMode, ipDataPath and netToPingIPs while it runs; the rest stay as decoded.
struct VPNSimpleStartOptions : Model<VPNSimpleStartOptions> {
    template <class T>
    using List = std::optional<std::vector<std::shared_ptr<T>>>;
    using Dictionary = std::optional<std::map<std::string, Json>>;

    std::shared_ptr<BridgeGame> game;
    std::shared_ptr<AccAccount> account;
    List<SocksInfo> socksInfos;
    List<AccNode> accNodes;
    List<AccNode> multipathNodes;
    std::shared_ptr<AccMultipathConfig> multipathConfig;
    std::shared_ptr<AutoRegionLockConfig> autoRegionLockConfig;
    Dictionary directRTTs;
    List<IPPortHijack> ipPortHijacks;
    std::optional<std::string> ipDataPath;
    List<HostsConfig> hosts;
    std::optional<std::vector<std::string>> dnsList;
    std::uint64_t mainlinkLoginTimeout = 0;
    std::optional<Number> keepaliveTimeInterval;
    List<RouteDomain> routeDomains;
    std::optional<std::string> remoteDNSServerAddress;
    double vpnBufferDuration = 0;  // seconds
    std::optional<std::vector<std::string>> domainBlacklist;
    std::optional<std::vector<RegularExpression>> domainRegexBlacklist;
    std::shared_ptr<BaseNode> gamePingServerNode;
    std::optional<std::vector<Json>> tcpIpOverUdpPortRange;
    long delayMode = 0;
    bool enableSproxyConfusion = false;
    bool enableTCPEncryption = false;
    bool enableDualChannel = false;
    List<BanListItem> tcpBanList;
    List<BanListItem> udpBanList;
    List<BanListItem> icmpBanList;
    List<BanListItem> domainBanList;
    List<BanListItem> regionPacketBanList;
    bool enableMultipath = false;
    std::uint64_t dualChannelType = 0;
    std::shared_ptr<BoostTechIconState> techIconState;
    std::optional<std::vector<std::string>> netToPingIPs;  // the answer's list, as the app wrote it
    List<AccBlackListPortRange> blackListPorts;
    bool mainlinkUseTLS = false;
    bool forceMainlinkTLS = false;
    bool tcpChannelUseTLS = false;
    bool enableOldRouterDivider = false;
    bool enableFDTUNReadMode = false;
    bool fallbackToUserDefaultsSync = false;
    std::optional<Number> udpSocketSendBuffer;
    std::optional<Number> udpSocketRecvBuffer;

    /// The first of accNodes with the relay's ip (text equality) and port (numeric equality);
    /// nullptr when none has both.
    std::shared_ptr<AccNode> pickAccNodeFromSocksInfo(const SocksInfo& socksInfo) const;

    /// The relay addresses of every host rule routed through the tunnel (accTunnel true).
    std::set<std::string> uniqueAcceleratedIpFromHosts() const;

    /// True when `domain` is given and one of domainRegexBlacklist matches somewhere in it.
    bool matchDomainRegexOfBlacklist(const std::optional<std::string>& domain) const;

    static const std::vector<Property<VPNSimpleStartOptions>>& properties();
};

}  // namespace lmkit

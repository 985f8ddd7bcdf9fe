#pragma once

#include <map>

#include "lmkit/models/AccAccount.hpp"
#include "lmkit/models/AccBlackListPortRange.hpp"
#include "lmkit/models/AccGameRegionEcho.hpp"
#include "lmkit/models/AccMultipathConfig.hpp"
#include "lmkit/models/AccMultipathFile.hpp"
#include "lmkit/models/AccNode.hpp"
#include "lmkit/models/AccRoute.hpp"
#include "lmkit/models/AutoRegionLockConfig.hpp"
#include "lmkit/models/BanListItem.hpp"
#include "lmkit/models/BaseModel.hpp"
#include "lmkit/models/BoostTechIconState.hpp"
#include "lmkit/models/GRPConfig.hpp"
#include "lmkit/models/HostsConfig.hpp"
#include "lmkit/models/IPPortHijack.hpp"
#include "lmkit/models/NetspeedTask.hpp"
#include "lmkit/models/NodeInfo.hpp"
#include "lmkit/models/RouteDomain.hpp"

namespace lmkit {

/// The service's acceleration answer for one game: nodes, routes, tunnel parameters and routing
/// rules.
struct AccAPIResponseObject : Model<AccAPIResponseObject> {
    std::shared_ptr<AccAccount> account;
    std::optional<std::vector<std::shared_ptr<AccNode>>> accNodes;
    std::optional<std::vector<std::shared_ptr<AccRoute>>> accRoutes;
    std::optional<Number> mtu;
    std::optional<std::vector<std::string>> dnsList;
    std::optional<Number> scoreRangeGap;
    double mainlinkLoginTimeout = 0;   // seconds (milliseconds in JSON)
    double keepaliveTimeInterval = 0;  // seconds (milliseconds in JSON)
    std::optional<std::vector<std::shared_ptr<HostsConfig>>> hosts;
    std::optional<std::string> remoteDNSServerAddress;
    std::optional<std::vector<std::shared_ptr<RouteDomain>>> routeDomains;
    std::shared_ptr<BaseNode> gamePingServerNode;
    std::optional<Json> tcpIpOverUdpPortRange;  // passed through as delivered
    std::optional<std::string> clipboardDialogContent;
    std::optional<std::string> clipboardDialogPositiveButtonTitle;
    std::optional<RegularExpression> clipboardURLRegularExpression;
    bool enableSproxyConfusion = false;
    std::optional<Number> selectNodeSpeedTestTimeout;
    std::optional<std::string> clientIP;
    std::optional<std::vector<std::shared_ptr<BanListItem>>> banlist;
    bool enableMultipath = false;
    std::shared_ptr<AccMultipathConfig> multipathConfig;
    std::optional<std::vector<std::shared_ptr<AccNode>>> multipathNodes;
    std::shared_ptr<AccMultipathFile> multipathFile;
    std::optional<std::map<std::string, std::shared_ptr<AccGameRegionEcho>>> gameRegionEchos;
    std::optional<std::vector<std::shared_ptr<IPPortHijack>>> ipPortHijacks;
    std::shared_ptr<BoostTechIconState> techIconState;
    std::uint64_t dualChannelType = 0;  // 0 off, 1 udp, 2 tcp and udp
    std::optional<std::vector<std::shared_ptr<NetspeedTask>>> netspeedTasks;
    std::optional<std::vector<std::string>> netToPingIPs;
    std::optional<std::vector<std::shared_ptr<AccBlackListPortRange>>> blackListPorts;
    std::shared_ptr<GRPConfig> grpConfig;
    std::shared_ptr<AutoRegionLockConfig> autoRegionLockConfig;
    std::optional<Number> udpSocketSendBuffer;
    std::optional<Number> udpSocketRecvBuffer;

    static const std::vector<Property<AccAPIResponseObject>>& properties();
};

}  // namespace lmkit

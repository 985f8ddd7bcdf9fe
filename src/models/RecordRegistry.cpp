#include "lmkit/models/RecordRegistry.hpp"

#include <algorithm>

#include "lmkit/models/APIResponses.hpp"
#include "lmkit/models/AccAPIResponseObject.hpp"
#include "lmkit/models/AccAccount.hpp"
#include "lmkit/models/AccBlackListPortRange.hpp"
#include "lmkit/models/AccConfig.hpp"
#include "lmkit/models/AccGameRegionEcho.hpp"
#include "lmkit/models/AccMultipathConfig.hpp"
#include "lmkit/models/AccMultipathFile.hpp"
#include "lmkit/models/AccNode.hpp"
#include "lmkit/models/AccRoute.hpp"
#include "lmkit/models/AutoRegionLockConfig.hpp"
#include "lmkit/models/BanListItem.hpp"
#include "lmkit/models/BoostTechIconState.hpp"
#include "lmkit/models/BoostingGame.hpp"
#include "lmkit/models/BridgeGame.hpp"
#include "lmkit/models/ConfigAPIResponseObject.hpp"
#include "lmkit/models/GRPConfig.hpp"
#include "lmkit/models/Game.hpp"
#include "lmkit/models/HostsConfig.hpp"
#include "lmkit/models/IPPortHijack.hpp"
#include "lmkit/models/NetspeedTask.hpp"
#include "lmkit/models/NodeInfo.hpp"
#include "lmkit/models/QosConfig.hpp"
#include "lmkit/models/RouteDomain.hpp"
#include "lmkit/models/SocksInfo.hpp"
#include "lmkit/models/StartupConfig.hpp"
#include "lmkit/models/UnstableNetworkConfig.hpp"
#include "lmkit/models/VPNMessageDelayQuery.hpp"
#include "lmkit/models/VPNMessageLossQuery.hpp"
#include "lmkit/models/VPNSimpleStartOptions.hpp"
#include "lmkit/models/VPNStartOptions.hpp"
#include "lmkit/models/WiFiNetworkSSIDInfo.hpp"

namespace lmkit {

const std::vector<RecordType>& recordTypes() {
    static const std::vector<RecordType> types = [] {
        std::vector<RecordType> all{
            recordTypeOf<AccAPIResponseObject>("AccAPIResponseObject"),
            recordTypeOf<AccAccount>("AccAccount"),
            recordTypeOf<AccBlackListPortRange>("AccBlackListPortRange"),
            recordTypeOf<AccConfig>("AccConfig"),
            recordTypeOf<AccGameRegionEcho>("AccGameRegionEcho"),
            recordTypeOf<AccMultipathConfig>("AccMultipathConfig"),
            recordTypeOf<AccMultipathFile>("AccMultipathFile"),
            recordTypeOf<AccMultipathTCPWhitelist>("AccMultipathTCPWhitelist"),
            recordTypeOf<AccMultipathUDPWhitelist>("AccMultipathUDPWhitelist"),
            recordTypeOf<AccNode>("AccNode"),
            recordTypeOf<AccRoute>("AccRoute"),
            recordTypeOf<AccScoreConfig>("AccScoreConfig"),
            recordTypeOf<AccTrafficIdentifyRule>("AccTrafficIdentifyRule"),
            recordTypeOf<AppVersionModel>("AppVersionModel"),
            recordTypeOf<AutoRegionLockConfig>("AutoRegionLockConfig"),
            recordTypeOf<BanListItem>("BanListItem"),
            recordTypeOf<BaseNode>("BaseNode"),
            recordTypeOf<BoostTechIconState>("BoostTechIconState"),
            recordTypeOf<BoostingGame>("BoostingGame"),
            recordTypeOf<BridgeGame>("BridgeGame"),
            recordTypeOf<CarrierIPItem>("CarrierIPItem"),
            recordTypeOf<ConfigAPIResponseObject>("ConfigAPIResponseObject"),
            recordTypeOf<DialogConfiguration>("DialogConfiguration"),
            recordTypeOf<DownloadAreasItem>("DownloadAreasItem"),
            recordTypeOf<ExceptionConfig>("ExceptionConfig"),
            recordTypeOf<GRPConfig>("GRPConfig"),
            recordTypeOf<Game>("Game"),
            recordTypeOf<GameBoostListAPIResponse>("GameBoostListAPIResponse"),
            recordTypeOf<GameCategory>("GameCategory"),
            recordTypeOf<GameDownloadInfo>("GameDownloadInfo"),
            recordTypeOf<GameDownloadModel>("GameDownloadModel"),
            recordTypeOf<GameExtra>("GameExtra"),
            recordTypeOf<GameExtraTag>("GameExtraTag"),
            recordTypeOf<GameExtraTitle>("GameExtraTitle"),
            recordTypeOf<GameMultipleBundleUrlType>("GameMultipleBundleUrlType"),
            recordTypeOf<GameSearchAPIResponse>("GameSearchAPIResponse"),
            recordTypeOf<GameTag>("GameTag"),
            recordTypeOf<HostDestination>("HostDestination"),
            recordTypeOf<HostsConfig>("HostsConfig"),
            recordTypeOf<IPPortHijack>("IPPortHijack"),
            recordTypeOf<NetspeedTask>("NetspeedTask"),
            recordTypeOf<NetspeedTaskMachine>("NetspeedTaskMachine"),
            recordTypeOf<NetspeedTaskResponse>("NetspeedTaskResponse"),
            recordTypeOf<NetworkConditionLevel>("NetworkConditionLevel"),
            recordTypeOf<NodeInfo>("NodeInfo"),
            recordTypeOf<NoticeAPIResponseObject>("NoticeAPIResponseObject"),
            recordTypeOf<QosConfig>("QosConfig"),
            recordTypeOf<RouteDomain>("RouteDomain"),
            recordTypeOf<SocksInfo>("SocksInfo"),
            recordTypeOf<StartupConfig>("StartupConfig"),
            recordTypeOf<TopSearchAPIResponse>("TopSearchAPIResponse"),
            recordTypeOf<UIConfig>("UIConfig"),
            recordTypeOf<UnstableNetworkConfig>("UnstableNetworkConfig"),
            recordTypeOf<VPNMessageDelayQuery>("VPNMessageDelayQuery"),
            recordTypeOf<VPNMessageDelayResponse>("VPNMessageDelayResponse"),
            recordTypeOf<VPNMessageLossQuery>("VPNMessageLossQuery"),
            recordTypeOf<VPNMessageLossResponse>("VPNMessageLossResponse"),
            recordTypeOf<VPNSimpleStartOptions>("VPNSimpleStartOptions"),
            recordTypeOf<VPNStartOptions>("VPNStartOptions"),
            recordTypeOf<WiFiNetworkSSIDInfo>("WiFiNetworkSSIDInfo"),
            recordTypeOf<WikiURLConfiguration>("WikiURLConfiguration"),
        };
        std::sort(all.begin(), all.end(),
                  [](const RecordType& a, const RecordType& b) { return a.name < b.name; });
        return all;
    }();
    return types;
}

const RecordType* recordType(std::string_view name) {
    for (const auto& type : recordTypes())
        if (type.name == name)
            return &type;
    return nullptr;
}

}  // namespace lmkit

#include "lmkit/models/AutoRegionLockConfig.hpp"

#include "lmkit/models/Transformers.hpp"

namespace lmkit {

const std::vector<Property<AutoRegionLockConfig>>& AutoRegionLockConfig::properties() {
    static const std::vector<Property<AutoRegionLockConfig>> table{
        prop("mode", &AutoRegionLockConfig::mode,
             valueMappingTransformer<std::uint8_t>({{"topN", 1}}, Number(0), std::string("other"))),
        prop("topN", &AutoRegionLockConfig::topN),
        prop("pingAfter", "ping_after", &AutoRegionLockConfig::pingAfter),
        prop("pingDuration", "ping_duration", &AutoRegionLockConfig::pingDuration),
        prop("allGameRegions", "all_game_regions", &AutoRegionLockConfig::allGameRegions),
        prop("allGameIPs", "all_game_ips", &AutoRegionLockConfig::allGameIPs),
        prop("fallbackRegions", "fallback_regions", &AutoRegionLockConfig::fallbackRegions),
        prop("banListExtraConfigList", "ban_list_extra_config_list",
             &AutoRegionLockConfig::banListExtraConfigList),
    };
    return table;
}

}  // namespace lmkit

#pragma once

#include "lmkit/models/BanListItem.hpp"
#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// Automatic locking of the game region; mode 1 is "topN", 0 anything else.
struct AutoRegionLockConfig : Model<AutoRegionLockConfig> {
    std::uint8_t mode = 0;
    std::optional<Number> topN;
    std::optional<Number> pingAfter;
    std::optional<Number> pingDuration;
    std::optional<std::vector<Json>> allGameRegions;
    std::optional<std::vector<Json>> allGameIPs;
    std::optional<std::vector<Json>> fallbackRegions;
    std::optional<std::vector<std::shared_ptr<BanListItem>>> banListExtraConfigList;

    static const std::vector<Property<AutoRegionLockConfig>>& properties();
};

}  // namespace lmkit

#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// The accelerated game as the tunnel sees it: the six facts the start options carry.
struct BridgeGame : Model<BridgeGame> {
    std::optional<std::string> gid;
    std::optional<std::string> zoneGameSuperGid;
    std::optional<std::string> name;
    bool oversea = false;
    std::uint64_t grade = 0;
    std::uint64_t dualChannelType = 0;

    static const std::vector<Property<BridgeGame>>& properties();
};

}  // namespace lmkit

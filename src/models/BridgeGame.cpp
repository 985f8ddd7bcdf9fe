#include "lmkit/models/BridgeGame.hpp"

namespace lmkit {

const std::vector<Property<BridgeGame>>& BridgeGame::properties() {
    static const std::vector<Property<BridgeGame>> table{
        prop("gid", &BridgeGame::gid),     prop("zoneGameSuperGid", &BridgeGame::zoneGameSuperGid),
        prop("name", &BridgeGame::name),   prop("oversea", &BridgeGame::oversea),
        prop("grade", &BridgeGame::grade), prop("dualChannelType", &BridgeGame::dualChannelType),
    };
    return table;
}

}  // namespace lmkit

#include "lmkit/models/BoostingGame.hpp"

namespace lmkit {

const std::vector<Property<BoostingGame>>& BoostingGame::properties() {
    static const std::vector<Property<BoostingGame>> table{
        prop("startTime", &BoostingGame::startTime),
        prop("vpnStartOptions", &BoostingGame::vpnStartOptions),
        prop("accNode", &BoostingGame::accNode),
        prop("currentSocksInfo", &BoostingGame::currentSocksInfo),
    };
    return table;
}

bool BoostingGame::isBoostingGame(const Game& game) const {
    const BridgeGame* boosting = vpnStartOptions ? vpnStartOptions->game.get() : nullptr;
    if (!boosting || !game.gid)
        return false;
    const auto& target =
        (game.grade != 0 && game.grade != 1) ? boosting->zoneGameSuperGid : boosting->gid;
    return target && *target == *game.gid;
}

std::optional<std::string> BoostingGame::selectedNodeString() const {
    if (!accNode || !accNode->ip || accNode->ip->empty() || !accNode->port)
        return std::nullopt;
    return *accNode->ip + ":" + std::to_string(static_cast<int>(accNode->port->intValue()));
}

}  // namespace lmkit

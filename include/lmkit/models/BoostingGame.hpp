#pragma once

#include "lmkit/models/AccNode.hpp"
#include "lmkit/models/Game.hpp"
#include "lmkit/models/SocksInfo.hpp"
#include "lmkit/models/VPNSimpleStartOptions.hpp"

namespace lmkit {

/// The game being accelerated right now, as the app keeps it: since when, with which start
/// options, on which node and through which relay.
struct BoostingGame : Model<BoostingGame> {
    std::optional<Number> startTime;
    std::shared_ptr<VPNSimpleStartOptions> vpnStartOptions;
    std::shared_ptr<AccNode> accNode;
    std::shared_ptr<SocksInfo> currentSocksInfo;

    BoostingGame() = default;
    BoostingGame(std::optional<Number> startTime,
                 std::shared_ptr<VPNSimpleStartOptions> vpnStartOptions,
                 std::shared_ptr<AccNode> accNode, std::shared_ptr<SocksInfo> currentSocksInfo)
        : startTime(std::move(startTime)),
          vpnStartOptions(std::move(vpnStartOptions)),
          accNode(std::move(accNode)),
          currentSocksInfo(std::move(currentSocksInfo)) {}

    /// Whether `game` is the one accelerated. A zone game (grade other than 0 and 1) is matched
    /// against the accelerated game's zone super id, any other game against its gid.
    bool isBoostingGame(const Game& game) const;

    /// "ip:port" of the node (integer port); nil without a node, an ip or a port.
    std::optional<std::string> selectedNodeString() const;

    static const std::vector<Property<BoostingGame>>& properties();
};

}  // namespace lmkit

#pragma once

#include "lmkit/models/AccRoute.hpp"
#include "lmkit/models/GRPConfig.hpp"
#include "lmkit/models/VPNSimpleStartOptions.hpp"

namespace lmkit {

/// The start options as the app writes them: the tunnel's options plus the MTU, the routes and
/// the GRP settings. Its table is the base table followed by these three keys, so the tunnel
/// can read the same JSON as VPNSimpleStartOptions and ignore them.
struct VPNStartOptions : VPNSimpleStartOptions {
    std::uint64_t mtu = 0;
    std::optional<std::vector<std::shared_ptr<AccRoute>>> routes;
    std::shared_ptr<GRPConfig> grpConfig;

    std::optional<Json> toJSONDictionary() const override;

    static const std::vector<Property<VPNStartOptions>>& properties();
};

}  // namespace lmkit

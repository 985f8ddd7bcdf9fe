#pragma once

#include "lmkit/models/AccRoute.hpp"
#include "lmkit/models/BaseModel.hpp"
#include "lmkit/models/HostsConfig.hpp"

namespace lmkit {

/// Redirection of address and port ranges to relay destinations.
struct IPPortHijack : Model<IPPortHijack> {
    std::optional<std::vector<std::shared_ptr<AccRoute>>> routes;
    std::optional<std::vector<Json>> portRange;  // passed through as delivered
    std::optional<std::vector<std::shared_ptr<HostDestination>>> destinations;

    static const std::vector<Property<IPPortHijack>>& properties();
};

}  // namespace lmkit

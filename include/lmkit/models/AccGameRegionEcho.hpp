#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// The echo endpoint of one game region.
struct AccGameRegionEcho : Model<AccGameRegionEcho> {
    std::optional<std::string> ip;
    std::uint16_t port = 0;
    static const std::vector<Property<AccGameRegionEcho>>& properties();
};

}  // namespace lmkit

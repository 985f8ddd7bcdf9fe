#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// An address range of the acceleration answer; ip and mask are dotted IPv4 texts.
struct AccRoute : Model<AccRoute> {
    std::optional<std::string> ip;
    std::optional<std::string> mask;
    bool isVPN = false;

    /// Whether `address` (IPv4, network byte order) lies in the route: ip and mask both 0.0.0.0
    /// match everything; otherwise both must be non-zero and agree under the mask.
    bool isMatch(std::uint32_t address) const;

    static const std::vector<Property<AccRoute>>& properties();
};

}  // namespace lmkit

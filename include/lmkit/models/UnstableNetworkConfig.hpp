#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// Thresholds of the local network monitor. The service gives the probe period in milliseconds;
/// `interval` holds it in seconds.
struct UnstableNetworkConfig : Model<UnstableNetworkConfig> {
    std::optional<Number> interval;   // seconds
    std::optional<Number> loss;       // fraction 0..1
    std::optional<Number> deviation;  // milliseconds

    static const std::vector<Property<UnstableNetworkConfig>>& properties();
};

}  // namespace lmkit

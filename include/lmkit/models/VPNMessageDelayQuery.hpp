#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// Asks the tunnel for the newest delay samples of one game.
struct VPNMessageDelayQuery : Model<VPNMessageDelayQuery> {
    std::optional<std::string> gid;
    std::optional<Number> latestLimitCount;

    VPNMessageDelayQuery() = default;
    VPNMessageDelayQuery(std::optional<std::string> gid, std::optional<Number> latestLimitCount)
        : gid(std::move(gid)), latestLimitCount(std::move(latestLimitCount)) {}

    static const std::vector<Property<VPNMessageDelayQuery>>& properties();
};

/// The delay samples of one game without and with acceleration.
struct VPNMessageDelayResponse : Model<VPNMessageDelayResponse> {
    std::optional<std::vector<Number>> delaysBefore;
    std::optional<std::vector<Number>> delaysAfter;

    static const std::vector<Property<VPNMessageDelayResponse>>& properties();
};

}  // namespace lmkit

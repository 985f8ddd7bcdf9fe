#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// Asks the tunnel for the loss rates of one game.
struct VPNMessageLossQuery : Model<VPNMessageLossQuery> {
    std::optional<std::string> gid;

    VPNMessageLossQuery() = default;
    explicit VPNMessageLossQuery(std::optional<std::string> gid) : gid(std::move(gid)) {}

    static const std::vector<Property<VPNMessageLossQuery>>& properties();
};

/// The loss rates of one game without and with acceleration.
struct VPNMessageLossResponse : Model<VPNMessageLossResponse> {
    std::optional<Number> lossBefore;
    std::optional<Number> lossAfter;

    VPNMessageLossResponse() = default;
    VPNMessageLossResponse(std::optional<Number> lossBefore, std::optional<Number> lossAfter)
        : lossBefore(std::move(lossBefore)), lossAfter(std::move(lossAfter)) {}

    static const std::vector<Property<VPNMessageLossResponse>>& properties();
};

}  // namespace lmkit

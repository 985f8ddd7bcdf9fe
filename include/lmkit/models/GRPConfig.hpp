#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

struct GRPConfig : Model<GRPConfig> {
    bool enable = false;
    float minLoss = 0;
    float cellularGRPMaxBandTimes = 0;
    float cellularGRPMaxBandTimesDual = 0;
    float wifiGRPMaxBandTimes = 0;
    float wifiGRPMaxBandTimesDual = 0;
    static const std::vector<Property<GRPConfig>>& properties();
};

}  // namespace lmkit

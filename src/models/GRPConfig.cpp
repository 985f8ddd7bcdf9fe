#include "lmkit/models/GRPConfig.hpp"

namespace lmkit {

const std::vector<Property<GRPConfig>>& GRPConfig::properties() {
    static const std::vector<Property<GRPConfig>> table{
        prop("enable", &GRPConfig::enable),
        prop("minLoss", "grp_min_loss", &GRPConfig::minLoss),
        prop("cellularGRPMaxBandTimes", "cellular_grp_max_band_times",
             &GRPConfig::cellularGRPMaxBandTimes),
        prop("cellularGRPMaxBandTimesDual", "cellular_grp_max_band_times_dual",
             &GRPConfig::cellularGRPMaxBandTimesDual),
        prop("wifiGRPMaxBandTimes", "wifi_grp_max_band_times", &GRPConfig::wifiGRPMaxBandTimes),
        prop("wifiGRPMaxBandTimesDual", "wifi_grp_max_band_times_dual",
             &GRPConfig::wifiGRPMaxBandTimesDual),
    };
    return table;
}

}  // namespace lmkit

#include "lmkit/models/QosConfig.hpp"

#include "lmkit/models/Transformers.hpp"

namespace lmkit {

const std::vector<Property<QosConfig>>& QosConfig::properties() {
    static const std::vector<Property<QosConfig>> table{
        prop("actionResult", "qos_result", &QosConfig::actionResult,
             valueMappingTransformer<std::uint64_t>({{"success", 0},
                                                     {"failed", 1},
                                                     {"phone_needed", 2},
                                                     {"ip_not_support", 3},
                                                     {"no_needed", 4}})),
        prop("publicIP", "public_ip", &QosConfig::publicIP),
        prop("urlString", "url", &QosConfig::urlString),
        prop("identifier", "id", &QosConfig::identifier),
        prop("availableDuration", "available_duration", &QosConfig::availableDuration),
        prop("availableServerAddresses", "server", &QosConfig::availableServerAddresses),
        prop("speedTestDelay", "speed_test_delay", &QosConfig::speedTestDelay),
        prop("speedTestInterval", "speed_test_interval", &QosConfig::speedTestInterval),
    };
    return table;
}

}  // namespace lmkit

#include "lmkit/models/VPNMessageDelayQuery.hpp"

namespace lmkit {

const std::vector<Property<VPNMessageDelayQuery>>& VPNMessageDelayQuery::properties() {
    static const std::vector<Property<VPNMessageDelayQuery>> table{
        prop("gid", &VPNMessageDelayQuery::gid),
        prop("latestLimitCount", &VPNMessageDelayQuery::latestLimitCount),
    };
    return table;
}

const std::vector<Property<VPNMessageDelayResponse>>& VPNMessageDelayResponse::properties() {
    static const std::vector<Property<VPNMessageDelayResponse>> table{
        prop("delaysBefore", &VPNMessageDelayResponse::delaysBefore),
        prop("delaysAfter", &VPNMessageDelayResponse::delaysAfter),
    };
    return table;
}

}  // namespace lmkit

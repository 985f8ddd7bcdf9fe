#include "lmkit/models/VPNMessageLossQuery.hpp"

namespace lmkit {

const std::vector<Property<VPNMessageLossQuery>>& VPNMessageLossQuery::properties() {
    static const std::vector<Property<VPNMessageLossQuery>> table{
        prop("gid", &VPNMessageLossQuery::gid),
    };
    return table;
}

const std::vector<Property<VPNMessageLossResponse>>& VPNMessageLossResponse::properties() {
    static const std::vector<Property<VPNMessageLossResponse>> table{
        prop("lossBefore", &VPNMessageLossResponse::lossBefore),
        prop("lossAfter", &VPNMessageLossResponse::lossAfter),
    };
    return table;
}

}  // namespace lmkit

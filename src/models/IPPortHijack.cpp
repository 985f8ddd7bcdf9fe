#include "lmkit/models/IPPortHijack.hpp"

namespace lmkit {

const std::vector<Property<IPPortHijack>>& IPPortHijack::properties() {
    static const std::vector<Property<IPPortHijack>> table{
        prop("routes", "route", &IPPortHijack::routes),
        prop("portRange", "port_range", &IPPortHijack::portRange),
        prop("destinations", "destination_v2", &IPPortHijack::destinations),
    };
    return table;
}

}  // namespace lmkit

#include "lmkit/models/AccRoute.hpp"
#include <arpa/inet.h>

namespace lmkit {

bool AccRoute::isMatch(std::uint32_t address) const {
    // The classic parser: unparsable (or missing) text reads as INADDR_NONE.
    in_addr_t routeIp = inet_addr(ip ? ip->c_str() : "");
    in_addr_t routeMask = inet_addr(mask ? mask->c_str() : "");
    if (routeIp == 0 && routeMask == 0)
        return true;
    if (routeIp == 0 || routeMask == 0)
        return false;
    return (address & routeMask) == (routeIp & routeMask);
}

const std::vector<Property<AccRoute>>& AccRoute::properties() {
    static const std::vector<Property<AccRoute>> table{
        prop("ip", &AccRoute::ip),
        prop("mask", &AccRoute::mask),
        prop("isVPN", "is_vpn", &AccRoute::isVPN),
    };
    return table;
}

}  // namespace lmkit

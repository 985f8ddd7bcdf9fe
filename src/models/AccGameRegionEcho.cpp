#include "lmkit/models/AccGameRegionEcho.hpp"

namespace lmkit {

const std::vector<Property<AccGameRegionEcho>>& AccGameRegionEcho::properties() {
    static const std::vector<Property<AccGameRegionEcho>> table{
        prop("ip", &AccGameRegionEcho::ip),
        prop("port", &AccGameRegionEcho::port),
    };
    return table;
}

}  // namespace lmkit

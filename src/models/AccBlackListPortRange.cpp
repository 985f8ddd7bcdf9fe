#include "lmkit/models/AccBlackListPortRange.hpp"

#include "lmkit/models/Transformers.hpp"

namespace lmkit {

const std::vector<Property<AccBlackListPortRange>>& AccBlackListPortRange::properties() {
    static const std::vector<Property<AccBlackListPortRange>> table{
        prop("protocol", &AccBlackListPortRange::protocol,
             valueMappingTransformer<std::uint8_t>({{"tcp", 1}, {"udp", 2}}, Number(0),
                                                   std::string("other"))),
        prop("begin", "port_begin", &AccBlackListPortRange::begin),
        prop("end", "port_end", &AccBlackListPortRange::end),
    };
    return table;
}

}  // namespace lmkit

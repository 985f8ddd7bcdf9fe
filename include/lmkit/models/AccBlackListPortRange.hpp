#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// A port range that is never accelerated; protocol 1 is tcp, 2 udp, 0 anything else.
struct AccBlackListPortRange : Model<AccBlackListPortRange> {
    std::uint8_t protocol = 0;
    std::uint64_t begin = 0;
    std::uint64_t end = 0;

    static const std::vector<Property<AccBlackListPortRange>>& properties();
};

}  // namespace lmkit

#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// One ban rule; protocolType selects one of the five ban lists (tcp, udp, icmp, domain,
/// region packet). Addresses are 32-bit words in memory byte order (see ipAddressTransformer).
/// A "protocol" outside the five leaves protocolType nil (the text is kept as it stands and a line
/// is logged): such a rule belongs to none of the lists, so it can never ban TCP traffic.
struct BanListItem : Model<BanListItem> {
    std::optional<std::uint64_t> protocolType;
    std::optional<Number> ip;
    std::optional<Number> mask;
    std::optional<RegularExpression> domainRegexp;
    std::uint64_t port = 0;
    std::optional<std::vector<Json>> regions;
    std::optional<std::string> packetPattern;

    /// True when `address` (same byte order as `ip`) lies in the rule's network: the address and
    /// `ip` agree under `mask`. A nil ip or mask counts as 0.
    bool banAddress(std::uint32_t address) const;
    /// banAddress(address), restricted to the rule's `port` unless that is 0 (any port).
    bool banAddress(std::uint32_t address, std::uint64_t port) const;

    static const std::vector<Property<BanListItem>>& properties();
};

}  // namespace lmkit

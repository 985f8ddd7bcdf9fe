#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "lmkit/models/AccAPIResponseObject.hpp"
#include "lmkit/models/BanListItem.hpp"

namespace lmkit {

/// The ban-list protocol types, one list of the start options each.
enum BanListProtocolType : std::uint64_t {
    kBanListTCP = 0,
    kBanListUDP = 1,
    kBanListICMP = 2,
    kBanListDomain = 3,
    kBanListRegionPacket = 4,
};

/// The answer's `banlist` rules whose protocolType is `type`, in the answer's order; empty when
/// the answer has no ban list.
std::vector<std::shared_ptr<BanListItem>> filterBanList(const AccAPIResponseObject& acc,
                                                        std::uint64_t type);

}  // namespace lmkit

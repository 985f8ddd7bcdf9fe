#include "lmkit/tunnel/BanListFilter.hpp"

namespace lmkit {

std::vector<std::shared_ptr<BanListItem>> filterBanList(const AccAPIResponseObject& acc,
                                                        std::uint64_t type) {
    std::vector<std::shared_ptr<BanListItem>> items;
    if (!acc.banlist)
        return items;
    for (const auto& item : *acc.banlist)
        if (item && item->protocolType == type)
            items.push_back(item);
    return items;
}

}  // namespace lmkit

#include "lmkit/models/BanListItem.hpp"

#include "lmkit/models/Transformers.hpp"

namespace lmkit {

const std::vector<Property<BanListItem>>& BanListItem::properties() {
    static const std::vector<Property<BanListItem>> table{
        prop("protocolType", "protocol", &BanListItem::protocolType,
             valueMappingTransformer<std::uint64_t>(
                 {{"tcp", 0}, {"udp", 1}, {"icmp", 2}, {"domain", 3}, {"region_packet", 4}})),
        prop("ip", &BanListItem::ip, ipAddressTransformer()),
        prop("mask", &BanListItem::mask, ipAddressTransformer()),
        prop("domainRegexp", "domain", &BanListItem::domainRegexp, regularExpressionTransformer()),
        prop("port", &BanListItem::port),
        prop("regions", &BanListItem::regions),
        prop("packetPattern", "packet_pattern", &BanListItem::packetPattern),
    };
    return table;
}

namespace {
std::uint32_t word(const std::optional<Number>& n) {
    return n ? static_cast<std::uint32_t>(n->unsignedValue()) : 0;
}
}  // namespace

bool BanListItem::banAddress(std::uint32_t address) const {
    const std::uint32_t m = word(mask);
    return (address & m) == (word(ip) & m);
}

bool BanListItem::banAddress(std::uint32_t address, std::uint64_t port) const {
    if (!banAddress(address))
        return false;
    return this->port == 0 || this->port == port;
}

}  // namespace lmkit

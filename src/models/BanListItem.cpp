#include "lmkit/models/BanListItem.hpp"

#include "lmkit/foundation/Log.hpp"
#include "lmkit/models/Transformers.hpp"

namespace lmkit {

namespace {

const std::vector<std::pair<std::string, Number>> kProtocols{
    {"tcp", 0}, {"udp", 1}, {"icmp", 2}, {"domain", 3}, {"region_packet", 4}};

// A protocol outside the five must not fall into the tcp list (the code 0): the rule keeps the
// value as it stands, belongs to no list, and says so once, when it is decoded.
Transformer<std::optional<std::uint64_t>> protocolTransformer() {
    auto t = valueMappingTransformer<std::optional<std::uint64_t>>(kProtocols);
    t.accepts = [](const Json& in) {
        if (in.is_string()) {
            for (const auto& [text, code] : kProtocols)
                if (in.get_ref<const std::string&>() == text)
                    return true;
        }
        log::error("[BanListItem] protocol " +
                   in.dump(-1, ' ', false, Json::error_handler_t::replace) +
                   " is none of tcp, udp, icmp, domain, region_packet: the rule is dropped");
        return false;
    };
    return t;
}

}  // namespace

const std::vector<Property<BanListItem>>& BanListItem::properties() {
    static const std::vector<Property<BanListItem>> table{
        prop("protocolType", "protocol", &BanListItem::protocolType, protocolTransformer()),
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

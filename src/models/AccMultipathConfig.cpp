#include "lmkit/models/AccMultipathConfig.hpp"

#include <cctype>
#include <limits>
#include <string_view>

namespace lmkit {

namespace {

// The integer at the start of `text` as the platform reads it: leading spaces, an optional sign,
// digits; anything else ends it, and no digits read as 0. Saturates at the 32-bit range.
long long leadingInteger(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n'))
        ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '-' || text[i] == '+'))
        negative = text[i++] == '-';
    long long value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        value = value * 10 + (text[i] - '0');
        if (value > 2147483648LL)
            value = 2147483648LL;
    }
    value = negative ? -value : value;
    if (value > 2147483647LL)
        value = 2147483647LL;
    return value;
}

}  // namespace

Transformer<std::optional<std::vector<AccMultipathPortRange>>> portRangesTransformer() {
    using Ranges = std::optional<std::vector<AccMultipathPortRange>>;
    Transformer<Ranges> t;
    t.forward = [](const Json& in, Ranges& out, Error&) {
        if (!in.is_array()) {
            out.reset();
            return true;
        }
        std::vector<AccMultipathPortRange> ranges;
        for (const auto& element : in) {
            if (!element.is_string())
                continue;
            std::string_view text = element.get_ref<const std::string&>();
            auto dash = text.find('-');
            // Exactly two parts: one dash, and only one.
            if (dash == std::string_view::npos ||
                text.find('-', dash + 1) != std::string_view::npos)
                continue;
            ranges.push_back({static_cast<std::uint64_t>(leadingInteger(text.substr(0, dash))),
                              static_cast<std::uint64_t>(leadingInteger(text.substr(dash + 1)))});
        }
        out = std::move(ranges);
        return true;
    };
    t.reverse = [](const Ranges& ranges) -> Json {
        if (!ranges)
            return Json();
        Json texts = Json::array();
        for (const auto& range : *ranges)
            texts.push_back(std::to_string(range.begin) + "-" + std::to_string(range.end));
        return texts;
    };
    t.accepts = [](const Json& in) { return in.is_array(); };
    t.sample = [](int) { return Json::array({"1000-2000", "443-443"}); };
    return t;
}

const std::vector<Property<AccMultipathTCPWhitelist>>& AccMultipathTCPWhitelist::properties() {
    static const std::vector<Property<AccMultipathTCPWhitelist>> table{
        prop("portRanges", "port_ranges", &AccMultipathTCPWhitelist::portRanges,
             portRangesTransformer()),
    };
    return table;
}

const std::vector<Property<AccMultipathUDPWhitelist>>& AccMultipathUDPWhitelist::properties() {
    static const std::vector<Property<AccMultipathUDPWhitelist>> table{
        prop("portRanges", "port_ranges", &AccMultipathUDPWhitelist::portRanges,
             portRangesTransformer()),
    };
    return table;
}

const std::vector<Property<AccTrafficIdentifyRule>>& AccTrafficIdentifyRule::properties() {
    static const std::vector<Property<AccTrafficIdentifyRule>> table{
        prop("interval", &AccTrafficIdentifyRule::interval),
        prop("packets", &AccTrafficIdentifyRule::packets),
        prop("bytes", &AccTrafficIdentifyRule::bytes),
        prop("combineType", "condition_combine", &AccTrafficIdentifyRule::combineType),
    };
    return table;
}

const std::vector<Property<AccMultipathConfig>>& AccMultipathConfig::properties() {
    static const std::vector<Property<AccMultipathConfig>> table{
        prop("useSproxyIfBetter", "use_sproxy_if_better", &AccMultipathConfig::useSproxyIfBetter),
        prop("enableDirect", "enable_direct", &AccMultipathConfig::enableDirect),
        prop("directThreshold", "direct_threshold", &AccMultipathConfig::directThreshold),
        prop("splitChannel", "split_channel", &AccMultipathConfig::splitChannel),
        prop("enableCache", "enable_cache", &AccMultipathConfig::enableCache),
        prop("cacheSize", "cache_size", &AccMultipathConfig::cacheSize),
        prop("cacheTime", "cache_time", &AccMultipathConfig::cacheTime),
        prop("enableP2P", "p2p_multipath", &AccMultipathConfig::enableP2P),
        prop("p2pTimeout", "p2p_timeout", &AccMultipathConfig::p2pTimeout),
        prop("p2pMaxRetries", "p2p_max_retries", &AccMultipathConfig::p2pMaxRetries),
        prop("tcpWhitelist", "tcp_whitelist", &AccMultipathConfig::tcpWhitelist),
        prop("udpWhitelist", "udp_whitelist", &AccMultipathConfig::udpWhitelist),
        prop("trafficIdentifyRule", "traffic_identify_rule",
             &AccMultipathConfig::trafficIdentifyRule),
    };
    return table;
}

}  // namespace lmkit

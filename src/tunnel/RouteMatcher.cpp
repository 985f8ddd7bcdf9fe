#include "lmkit/tunnel/RouteMatcher.hpp"

#include <array>
#include <charconv>
#include <cstring>

namespace lmkit {

namespace {

std::string normalizedDomain(std::string_view domain) {
    if (!domain.empty() && domain.back() == '.')
        domain.remove_suffix(1);
    std::string lower(domain);
    for (char& c : lower)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return lower;
}

template <class R, class Expression>
std::shared_ptr<R> firstMatching(const std::optional<std::vector<std::shared_ptr<R>>>& rules,
                                 std::string_view domain, Expression expression) {
    if (!rules)
        return nullptr;
    for (const auto& rule : *rules) {
        if (!rule)
            continue;
        const auto& re = (*rule).*expression;
        if (re && re->matchInString(domain))
            return rule;
    }
    return nullptr;
}

const VPNSimpleStartOptions::List<BanListItem>* banList(const VPNSimpleStartOptions& options,
                                                        std::uint64_t type) {
    switch (type) {
        case kBanListTCP:
            return &options.tcpBanList;
        case kBanListUDP:
            return &options.udpBanList;
        case kBanListICMP:
            return &options.icmpBanList;
        default:
            return nullptr;
    }
}

std::optional<std::uint64_t> integerOf(std::string_view text) {
    std::uint64_t value = 0;
    auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (status != std::errc() || end != text.data() + text.size() || text.empty())
        return std::nullopt;
    return value;
}

std::optional<std::uint64_t> integerOf(const Json& value) {
    if (value.is_number_unsigned())
        return value.get<std::uint64_t>();
    if (value.is_number_integer()) {
        auto n = value.get<std::int64_t>();
        return n < 0 ? std::nullopt : std::optional<std::uint64_t>(n);
    }
    if (value.is_string())
        return integerOf(std::string_view(value.get_ref<const std::string&>()));
    return std::nullopt;
}

// One entry of a redirection's port ranges: 8080, "8080", "8000-8100" or [8000, 8100].
bool rangeHolds(const Json& range, std::uint16_t port) {
    std::optional<std::uint64_t> begin;
    std::optional<std::uint64_t> end;
    if (range.is_array() && range.size() == 2) {
        begin = integerOf(range[0]);
        end = integerOf(range[1]);
    } else if (range.is_string()) {
        std::string_view text = range.get_ref<const std::string&>();
        auto dash = text.find('-');
        if (dash == std::string_view::npos) {
            begin = end = integerOf(text);
        } else {
            begin = integerOf(text.substr(0, dash));
            end = integerOf(text.substr(dash + 1));
        }
    } else {
        begin = end = integerOf(range);
    }
    return begin && end && *begin <= port && port <= *end;
}

}  // namespace

RouteMatcher::RouteMatcher(std::shared_ptr<const VPNSimpleStartOptions> options)
    : options_(std::move(options)) {
    if (!options_)
        return;
    if (options_->domainBlacklist)
        for (const auto& domain : *options_->domainBlacklist)
            if (auto entry = normalizedDomain(domain); !entry.empty())
                blacklistedDomains_.insert(std::move(entry));
    for (auto& address : options_->uniqueAcceleratedIpFromHosts())
        acceleratedHostAddresses_.insert(address);
}

std::optional<std::uint32_t> RouteMatcher::parseIPv4(std::string_view text) {
    std::array<std::uint8_t, 4> bytes{};
    std::size_t position = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i > 0) {
            if (position >= text.size() || text[position] != '.')
                return std::nullopt;
            ++position;
        }
        std::size_t digits = 0;
        unsigned value = 0;
        while (position < text.size() && text[position] >= '0' && text[position] <= '9' &&
               digits < 3) {
            value = value * 10 + static_cast<unsigned>(text[position] - '0');
            ++position;
            ++digits;
        }
        if (digits == 0 || value > 255)
            return std::nullopt;
        bytes[i] = static_cast<std::uint8_t>(value);
    }
    if (position != text.size())
        return std::nullopt;
    std::uint32_t word = 0;
    std::memcpy(&word, bytes.data(), sizeof word);
    return word;
}

bool RouteMatcher::isDomainBlacklisted(std::string_view domain) const {
    if (!options_)
        return false;
    const std::string name = normalizedDomain(domain);
    if (!blacklistedDomains_.empty() && !name.empty()) {
        // The name itself, then each parent: cdn.example.com, example.com, com.
        std::string_view rest = name;
        while (true) {
            if (blacklistedDomains_.count(std::string(rest)))
                return true;
            auto dot = rest.find('.');
            if (dot == std::string_view::npos)
                break;
            rest.remove_prefix(dot + 1);
        }
    }
    return options_->matchDomainRegexOfBlacklist(std::string(domain));
}

std::shared_ptr<BanListItem> RouteMatcher::domainBanRule(std::string_view domain) const {
    if (!options_)
        return nullptr;
    return firstMatching(options_->domainBanList, domain, &BanListItem::domainRegexp);
}

std::shared_ptr<HostsConfig> RouteMatcher::hostRuleForDomain(std::string_view domain) const {
    if (!options_)
        return nullptr;
    return firstMatching(options_->hosts, domain, &HostsConfig::domainRegx);
}

std::shared_ptr<RouteDomain> RouteMatcher::routeDomainForDomain(std::string_view domain) const {
    if (!options_)
        return nullptr;
    return firstMatching(options_->routeDomains, domain, &RouteDomain::domainRegx);
}

std::shared_ptr<BanListItem> RouteMatcher::banRule(std::uint64_t type, std::uint32_t address,
                                                   std::optional<std::uint16_t> port) const {
    if (!options_)
        return nullptr;
    const auto* list = banList(*options_, type);
    if (!list || !*list)
        return nullptr;
    for (const auto& rule : **list) {
        if (!rule)
            continue;
        if (port ? rule->banAddress(address, *port) : rule->banAddress(address))
            return rule;
    }
    return nullptr;
}

std::shared_ptr<IPPortHijack> RouteMatcher::hijack(std::uint32_t address,
                                                   std::optional<std::uint16_t> port) const {
    if (!options_ || !options_->ipPortHijacks)
        return nullptr;
    for (const auto& redirection : *options_->ipPortHijacks) {
        if (!redirection || !redirection->routes)
            continue;
        bool routed = false;
        for (const auto& route : *redirection->routes)
            if (route && route->isMatch(address)) {
                routed = true;
                break;
            }
        if (!routed)
            continue;
        const auto& ranges = redirection->portRange;
        if (!port || !ranges || ranges->empty())
            return redirection;
        for (const auto& range : *ranges)
            if (rangeHolds(range, *port))
                return redirection;
    }
    return nullptr;
}

bool RouteMatcher::isAcceleratedHostAddress(std::string_view address) const {
    return acceleratedHostAddresses_.count(std::string(address)) > 0;
}

std::shared_ptr<SocksInfo> RouteMatcher::relay(std::string_view address,
                                               std::optional<std::uint16_t> port) const {
    if (!options_ || !options_->socksInfos)
        return nullptr;
    for (const auto& login : *options_->socksInfos) {
        if (!login || !login->ip || *login->ip != address)
            continue;
        if (port && !(login->port && *login->port == Number(unsigned{*port})))
            continue;
        return login;
    }
    return nullptr;
}

bool RouteMatcher::isBlackListPort(std::uint8_t protocol, std::uint16_t port) const {
    if (!options_ || !options_->blackListPorts)
        return false;
    for (const auto& range : *options_->blackListPorts)
        if (range && range->protocol == protocol && range->begin <= port && port <= range->end)
            return true;
    return false;
}

}  // namespace lmkit

#pragma once

// The routing questions the tunnel asks of its decoded start options for each new flow: is this
// domain or address excluded, banned, redirected, or one of the accelerated hosts' relays?
//
//     auto options = VPNStartOptionsTransport::decode(text, &error);
//     RouteMatcher matcher(options);
//     if (auto rule = matcher.banRule(kBanListTCP, *RouteMatcher::parseIPv4("10.0.0.7"), 443))
//         ...  // drop the flow
//
// The matcher reads the options once at construction and keeps what it needs; it never changes
// afterwards, so one matcher may answer from any number of threads at once. The tunnel builds a
// new matcher when it replaces its options.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "lmkit/models/VPNSimpleStartOptions.hpp"
#include "lmkit/tunnel/BanListFilter.hpp"

namespace lmkit {

class RouteMatcher {
  public:
    /// Protocol codes of the never-accelerated port ranges (AccBlackListPortRange.protocol).
    static constexpr std::uint8_t kPortRangeTCP = 1;
    static constexpr std::uint8_t kPortRangeUDP = 2;

    /// A matcher over `options`; nil options answer every question with "no".
    explicit RouteMatcher(std::shared_ptr<const VPNSimpleStartOptions> options);

    /// Dotted IPv4 text as the 32-bit word the records compare with (the address bytes in
    /// memory order, as BanListItem and AccRoute hold them); nil for anything else.
    static std::optional<std::uint32_t> parseIPv4(std::string_view text);

    // --- Domains (compared without regard to ASCII case or a final dot) ---

    /// True when the domain is one of domainBlacklist or lies below one of them ("example.com"
    /// excludes "cdn.example.com" but not "badexample.com"), or when an expression of
    /// domainRegexBlacklist matches somewhere in it. Such domains never enter the tunnel.
    bool isDomainBlacklisted(std::string_view domain) const;
    /// The first rule of domainBanList whose expression matches somewhere in the domain.
    std::shared_ptr<BanListItem> domainBanRule(std::string_view domain) const;
    /// The first host rule whose expression matches somewhere in the domain.
    std::shared_ptr<HostsConfig> hostRuleForDomain(std::string_view domain) const;
    /// The first route-domain rule whose expression matches somewhere in the domain.
    std::shared_ptr<RouteDomain> routeDomainForDomain(std::string_view domain) const;

    // --- Addresses ---

    /// The first rule of the tcp, udp or icmp ban list that bans the address; with a port, the
    /// rule must also cover that port (a rule's port 0 covers every port). The domain and
    /// region-packet lists hold no address rules: asking them gives nil.
    std::shared_ptr<BanListItem> banRule(std::uint64_t type, std::uint32_t address,
                                         std::optional<std::uint16_t> port = std::nullopt) const;
    /// The first redirection one of whose routes holds the address and, when a port is given
    /// and the redirection lists port ranges, one of whose ranges holds the port. Port ranges
    /// are read as a port number, "begin-end" or "port" text, or a [begin, end] pair.
    std::shared_ptr<IPPortHijack> hijack(std::uint32_t address,
                                         std::optional<std::uint16_t> port = std::nullopt) const;
    /// True when the address is a relay destination of a host rule routed through the tunnel.
    bool isAcceleratedHostAddress(std::string_view address) const;
    /// The first relay login whose ip is the address (and, with a port, whose port is it).
    std::shared_ptr<SocksInfo> relay(std::string_view address,
                                     std::optional<std::uint16_t> port = std::nullopt) const;
    /// True when a never-accelerated port range of the given protocol holds the port.
    bool isBlackListPort(std::uint8_t protocol, std::uint16_t port) const;

    const std::shared_ptr<const VPNSimpleStartOptions>& options() const { return options_; }

  private:
    std::shared_ptr<const VPNSimpleStartOptions> options_;
    std::unordered_set<std::string> blacklistedDomains_;  // lower case, no final dot
    std::unordered_set<std::string> acceleratedHostAddresses_;
};

}  // namespace lmkit

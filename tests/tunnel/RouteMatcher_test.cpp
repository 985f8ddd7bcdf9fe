#include "lmkit/tunnel/RouteMatcher.hpp"

#include <gtest/gtest.h>

#include "lmkit/tunnel/VPNStartOptionsTransport.hpp"

namespace lmkit {
namespace {

// Tunnel-side options as the app writes them, reduced to the routing keys.
const char* kOptions = R"({
  "socksInfos":[{"ip":"203.0.113.7","port":30001},{"ip":"203.0.113.7","port":30002}],
  "hosts":[{"domain":"\\.game\\.example$","acc_tunnel":1,
            "destination_v2":[{"sni_ip":"198.51.100.1"},{"sni_ip":"198.51.100.2"}]},
           {"domain":"cdn","acc_tunnel":0,"destination_v2":[{"sni_ip":"198.51.100.3"}]}],
  "routeDomains":[{"domain":"^login\\.","acc_dns":1,"dns_server":"8.8.4.4"}],
  "domainBlacklist":["Apple.com."],
  "domainRegexBlacklist":["^ads\\.","(broken"],
  "tcpBanList":[{"protocol":"tcp","ip":"10.0.0.0","mask":"255.255.255.0","port":443},
                {"protocol":"tcp","ip":"10.0.0.64","mask":"255.255.255.192","port":0}],
  "udpBanList":[{"protocol":"udp","ip":"10.0.1.0","mask":"255.255.255.0"}],
  "icmpBanList":[],
  "domainBanList":[{"protocol":"domain","domain":"bad\\.example"}],
  "ipPortHijacks":[{"route":[{"ip":"203.0.113.0","mask":"255.255.255.0"}],
                    "port_range":["8000-8100",9000,[7000,7001],"x-y"],
                    "destination_v2":[{"sni_ip":"198.51.100.20"}]},
                   {"route":[{"ip":"198.18.0.0","mask":"255.254.0.0"}],
                    "destination_v2":[{"sni_ip":"198.51.100.21"}]}],
  "blackListPorts":[{"protocol":"udp","port_begin":5000,"port_end":5100}]
})";

class RouteMatcherTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Error error;
        auto options = VPNStartOptionsTransport::decode(std::string_view(kOptions), &error);
        ASSERT_TRUE(options) << error.localizedDescription();
        matcher = std::make_unique<RouteMatcher>(options);
    }
    static std::uint32_t ip(const char* text) { return *RouteMatcher::parseIPv4(text); }
    std::unique_ptr<RouteMatcher> matcher;
};

TEST_F(RouteMatcherTest, ParsesOnlyDottedQuads) {
    EXPECT_EQ(RouteMatcher::parseIPv4("1.2.3.4"), 67305985u);  // memory order, as records hold
    for (const char* bad :
         {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1.2.3.4 ", "a.b.c.d", "1..2.3", "1.2.3.0004"})
        EXPECT_FALSE(RouteMatcher::parseIPv4(bad)) << bad;
}

TEST_F(RouteMatcherTest, BlacklistCoversTheDomainItsSubdomainsAndThePatterns) {
    EXPECT_TRUE(matcher->isDomainBlacklisted("apple.com"));
    EXPECT_TRUE(matcher->isDomainBlacklisted("CDN.apple.com."));
    EXPECT_FALSE(matcher->isDomainBlacklisted("pineapple.com"));
    EXPECT_FALSE(matcher->isDomainBlacklisted("com"));
    EXPECT_TRUE(matcher->isDomainBlacklisted("ADS.tracker.net"));  // pattern, any case
    EXPECT_FALSE(matcher->isDomainBlacklisted("my.ads.net"));
    EXPECT_FALSE(matcher->isDomainBlacklisted(""));
}

TEST_F(RouteMatcherTest, DomainRulesAnswerWithTheFirstMatch) {
    auto host = matcher->hostRuleForDomain("eu.game.example");
    ASSERT_TRUE(host);
    EXPECT_EQ(host->uniqueIPSet(), (std::set<std::string>{"198.51.100.1", "198.51.100.2"}));
    EXPECT_EQ(matcher->hostRuleForDomain("cdn.other.org")->destinations->at(0)->sniIp,
              "198.51.100.3");
    EXPECT_FALSE(matcher->hostRuleForDomain("game.example.org"));

    EXPECT_EQ(matcher->routeDomainForDomain("login.game.example")->DNSServer, "8.8.4.4");
    EXPECT_FALSE(matcher->routeDomainForDomain("www.login.game.example"));
    EXPECT_TRUE(matcher->domainBanRule("very.bad.example.net"));
    EXPECT_FALSE(matcher->domainBanRule("badxexample.net"));
}

TEST_F(RouteMatcherTest, BanRulesMatchNetworkAndPort) {
    // 10.0.0.7 lies in the first tcp rule's network, which bans port 443 only.
    EXPECT_FALSE(matcher->banRule(kBanListTCP, ip("10.0.0.7"), 80));
    auto rule = matcher->banRule(kBanListTCP, ip("10.0.0.7"), 443);
    ASSERT_TRUE(rule);
    EXPECT_EQ(rule->port, 443u);
    // Without a port the address alone decides.
    EXPECT_EQ(matcher->banRule(kBanListTCP, ip("10.0.0.7")), rule);
    // 10.0.0.77 is also in the second rule's /26, which bans every port.
    EXPECT_EQ(matcher->banRule(kBanListTCP, ip("10.0.0.77"), 80)->port, 0u);
    EXPECT_FALSE(matcher->banRule(kBanListTCP, ip("10.0.1.7"), 80));
    EXPECT_TRUE(matcher->banRule(kBanListUDP, ip("10.0.1.7"), 53));
    EXPECT_FALSE(matcher->banRule(kBanListICMP, ip("10.0.1.7")));
    EXPECT_FALSE(matcher->banRule(kBanListDomain, ip("10.0.0.7")));
}

TEST_F(RouteMatcherTest, HijacksNeedTheRouteAndOneOfTheirPortRanges) {
    auto first = matcher->hijack(ip("203.0.113.9"), 8050);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->destinations->at(0)->sniIp, "198.51.100.20");
    EXPECT_EQ(matcher->hijack(ip("203.0.113.9"), 9000), first);
    EXPECT_EQ(matcher->hijack(ip("203.0.113.9"), 7001), first);
    EXPECT_FALSE(matcher->hijack(ip("203.0.113.9"), 8101));
    EXPECT_EQ(matcher->hijack(ip("203.0.113.9")), first);  // no port: the route decides
    EXPECT_FALSE(matcher->hijack(ip("203.0.114.9"), 8050));
    // A redirection without port ranges takes every port of its routes.
    EXPECT_EQ(matcher->hijack(ip("198.19.4.4"), 1)->destinations->at(0)->sniIp, "198.51.100.21");
}

TEST_F(RouteMatcherTest, RelaysHostAddressesAndBlacklistedPorts) {
    EXPECT_TRUE(matcher->isAcceleratedHostAddress("198.51.100.2"));
    EXPECT_FALSE(matcher->isAcceleratedHostAddress("198.51.100.3"));  // rule not tunnelled

    EXPECT_EQ(matcher->relay("203.0.113.7")->port, Number(30001));
    EXPECT_EQ(matcher->relay("203.0.113.7", 30002)->port, Number(30002));
    EXPECT_FALSE(matcher->relay("203.0.113.7", 30003));
    EXPECT_FALSE(matcher->relay("203.0.113.8"));

    EXPECT_TRUE(matcher->isBlackListPort(RouteMatcher::kPortRangeUDP, 5000));
    EXPECT_TRUE(matcher->isBlackListPort(RouteMatcher::kPortRangeUDP, 5100));
    EXPECT_FALSE(matcher->isBlackListPort(RouteMatcher::kPortRangeUDP, 5101));
    EXPECT_FALSE(matcher->isBlackListPort(RouteMatcher::kPortRangeTCP, 5050));
}

TEST(RouteMatcher, WithoutOptionsNothingMatches) {
    RouteMatcher matcher(nullptr);
    EXPECT_FALSE(matcher.isDomainBlacklisted("apple.com"));
    EXPECT_FALSE(matcher.hostRuleForDomain("a"));
    EXPECT_FALSE(matcher.banRule(kBanListTCP, 0));
    EXPECT_FALSE(matcher.hijack(0, 80));
    EXPECT_FALSE(matcher.relay("1.2.3.4"));
    EXPECT_FALSE(matcher.isBlackListPort(RouteMatcher::kPortRangeTCP, 1));
}

}  // namespace
}  // namespace lmkit

#include <arpa/inet.h>

#include <cstring>
#include <set>

#include <gtest/gtest.h>

#include "lmkit/models/AccBlackListPortRange.hpp"
#include "lmkit/models/AccMultipathConfig.hpp"
#include "lmkit/models/AutoRegionLockConfig.hpp"
#include "lmkit/models/BanListItem.hpp"
#include "lmkit/models/HostsConfig.hpp"
#include "lmkit/models/RouteDomain.hpp"
#include "lmkit/models/SocksInfo.hpp"

#include "support/RecordDecoding.hpp"

namespace lmkit {
namespace {

using lmkit::testing::decode;

// The address word as the packet engine holds it: the bytes in network order, in memory.
std::uint32_t memoryWord(const char* dotted) {
    in_addr address{};
    EXPECT_EQ(inet_pton(AF_INET, dotted, &address), 1);
    std::uint32_t word = 0;
    std::memcpy(&word, &address, sizeof word);
    return word;
}

TEST(SocksInfo, DefaultsItsEncryptMethodAndRoundTripsWithoutTheIdentifier) {
    // The default fills an absent key only: a given value or an explicit null is laid over it,
    // and plain construction is not decoding.
    EXPECT_EQ(decode<SocksInfo>(R"({"ip":"1.2.3.4","port":443})")->tcpEncryptMethod, "XOR");
    EXPECT_EQ(decode<SocksInfo>(R"({"tcpEncryptMethod":"AES"})")->tcpEncryptMethod, "AES");
    EXPECT_FALSE(decode<SocksInfo>(R"({"tcpEncryptMethod":null})")->tcpEncryptMethod);
    EXPECT_FALSE(SocksInfo().tcpEncryptMethod);

    EXPECT_EQ(SocksInfo("1.2.3.4", Number(443.9)).identifier(), "1.2.3.4:443");
    EXPECT_FALSE(SocksInfo("", Number(443)).identifier());
    EXPECT_FALSE(SocksInfo("1.2.3.4", std::nullopt).identifier());

    const char* text = R"({"ip":"203.0.113.7","port":30001,"tlsPort":0,"netaskPort":1081,
        "username":"u1","password":"p1","sniIP":null,"sniPort":8443,"sniCryptType":2,
        "token":"t","tcpEncryptKey":"k","tcpEncryptMethod":"XOR","retryTime":3,
        "requestDualChannelType":2,"enableUDPDualChannelResult":true,"tcpipOverUdpResult":1,
        "accIdentifier":"hk-01","delay":35.5,"rearDelay":12,"chartRearDelay":null})";
    auto relay = decode<SocksInfo>(text);
    ASSERT_TRUE(relay);
    EXPECT_EQ(relay->requestDualChannelType, 2u);
    EXPECT_EQ(relay->identifier(), "203.0.113.7:30001");
    auto back = relay->toJSONDictionary();
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, Json::parse(text));  // no "identifier"
    EXPECT_TRUE((*back)["delay"].is_number_float());
    EXPECT_TRUE((*back)["port"].is_number_integer());
}

TEST(BanListItem, BansTheNetworkInMemoryByteOrderAndOnItsPort) {
    auto anyPort =
        decode<BanListItem>(R"({"protocol":"udp","ip":"10.0.0.0","mask":"255.255.255.0"})");
    ASSERT_TRUE(anyPort);
    EXPECT_EQ(anyPort->protocolType, 1u);
    EXPECT_EQ(anyPort->ip->unsignedValue(), memoryWord("10.0.0.0"));
    EXPECT_TRUE(anyPort->banAddress(memoryWord("10.0.0.77")));
    EXPECT_TRUE(anyPort->banAddress(memoryWord("10.0.0.77"), 53));
    EXPECT_TRUE(anyPort->banAddress(memoryWord("10.0.0.77"), 27015));
    EXPECT_FALSE(anyPort->banAddress(memoryWord("10.0.1.77"), 53));

    auto onPort = decode<BanListItem>(
        R"({"protocol":"tcp","ip":"10.0.0.0","mask":"255.255.255.0","port":27015})");
    ASSERT_TRUE(onPort);
    EXPECT_TRUE(onPort->banAddress(memoryWord("10.0.0.77"), 27015));
    EXPECT_FALSE(onPort->banAddress(memoryWord("10.0.0.77"), 27016));
    EXPECT_FALSE(onPort->banAddress(memoryWord("10.0.1.77"), 27015));

    // 10.9.9.9 in host order has 9 in its low byte: with a /8 rule only the memory order
    // matches.
    auto wide = decode<BanListItem>(R"({"protocol":"icmp","ip":"10.0.0.0","mask":"255.0.0.0"})");
    ASSERT_TRUE(wide);
    EXPECT_TRUE(wide->banAddress(memoryWord("10.9.9.9")));
    EXPECT_FALSE(wide->banAddress(ntohl(memoryWord("10.9.9.9"))));
}

TEST(BanListItem, DecodesEveryListAndWritesTheSameKeysBack) {
    const char* text = R"({"protocol":"region_packet","ip":"192.168.1.0","mask":"255.255.255.0",
        "domain":"^cdn\\.game\\.com$","port":443,"regions":["hk","jp"],
        "packet_pattern":"ff00"})";
    auto item = decode<BanListItem>(text);
    ASSERT_TRUE(item);
    EXPECT_EQ(item->protocolType, 4u);
    ASSERT_TRUE(item->domainRegexp);
    EXPECT_TRUE(item->domainRegexp->matchInString("CDN.game.com"));
    EXPECT_EQ(item->regions->size(), 2u);
    auto back = item->toJSONDictionary();
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, Json::parse(text));

    auto domain = decode<BanListItem>(R"({"protocol":"domain"})");
    ASSERT_TRUE(domain);
    EXPECT_EQ(domain->protocolType, 3u);
    // Nil addresses count as 0: such a rule bans everything.
    EXPECT_TRUE(domain->banAddress(memoryWord("8.8.8.8")));

    // An unknown protocol belongs to no list (never the tcp one) and is kept as it stands.
    auto unknown = decode<BanListItem>(R"({"protocol":"sctp","ip":"not an address"})");
    ASSERT_TRUE(unknown);
    EXPECT_FALSE(unknown->protocolType);
    EXPECT_EQ(unknown->ip->unsignedValue(), 0u);
    EXPECT_EQ((*unknown->toJSONDictionary())["protocol"], "sctp");
    EXPECT_FALSE(decode<BanListItem>(R"({"protocol":7})")->protocolType);
}

TEST(HostsConfig, DestinationHelpers) {
    auto rule = decode<HostsConfig>(R"({"domain":"\\.game\\.com$","acc_tunnel":1,
        "webview_boost":0,"destination_v2":[
        {"sni_ip":"198.51.100.1","sni_port":443,"sni_crypt":1,"obfs_key":7,
         "port_map":{"80":8080}},
        {"sni_ip":"198.51.100.2","sni_port":443},
        {"sni_ip":"198.51.100.1"},
        {"sni_ip":""},
        {}]})");
    ASSERT_TRUE(rule);
    auto ips = rule->destinationSniIpArray();
    EXPECT_EQ(std::set<std::string>(ips.begin(), ips.end()),
              (std::set<std::string>{"198.51.100.1", "198.51.100.2"}));
    EXPECT_EQ(ips.size(), 2u);
    EXPECT_EQ(rule->uniqueIPSet(), (std::set<std::string>{"198.51.100.1", "198.51.100.2"}));

    std::set<const HostDestination*> seen;
    for (int i = 0; i < 500; ++i) {
        auto destination = rule->randomDestination();
        ASSERT_TRUE(destination);
        seen.insert(destination.get());
    }
    EXPECT_EQ(seen.size(), 5u);  // every entry, empty ones included, can be drawn

    auto back = rule->toJSONDictionary();
    ASSERT_TRUE(back);
    EXPECT_EQ((*back)["destination_v2"][0]["port_map"], Json::parse(R"({"80":8080})"));
    EXPECT_EQ((*back)["destination_v2"][0]["obfs_key"], 7);

    for (const char* empty : {R"({"destination_v2":[]})", R"({"domain":"x"})"}) {
        auto none = decode<HostsConfig>(empty);
        ASSERT_TRUE(none);
        EXPECT_FALSE(none->randomDestination());
        EXPECT_FALSE(none->randomDestinationIP());
        EXPECT_FALSE(none->uniqueIPSet());
        EXPECT_TRUE(none->destinationSniIpArray().empty());
    }

    // Destinations that are all blank still give a set, an empty one.
    auto blank = decode<HostsConfig>(R"({"destination_v2":[{"sni_ip":""}]})");
    ASSERT_TRUE(blank);
    ASSERT_TRUE(blank->uniqueIPSet());
    EXPECT_TRUE(blank->uniqueIPSet()->empty());

    Error error;
    EXPECT_FALSE(JSONAdapter::modelOfClass<HostsConfig>(
        Json::parse(R"({"destination_v2":["198.51.100.1"]})"), &error));
}

TEST(AccMultipathConfig, PortRangesAndNestedRecords) {
    const char* text = R"({"use_sproxy_if_better":true,"enable_direct":false,
        "direct_threshold":80,"split_channel":true,"enable_cache":true,"cache_size":1048576,
        "cache_time":1.5,"p2p_multipath":false,"p2p_timeout":3000,"p2p_max_retries":3,
        "tcp_whitelist":{"port_ranges":["1000-2000","3000","a-b","1-2-3",7,"+80-443"]},
        "udp_whitelist":{"port_ranges":[]},
        "traffic_identify_rule":{"interval":1000,"packets":10,"bytes":2048,
                                 "condition_combine":1}})";
    auto config = decode<AccMultipathConfig>(text);
    ASSERT_TRUE(config);
    ASSERT_TRUE(config->tcpWhitelist && config->tcpWhitelist->portRanges);
    EXPECT_EQ(*config->tcpWhitelist->portRanges,
              (std::vector<AccMultipathPortRange>{{1000, 2000}, {0, 0}, {80, 443}}));
    ASSERT_TRUE(config->udpWhitelist && config->udpWhitelist->portRanges);
    EXPECT_TRUE(config->udpWhitelist->portRanges->empty());
    EXPECT_EQ(config->trafficIdentifyRule->combineType, 1u);

    auto back = config->toJSONDictionary();
    ASSERT_TRUE(back);
    EXPECT_EQ((*back)["tcp_whitelist"]["port_ranges"],
              Json::parse(R"(["1000-2000","0-0","80-443"])"));
    EXPECT_EQ((*back)["traffic_identify_rule"]["condition_combine"], 1);

    // A whitelist that is no array at all reads as nil, not as an empty list, and is kept as it
    // stands.
    auto odd = decode<AccMultipathTCPWhitelist>(R"({"port_ranges":"1000-2000"})");
    ASSERT_TRUE(odd);
    EXPECT_FALSE(odd->portRanges);
    EXPECT_EQ((*odd->toJSONDictionary())["port_ranges"], "1000-2000");
}

TEST(ValueMapsWithDefault, UnknownTextsReadZeroAndZeroWritesOther) {
    auto tcp = decode<AccBlackListPortRange>(R"({"protocol":"tcp","port_begin":80,"port_end":90})");
    auto udp = decode<AccBlackListPortRange>(R"({"protocol":"udp"})");
    auto other = decode<AccBlackListPortRange>(R"({"protocol":"sctp","port_begin":1})");
    ASSERT_TRUE(tcp && udp && other);
    EXPECT_EQ(tcp->protocol, 1);
    EXPECT_EQ(tcp->begin, 80u);
    EXPECT_EQ(tcp->end, 90u);
    EXPECT_EQ(udp->protocol, 2);
    EXPECT_EQ(other->protocol, 0);
    EXPECT_EQ(*tcp->toJSONDictionary(),
              Json::parse(R"({"protocol":"tcp","port_begin":80,"port_end":90})"));
    EXPECT_EQ((*other->toJSONDictionary())["protocol"], "other");

    auto lock = decode<AutoRegionLockConfig>(R"({"mode":"topN","topN":3,"ping_after":5,
        "ping_duration":10.5,"all_game_regions":["hk"],"all_game_ips":["1.1.1.1"],
        "fallback_regions":[],"ban_list_extra_config_list":[
            {"protocol":"udp","ip":"10.0.0.0","mask":"255.0.0.0"}]})");
    ASSERT_TRUE(lock);
    EXPECT_EQ(lock->mode, 1);
    ASSERT_EQ(lock->banListExtraConfigList->size(), 1u);
    EXPECT_EQ((*lock->banListExtraConfigList)[0]->protocolType, 1u);
    EXPECT_TRUE(lock->fallbackRegions->empty());
    auto lockBack = lock->toJSONDictionary();
    ASSERT_TRUE(lockBack);
    EXPECT_EQ((*lockBack)["mode"], "topN");
    EXPECT_EQ((*lockBack)["ban_list_extra_config_list"][0]["mask"], "255.0.0.0");

    auto fixed = decode<AutoRegionLockConfig>(R"({"mode":"fixed"})");
    ASSERT_TRUE(fixed);
    EXPECT_EQ(fixed->mode, 0);
    EXPECT_FALSE(fixed->banListExtraConfigList);
    EXPECT_EQ((*fixed->toJSONDictionary())["mode"], "other");

    Error error;
    EXPECT_FALSE(JSONAdapter::modelOfClass<AutoRegionLockConfig>(
        Json::parse(R"({"ban_list_extra_config_list":[1]})"), &error));
}

TEST(RouteDomain, APatternThatDoesNotCompileReadsAsNil) {
    auto domain = decode<RouteDomain>(R"({"domain":"(unclosed","acc_dns":1,"acc_traffic":0,
        "dns_server":"8.8.8.8","webview_boost":true})");
    ASSERT_TRUE(domain);
    EXPECT_FALSE(domain->domainRegx);
    EXPECT_TRUE(domain->webviewBoost->boolValue());
    EXPECT_FALSE(domain->accTraffic->boolValue());
    EXPECT_EQ(*domain->toJSONDictionary(), Json::parse(R"({"domain":null,"acc_dns":1,
        "acc_traffic":0,"dns_server":"8.8.8.8","webview_boost":true})"));
}

}  // namespace
}  // namespace lmkit

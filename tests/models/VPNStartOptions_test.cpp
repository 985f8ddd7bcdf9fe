#include "lmkit/models/VPNStartOptions.hpp"

#include <gtest/gtest.h>

#include "lmkit/models/BoostingGame.hpp"

namespace lmkit {
namespace {

// The start options of one acceleration, keys in the order the app writes them.
const char* kStartOptions = R"({
  "game":{"gid":"g-100","zoneGameSuperGid":null,"name":"Racer","oversea":true,"grade":1,
          "dualChannelType":2},
  "account":{"account":"user-7","gacc_code":"c0de"},
  "socksInfos":[{"ip":"203.0.113.7","port":30001,"tlsPort":0,"netaskPort":1081,
                 "username":"user-7","password":"c0de","sniIP":null,"sniPort":null,
                 "sniCryptType":null,"accIdentifier":"hk-01","requestDualChannelType":2,
                 "delay":35.5,"rearDelay":12,"chartRearDelay":null}],
  "accNodes":[{"id":"hk-01","ip":"203.0.113.7","port":30001.0},
              {"id":"hk-02","ip":"203.0.113.8","port":30002}],
  "multipathNodes":[],
  "multipathConfig":{"enable_direct":true,"tcp_whitelist":{"port_ranges":["1000-2000"]}},
  "autoRegionLockConfig":null,
  "directRTTs":{"hk":12.5,"jp":40},
  "ipPortHijacks":[{"route":[{"ip":"10.1.0.0","mask":"255.255.0.0"}],"port_range":["1-2"],
                    "destination_v2":[{"sni_ip":"198.51.100.9"}]}],
  "ipDataPath":"/var/ipdata.bin",
  "hosts":[{"domain":"\\.game\\.com$","acc_tunnel":1,"webview_boost":0,
            "destination_v2":[{"sni_ip":"198.51.100.1"},{"sni_ip":"198.51.100.2"}]},
           {"domain":"cdn","acc_tunnel":0,"destination_v2":[{"sni_ip":"198.51.100.3"}]},
           {"domain":"login","acc_tunnel":true,"destination_v2":[]},
           {"domain":"patch","acc_tunnel":1,"destination_v2":[{"sni_ip":"198.51.100.2"}]}],
  "dnsList":["8.8.8.8","1.1.1.1"],
  "routes":[{"ip":"0.0.0.0","mask":"0.0.0.0","is_vpn":false}],
  "mainlinkLoginTimeout":5,
  "keepaliveTimeInterval":30,
  "routeDomains":[{"domain":"game","acc_dns":1,"dns_server":"8.8.4.4"}],
  "remoteDNSServerAddress":"",
  "vpnBufferDuration":3600,
  "domainBlacklist":["apple.com"],
  "domainRegexBlacklist":["^ads\\.","(broken","tracker"],
  "gamePingServerNode":{"ip":"198.51.100.50","port":9999},
  "tcpIpOverUdpPortRange":[],
  "mtu":1400,
  "delayMode":1,
  "enableSproxyConfusion":false,
  "enableTCPEncryption":true,
  "enableDualChannel":true,
  "tcpBanList":[{"protocol":"tcp","ip":"10.0.0.0","mask":"255.0.0.0","port":443}],
  "udpBanList":[],
  "icmpBanList":[],
  "domainBanList":[{"protocol":"domain","domain":"bad\\.example"}],
  "regionPacketBanList":[],
  "enableMultipath":true,
  "dualChannelType":2,
  "techIconState":{"dual_channel":"on","multi_path":"off"},
  "netToPingIPs":null,
  "blackListPorts":[{"protocol":"udp","port_begin":5000,"port_end":5100}],
  "mainlinkUseTLS":false,
  "forceMainlinkTLS":false,
  "tcpChannelUseTLS":true,
  "enableOldRouterDivider":false,
  "enableFDTUNReadMode":true,
  "fallbackToUserDefaultsSync":false,
  "grpConfig":null,
  "udpSocketSendBuffer":null,
  "udpSocketRecvBuffer":262144
})";

// Key order is not part of the comparison.
nlohmann::json unordered(const Json& json) {
    return nlohmann::json::parse(json.dump());
}

TEST(VPNStartOptions, DecodesTheAppDocumentAndWritesItBack) {
    Json document = Json::parse(kStartOptions);
    Error error;
    auto options = JSONAdapter::modelOfClass<VPNStartOptions>(document, &error);
    ASSERT_TRUE(options) << error.localizedDescription();

    EXPECT_EQ(options->game->gid, "g-100");
    EXPECT_FALSE(options->game->zoneGameSuperGid);
    EXPECT_TRUE(options->game->oversea);
    EXPECT_EQ(options->account->username, "user-7");
    ASSERT_EQ(options->socksInfos->size(), 1u);
    EXPECT_EQ((*options->socksInfos)[0]->tcpEncryptMethod, "XOR");
    EXPECT_TRUE(options->multipathNodes->empty());
    EXPECT_FALSE(options->autoRegionLockConfig);
    EXPECT_DOUBLE_EQ(options->directRTTs->at("hk").get<double>(), 12.5);
    EXPECT_EQ(options->mainlinkLoginTimeout, 5u);
    EXPECT_EQ(options->remoteDNSServerAddress, "");  // empty, not nil
    EXPECT_EQ(options->tcpIpOverUdpPortRange->size(), 0u);
    EXPECT_EQ(options->domainRegexBlacklist->size(), 2u);  // the broken pattern is skipped
    EXPECT_EQ(options->gamePingServerNode->port->intValue(), 9999);
    EXPECT_EQ(options->delayMode, 1);
    EXPECT_EQ((*options->tcpBanList)[0]->port, 443u);
    EXPECT_EQ((*options->domainBanList)[0]->protocolType, 3u);
    EXPECT_EQ((*options->blackListPorts)[0]->protocol, 2);
    EXPECT_FALSE(options->netToPingIPs);
    EXPECT_FALSE(options->udpSocketSendBuffer);
    EXPECT_EQ(options->udpSocketRecvBuffer->intValue(), 262144);
    EXPECT_EQ(options->mtu, 1400u);
    ASSERT_EQ(options->routes->size(), 1u);
    EXPECT_FALSE(options->grpConfig);

    // Every key of the document, under its own name, and nothing else.
    auto back = options->toJSONDictionary();
    ASSERT_TRUE(back);
    std::set<std::string> documentKeys, writtenKeys;
    for (const auto& [key, value] : document.items())
        documentKeys.insert(key);
    for (const auto& [key, value] : back->items())
        writtenKeys.insert(key);
    EXPECT_EQ(writtenKeys, documentKeys);
    // Everything the app wrote reads back the same, apart from the records that add their own
    // keys (nodes, relays, rules) and the pattern that did not compile.
    const std::set<std::string> rewritten{"socksInfos",    "accNodes",      "multipathConfig",
                                          "ipPortHijacks", "hosts",         "routeDomains",
                                          "tcpBanList",    "domainBanList", "domainRegexBlacklist"};
    for (const auto& key : documentKeys) {
        if (!rewritten.count(key)) {
            EXPECT_EQ(unordered((*back)[key]), unordered(document[key])) << key;
        }
    }
    EXPECT_EQ((*back)["domainRegexBlacklist"], Json::parse(R"(["^ads\\.","tracker"])"));
    EXPECT_EQ((*back)["socksInfos"][0]["tcpEncryptMethod"], "XOR");
    EXPECT_EQ((*back)["tcpBanList"][0]["mask"], "255.0.0.0");
    EXPECT_TRUE((*back)["vpnBufferDuration"].is_number_float());
    EXPECT_TRUE((*back)["udpSocketRecvBuffer"].is_number_integer());

    // Written again, the encoded form is stable.
    auto again = JSONAdapter::modelOfClass<VPNStartOptions>(*back, &error);
    ASSERT_TRUE(again) << error.localizedDescription();
    EXPECT_EQ(unordered(*again->toJSONDictionary()), unordered(*back));
}

TEST(VPNStartOptions, TunnelSideReadsTheBaseKeysOnly) {
    Error error;
    auto options =
        JSONAdapter::modelOfClass<VPNSimpleStartOptions>(Json::parse(kStartOptions), &error);
    ASSERT_TRUE(options) << error.localizedDescription();
    auto back = options->toJSONDictionary();
    ASSERT_TRUE(back);
    EXPECT_EQ(back->size(), 43u);
    EXPECT_FALSE(back->contains("mtu"));
    EXPECT_FALSE(back->contains("routes"));
    EXPECT_FALSE(back->contains("grpConfig"));

    // A relay list holding something other than objects fails the whole decode.
    Json bad = Json::parse(kStartOptions);
    bad["socksInfos"] = Json::parse(R"(["203.0.113.7:30001"])");
    EXPECT_FALSE(JSONAdapter::modelOfClass<VPNSimpleStartOptions>(bad, &error));
    EXPECT_NE(error.localizedDescription().find("socksInfos"), std::string::npos);
    bad = Json::parse(kStartOptions);
    bad["game"] = "g-100";
    EXPECT_FALSE(JSONAdapter::modelOfClass<VPNStartOptions>(bad, &error));
}

TEST(VPNStartOptions, RelayNodeHostsAndBlacklistHelpers) {
    auto options = JSONAdapter::modelOfClass<VPNSimpleStartOptions>(Json::parse(kStartOptions));
    ASSERT_TRUE(options);

    // The node's port is 30001.0, the relay's 30001: numbers compare by value.
    auto node = options->pickAccNodeFromSocksInfo(SocksInfo("203.0.113.7", Number(30001)));
    ASSERT_TRUE(node);
    EXPECT_EQ(node->identifier, "hk-01");
    EXPECT_EQ(
        options->pickAccNodeFromSocksInfo(SocksInfo("203.0.113.8", Number(30002)))->identifier,
        "hk-02");
    EXPECT_FALSE(options->pickAccNodeFromSocksInfo(SocksInfo("203.0.113.7", Number(30002))));
    EXPECT_FALSE(options->pickAccNodeFromSocksInfo(SocksInfo("203.0.113.7", std::nullopt)));
    EXPECT_FALSE(options->pickAccNodeFromSocksInfo(SocksInfo()));

    // Tunnelled rules only; a tunnelled rule without destinations adds nothing.
    EXPECT_EQ(options->uniqueAcceleratedIpFromHosts(),
              (std::set<std::string>{"198.51.100.1", "198.51.100.2"}));
    VPNSimpleStartOptions empty;
    EXPECT_TRUE(empty.uniqueAcceleratedIpFromHosts().empty());

    EXPECT_TRUE(options->matchDomainRegexOfBlacklist("ADS.example.com"));
    EXPECT_TRUE(options->matchDomainRegexOfBlacklist("cdn.tracker.net"));
    EXPECT_FALSE(options->matchDomainRegexOfBlacklist("www.ads.example.com"));
    EXPECT_FALSE(options->matchDomainRegexOfBlacklist("(broken"));
    EXPECT_FALSE(options->matchDomainRegexOfBlacklist(std::nullopt));
    empty.domainRegexBlacklist = std::vector<RegularExpression>{};
    EXPECT_FALSE(empty.matchDomainRegexOfBlacklist("ads.example.com"));
}

TEST(BoostingGame, RecordAndItsQuestions) {
    auto options = JSONAdapter::modelOfClass<VPNSimpleStartOptions>(Json::parse(kStartOptions));
    ASSERT_TRUE(options);
    auto node = (*options->accNodes)[0];
    BoostingGame boosting(Number(1700000000.5), options, node,
                          std::make_shared<SocksInfo>("203.0.113.7", Number(30001)));
    EXPECT_EQ(boosting.selectedNodeString(), "203.0.113.7:30001");

    Game plain;
    plain.gid = "g-100";
    plain.grade = 1;
    EXPECT_TRUE(boosting.isBoostingGame(plain));
    Game zone;
    zone.gid = "g-100";
    zone.grade = 2;  // a zone game is compared with the zone super id, which is nil here
    EXPECT_FALSE(boosting.isBoostingGame(zone));
    options->game->zoneGameSuperGid = "g-100";
    EXPECT_TRUE(boosting.isBoostingGame(zone));
    zone.gid = "g-101";
    EXPECT_FALSE(boosting.isBoostingGame(zone));

    auto json = boosting.toJSONDictionary();
    ASSERT_TRUE(json);
    EXPECT_EQ((*json)["startTime"], 1700000000.5);
    EXPECT_EQ((*json)["vpnStartOptions"]["game"]["gid"], "g-100");
    EXPECT_EQ((*json)["currentSocksInfo"]["ip"], "203.0.113.7");
    Error error;
    auto back = JSONAdapter::modelOfClass<BoostingGame>(*json, &error);
    ASSERT_TRUE(back) << error.localizedDescription();
    EXPECT_EQ(back->selectedNodeString(), "203.0.113.7:30001");
    EXPECT_EQ(back->vpnStartOptions->hosts->size(), 4u);
    EXPECT_EQ(back->currentSocksInfo->identifier(), "203.0.113.7:30001");

    BoostingGame nothing;
    EXPECT_FALSE(nothing.selectedNodeString());
    EXPECT_FALSE(nothing.isBoostingGame(plain));
    nothing.accNode = std::make_shared<AccNode>();
    nothing.accNode->ip = "203.0.113.7";
    EXPECT_FALSE(nothing.selectedNodeString());
}

}  // namespace
}  // namespace lmkit

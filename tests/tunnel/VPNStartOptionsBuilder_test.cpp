#include "lmkit/tunnel/VPNStartOptionsBuilder.hpp"

#include <fstream>
#include <functional>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/tunnel/BanListFilter.hpp"
#include "lmkit/tunnel/VPNStartOptionsTransport.hpp"
#include "support/RecordDecoding.hpp"

namespace lmkit {
namespace {

using lmkit::testing::decode;

Json readSample(const std::string& name) {
    std::ifstream in(std::string(LMKIT_TEST_DATA_DIR) + "/start_options/" + name);
    std::stringstream text;
    text << in.rdbuf();
    return Json::parse(text.str());
}

// The sample answer and game, with the answer's nodes chosen in their delivered order. Each test
// edits the answer's JSON (`answer`) before calling build().
class BuilderTest : public ::testing::Test {
  protected:
    Json answer = readSample("acc.json");
    Json gameJson = readSample("game.json");
    std::function<void(VPNStartOptionsArguments&)> adjust = [](VPNStartOptionsArguments&) {};

    VPNStartOptionsArguments arguments() {
        VPNStartOptionsArguments args;
        args.game = decode<Game>(gameJson);
        auto acc = decode<AccAPIResponseObject>(answer);
        args.acc = acc;
        if (acc && acc->accNodes)
            args.accNodes = *acc->accNodes;
        if (acc && acc->multipathNodes)
            args.multipathNodes = *acc->multipathNodes;
        adjust(args);
        return args;
    }
    Json build() {
        auto dictionary = VPNStartOptionsBuilder::dictionaryWithGame(arguments());
        EXPECT_TRUE(dictionary);
        return dictionary ? *dictionary : Json();
    }
};

TEST_F(BuilderTest, NoAccountOrNoNodeGivesNilWithoutErrorOrLogLine) {
    log::Capture capture;
    const Error untouched("untouched", 7);

    answer.erase("account");
    Error error = untouched;
    EXPECT_EQ(VPNStartOptionsBuilder::optionsWithGame(arguments(), &error), nullptr);
    EXPECT_EQ(error, untouched);

    answer = readSample("acc.json");
    adjust = [](VPNStartOptionsArguments& args) { args.accNodes.clear(); };
    EXPECT_EQ(VPNStartOptionsBuilder::optionsWithGame(arguments(), &error), nullptr);
    EXPECT_EQ(error, untouched);

    adjust = [](VPNStartOptionsArguments& args) { args.acc = nullptr; };
    EXPECT_EQ(VPNStartOptionsBuilder::optionsWithGame(arguments(), &error), nullptr);
    EXPECT_EQ(error, untouched);
    EXPECT_TRUE(capture.texts().empty());
}

// The builder writes the tunnel record's keys in the record's order, with the app's own three
// (routes, mtu, grpConfig) among them: a key spelt differently on either side would be lost.
TEST_F(BuilderTest, WritesTheRecordsKeysInItsOrderAndConverts) {
    const Json dictionary = build();
    std::vector<std::string> tunnelKeys, allKeys, recordKeys, appKeys;
    for (const auto& [key, value] : dictionary.items()) {
        allKeys.push_back(key);
        if (key != "routes" && key != "mtu" && key != "grpConfig")
            tunnelKeys.push_back(key);
    }
    for (const auto& p : VPNSimpleStartOptions::properties())
        recordKeys.push_back(p.keyPath);
    for (const auto& p : VPNStartOptions::properties())
        appKeys.push_back(p.keyPath);
    EXPECT_EQ(tunnelKeys, recordKeys);
    EXPECT_EQ(std::set<std::string>(allKeys.begin(), allKeys.end()),
              std::set<std::string>(appKeys.begin(), appKeys.end()));
    EXPECT_EQ(allKeys.size(), appKeys.size());

    Error error;
    auto options = VPNStartOptionsBuilder::optionsWithGame(arguments(), &error);
    ASSERT_TRUE(options) << error.localizedDescription();
    EXPECT_EQ(options->mtu, 1400u);
    ASSERT_TRUE(options->routes);
    EXPECT_TRUE(options->routes->at(0)->isVPN);
    ASSERT_TRUE(options->account && options->multipathNodes && options->techIconState);
    EXPECT_EQ(options->account->username, "user-7");
    EXPECT_EQ(options->dnsList, (std::vector<std::string>{"8.8.8.8", "1.1.1.1"}));
    EXPECT_EQ(options->mainlinkLoginTimeout, 5u);  // seconds from the answer's milliseconds
    EXPECT_EQ(options->remoteDNSServerAddress, "9.9.9.9");
    EXPECT_EQ(options->dualChannelType, 2u);
    EXPECT_EQ(options->multipathNodes->at(0)->identifier, "mp-01");
    EXPECT_EQ(options->tcpIpOverUdpPortRange, (std::vector<Json>{"10000-10100"}));
    EXPECT_EQ(options->techIconState->dualChannel, "on");
}

TEST_F(BuilderTest, GameDictionaryHasSixKeysAndTheAnswersDualChannelMode) {
    auto game = build()["game"];
    EXPECT_EQ(game.dump(), R"({"gid":"g-100","zoneGameSuperGid":"g-1","name":"Racer",)"
                           R"("oversea":true,"grade":2,"dualChannelType":2})");

    gameJson.erase("super");
    answer["dual_channel"] = "udp";
    game = build()["game"];
    EXPECT_TRUE(game["zoneGameSuperGid"].is_null());
    EXPECT_EQ(game["dualChannelType"], 1);
    auto bridge = decode<BridgeGame>(game);
    EXPECT_EQ(bridge->gid, "g-100");
    EXPECT_TRUE(bridge->oversea);
    EXPECT_EQ(bridge->grade, 2u);
}

TEST_F(BuilderTest, RelayEntriesCarryFourteenKeysWithPortDefaults) {
    answer["acc"][1]["ip"] = "";
    auto relays = build()["socksInfos"];
    ASSERT_EQ(relays.size(), 2u);  // the node without an address gives none

    EXPECT_EQ(relays[0].dump(),
              R"({"ip":"127.0.0.1","port":30001,"tlsPort":30443,"netaskPort":9999,)"
              R"("username":"user-7","password":"c0de","sniIP":"sni.example.net","sniPort":443,)"
              R"("sniCryptType":1,"accIdentifier":"hk-01","requestDualChannelType":2,)"
              R"("delay":0.0,"rearDelay":12,"chartRearDelay":14})");
    const Json& bare = relays[1];
    EXPECT_EQ(bare["accIdentifier"], "jp-01");
    EXPECT_EQ(bare["tlsPort"], 0);
    EXPECT_EQ(bare["netaskPort"], 1081);
    for (const char* key : {"sniIP", "sniPort", "sniCryptType", "rearDelay", "chartRearDelay"})
        EXPECT_TRUE(bare[key].is_null()) << key;

    adjust = [](VPNStartOptionsArguments& args) { args.accNodes[2]->delay = 21.5; };
    EXPECT_EQ(build()["socksInfos"][1]["delay"], 21.5);
}

TEST_F(BuilderTest, AccountWithoutEitherCredentialGivesNoRelays) {
    for (const char* key : {"account", "gacc_code"}) {
        answer = readSample("acc.json");
        answer["account"][key] = "";
        auto dictionary = build();
        EXPECT_EQ(dictionary["socksInfos"], Json::array()) << key;
        EXPECT_EQ(dictionary["accNodes"].size(), 3u) << key;  // the build goes on
    }
    answer = readSample("acc.json");
    answer["account"].erase("gacc_code");
    EXPECT_EQ(build()["socksInfos"], Json::array());
}

TEST_F(BuilderTest, WebviewRulesNeverReachTheTunnel) {
    auto dictionary = build();
    ASSERT_EQ(dictionary["hosts"].size(), 2u);
    EXPECT_EQ(dictionary["hosts"][0]["domain"], "\\.game\\.example$");
    EXPECT_EQ(dictionary["hosts"][1]["domain"], "cdn");
    ASSERT_EQ(dictionary["routeDomains"].size(), 1u);
    EXPECT_EQ(dictionary["routeDomains"][0]["dns_server"], "8.8.4.4");

    for (auto& rule : answer["hosts"])
        rule["webview_boost"] = true;
    for (auto& rule : answer["route_domains"])
        rule["webview_boost"] = 1;
    dictionary = build();
    EXPECT_EQ(dictionary["hosts"], Json::array());
    EXPECT_EQ(dictionary["routeDomains"], Json::array());
}

TEST_F(BuilderTest, RegionLockTravelsOnlyWhenComplete) {
    EXPECT_EQ(build()["autoRegionLockConfig"]["mode"], "topN");

    const std::vector<std::pair<const char*, Json>> incomplete{
        {"mode", "manual"},
        {"all_game_regions", Json::array()},
        {"all_game_ips", Json::array()},
        {"ban_list_extra_config_list", Json::array()},
    };
    for (const auto& [key, value] : incomplete) {
        answer = readSample("acc.json");
        answer["auto_region_lock_config"][key] = value;
        EXPECT_TRUE(build()["autoRegionLockConfig"].is_null()) << key;
    }
    answer.erase("auto_region_lock_config");
    EXPECT_TRUE(build()["autoRegionLockConfig"].is_null());
}

TEST_F(BuilderTest, GRPConfigNeedsTheSwitch) {
    EXPECT_TRUE(build()["grpConfig"].is_null());
    adjust = [](VPNStartOptionsArguments& args) { args.enableGRP = true; };
    auto grp = build()["grpConfig"];
    EXPECT_EQ(grp["enable"], true);
    EXPECT_FLOAT_EQ(grp["grp_min_loss"].get<float>(), 0.05f);
    answer.erase("grp_config");
    EXPECT_TRUE(build()["grpConfig"].is_null());
}

TEST_F(BuilderTest, DefaultsReplaceMissingOrNonPositiveValues) {
    auto dictionary = build();
    EXPECT_EQ(dictionary["vpnBufferDuration"].dump(), "3600");  // the integer default
    EXPECT_EQ(dictionary["keepaliveTimeInterval"], 30);
    EXPECT_TRUE(dictionary["udpSocketSendBuffer"].is_null());  // 0 in the answer
    EXPECT_EQ(dictionary["udpSocketRecvBuffer"], 262144);

    for (double duration : {0.0, -5.0}) {
        adjust = [duration](VPNStartOptionsArguments& args) { args.vpnBufferDuration = duration; };
        EXPECT_EQ(build()["vpnBufferDuration"].dump(), "3600") << duration;
    }
    adjust = [](VPNStartOptionsArguments& args) { args.vpnBufferDuration = 0.5; };
    EXPECT_EQ(build()["vpnBufferDuration"], 0.5);

    answer["config"]["keep_alive_duration"] = -1000;
    answer["config"]["udp_socket_send_buffer"] = 1;
    answer["config"].erase("route_domain_dns");
    answer["config"].erase("mtu");
    answer.erase("net_to_ping_ips");
    dictionary = build();
    EXPECT_EQ(dictionary["keepaliveTimeInterval"].dump(), "0");
    EXPECT_EQ(dictionary["udpSocketSendBuffer"], 1);
    EXPECT_EQ(dictionary["remoteDNSServerAddress"], "");
    EXPECT_TRUE(dictionary["mtu"].is_null());
    EXPECT_TRUE(dictionary["netToPingIPs"].is_null());

    // A keep-alive below one second has no whole seconds and counts as none.
    answer["config"]["keep_alive_duration"] = 500;
    EXPECT_EQ(build()["keepaliveTimeInterval"].dump(), "0");
}

TEST_F(BuilderTest, EmptyOrMissingListsBecomeEmptyArrays) {
    for (const char* key : {"ip_port_hijack", "route", "port_blacklist", "banlist",
                            "tcpip_over_udp_port_range", "multi_path_acc"})
        answer.erase(key);
    answer["config"]["dns"] = Json::array();
    auto dictionary = build();
    for (const char* key :
         {"ipPortHijacks", "routes", "blackListPorts", "tcpBanList", "regionPacketBanList",
          "tcpIpOverUdpPortRange", "multipathNodes", "dnsList", "domainRegexBlacklist"})
        EXPECT_EQ(dictionary[key], Json::array()) << key;
    EXPECT_TRUE(dictionary["directRTTs"].is_null());
    EXPECT_TRUE(dictionary["domainBlacklist"].is_null());
    EXPECT_TRUE(dictionary["ipDataPath"].is_null());
}

TEST_F(BuilderTest, PassesTheCallersArgumentsThrough) {
    adjust = [](VPNStartOptionsArguments& args) {
        args.directRTTs = std::map<std::string, Json>{{"hk", 12.5}, {"jp", 40}};
        args.ipDataPath = "/var/ipdata.bin";
        args.domainBlacklist = std::vector<std::string>{"apple.com"};
        args.domainRegexBlacklist = {*RegularExpression::compile("^ads\\."),
                                     *RegularExpression::compile("tracker")};
        args.delayMode = 1;
        args.enableTCPEncryption = true;
        args.enableFDTUNReadMode = true;
        args.fallbackToUserDefaultsSync = true;
    };
    auto dictionary = build();
    EXPECT_EQ(dictionary["directRTTs"].dump(), R"({"hk":12.5,"jp":40})");
    EXPECT_EQ(dictionary["ipDataPath"], "/var/ipdata.bin");
    EXPECT_EQ(dictionary["domainBlacklist"], Json::array({"apple.com"}));
    EXPECT_EQ(dictionary["domainRegexBlacklist"], Json::array({"^ads\\.", "tracker"}));
    EXPECT_EQ(dictionary["delayMode"], 1);
    EXPECT_EQ(dictionary["enableTCPEncryption"], true);
    EXPECT_EQ(dictionary["enableDualChannel"], false);
    EXPECT_EQ(dictionary["enableFDTUNReadMode"], true);
    EXPECT_EQ(dictionary["fallbackToUserDefaultsSync"], true);
    EXPECT_EQ(dictionary["mainlinkUseTLS"], false);
}

TEST_F(BuilderTest, BanListsKeepEachTypesRulesInOrder) {
    auto acc = decode<AccAPIResponseObject>(answer);
    auto tcp = filterBanList(*acc, kBanListTCP);
    ASSERT_EQ(tcp.size(), 2u);
    EXPECT_EQ(tcp[0], acc->banlist->at(0));
    EXPECT_EQ(tcp[1], acc->banlist->at(3));
    EXPECT_EQ(filterBanList(*acc, kBanListRegionPacket).size(), 1u);
    EXPECT_TRUE(filterBanList(*acc, 5).empty());
    EXPECT_TRUE(filterBanList(AccAPIResponseObject{}, kBanListTCP).empty());

    auto dictionary = build();
    EXPECT_EQ(dictionary["tcpBanList"].size(), 2u);
    EXPECT_EQ(dictionary["tcpBanList"][1]["ip"], "10.0.2.0");
    EXPECT_EQ(dictionary["udpBanList"][0]["ip"], "10.0.1.0");
    EXPECT_EQ(dictionary["icmpBanList"][0]["protocol"], "icmp");
    EXPECT_EQ(dictionary["domainBanList"][0]["domain"], "ads\\.example");
    EXPECT_EQ(dictionary["regionPacketBanList"][0]["packet_pattern"], "ff00");

    // A rule for a protocol outside the five reaches no list, least of all the tcp one.
    answer["banlist"].push_back(Json::parse(R"({"protocol":"sctp","ip":"10.0.9.0"})"));
    answer["banlist"].push_back(Json::parse(R"({"protocol":0,"ip":"10.0.9.1"})"));
    dictionary = build();
    EXPECT_EQ(dictionary["tcpBanList"].size(), 2u);
    std::size_t total = 0;
    for (const char* list :
         {"tcpBanList", "udpBanList", "icmpBanList", "domainBanList", "regionPacketBanList"})
        total += dictionary[list].size();
    EXPECT_EQ(total, 6u);
}

TEST_F(BuilderTest, FailedConversionLogsTheDictionaryAndReportsTheError) {
    auto dictionary = build();
    dictionary["account"] = "not a record";
    log::Capture capture;
    Error error;
    EXPECT_EQ(VPNStartOptionsBuilder::optionsFromDictionary(dictionary, &error), nullptr);
    EXPECT_EQ(error.domain, kJSONAdapterErrorDomain);
    EXPECT_NE(error.localizedDescription().find("account"), std::string::npos);

    auto messages = capture.messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].message,
              "VPNStartOptions dict:" + dictionary.dump() + ", converting to model error");
    EXPECT_EQ(messages[0].flag, log::kError);
    EXPECT_EQ(messages[0].line, 269u);
    EXPECT_EQ(messages[0].file, "VPNStartOptions");
}

// What the app sends is what the tunnel reads: build, write the request text, decode it as the
// tunnel's options.
TEST_F(BuilderTest, RoundTripsThroughTheStartRequest) {
    adjust = [](VPNStartOptionsArguments& args) {
        args.enableGRP = true;
        args.domainRegexBlacklist = {*RegularExpression::compile("tracker")};
        args.directRTTs = std::map<std::string, Json>{{"hk", 12.5}};
    };
    Error error;
    auto built = VPNStartOptionsBuilder::optionsWithGame(arguments(), &error);
    ASSERT_TRUE(built) << error.localizedDescription();
    auto text = VPNStartOptionsTransport::encode(*built, &error);
    ASSERT_TRUE(text) << error.localizedDescription();

    auto tunnel = VPNStartOptionsTransport::decode(*text, &error);
    ASSERT_TRUE(tunnel) << error.localizedDescription();
    ASSERT_TRUE(tunnel->socksInfos);
    ASSERT_EQ(tunnel->socksInfos->size(), 3u);
    const auto& relay = *tunnel->socksInfos->at(0);
    EXPECT_EQ(relay.identifier(), "127.0.0.1:30001");
    EXPECT_EQ(relay.tcpEncryptMethod, "XOR");  // never written by the app, defaulted on arrival
    EXPECT_EQ(relay.requestDualChannelType, 2u);
    EXPECT_EQ(tunnel->pickAccNodeFromSocksInfo(relay)->identifier, "hk-01");
    EXPECT_EQ(tunnel->uniqueAcceleratedIpFromHosts(),
              (std::set<std::string>{"198.51.100.1", "198.51.100.2"}));
    EXPECT_TRUE(tunnel->matchDomainRegexOfBlacklist(std::string("cdn.Tracker.net")));
    ASSERT_TRUE(tunnel->autoRegionLockConfig);
    EXPECT_EQ(tunnel->autoRegionLockConfig->banListExtraConfigList->size(), 1u);
    EXPECT_EQ(tunnel->keepaliveTimeInterval, Number(30));
    EXPECT_EQ(tunnel->vpnBufferDuration, 3600.0);
    EXPECT_EQ(tunnel->udpSocketRecvBuffer, Number(262144));
    EXPECT_FALSE(tunnel->udpSocketSendBuffer);
    ASSERT_TRUE(tunnel->directRTTs);
    EXPECT_EQ(tunnel->directRTTs->at("hk"), 12.5);

    // The tunnel's record writes back the same 43 keys the app sent it.
    Json sent = Json::parse(*text);
    auto back = tunnel->toJSONDictionary();
    ASSERT_TRUE(back);
    EXPECT_EQ(back->size(), 43u);
    for (const auto& [key, value] : back->items())
        EXPECT_EQ(value, sent[key]) << key;

    // The app-side record keeps its three own keys through the same text.
    auto full = JSONAdapter::modelOfClass<VPNStartOptions>(sent);
    ASSERT_TRUE(full && full->grpConfig);
    EXPECT_TRUE(full->grpConfig->enable);
    EXPECT_EQ(full->mtu, 1400u);
}

TEST(VPNStartOptionsTransport, BadRequestTextIsAnErrorAndATunnelLogLine) {
    log::Capture capture;
    Error error;
    EXPECT_EQ(VPNStartOptionsTransport::decode(std::string_view("{\"game\":"), &error), nullptr);
    EXPECT_EQ(error.domain, kJSONAdapterErrorDomain);
    EXPECT_EQ(
        VPNStartOptionsTransport::decode(std::string_view(R"({"socksInfos":{"ip":1}})"), &error),
        nullptr);
    EXPECT_NE(error.localizedDescription().find("socksInfos"), std::string::npos);
    auto messages = capture.messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[1].stream, log::Stream::Tunnel);
    EXPECT_EQ(messages[1].message.rfind("[VPNSimpleStartOptions] ", 0), 0u);
}

}  // namespace
}  // namespace lmkit

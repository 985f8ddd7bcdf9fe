#include "lmkit/models/AccAPIResponseObject.hpp"

#include <gtest/gtest.h>

#include "lmkit/models/APIResponses.hpp"
#include "lmkit/models/ConfigAPIResponseObject.hpp"
#include "lmkit/models/StartupConfig.hpp"

namespace lmkit {
namespace {

TEST(AccAPIResponseObject, ConfigKeyPathsConvertersAndRoundTrip) {
    auto answer = JSONAdapter::modelOfClass<AccAPIResponseObject>(Json::parse(R"({
        "account":{"account":"u","gacc_code":"p"},
        "acc":[{"id":"a","ip":"1.1.1.1","port":1},{"id":"b"}],
        "config":{"mtu":1400,"keep_alive_duration":15000,"mainlink_login_timeout":2500,
                  "dns":["8.8.8.8"]},
        "dual_channel":"tcp_and_udp","clipboard_url_regexp":"https?://",
        "game_region_echo":{"hk":{"ip":"h","port":9},"jp":5,"sg":{"ip":"s"}},
        "multi_path_acc":[{"ip":"m"}],"game_ping":{"ip":"g","port":7}})"));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->mtu->intValue(), 1400);
    EXPECT_EQ(answer->keepaliveTimeInterval, 15.0);
    EXPECT_EQ(answer->mainlinkLoginTimeout, 2.5);
    EXPECT_EQ(answer->dualChannelType, 2u);
    EXPECT_EQ(*answer->account->password, "p");
    EXPECT_EQ(answer->accNodes->size(), 2u);
    EXPECT_EQ(*(*answer->multipathNodes)[0]->ip, "m");
    EXPECT_TRUE(answer->clipboardURLRegularExpression->matchInString("see HTTP://x"));
    // The walk stops at the first entry that does not map, keeping the ones before it.
    ASSERT_EQ(answer->gameRegionEchos->size(), 1u);
    EXPECT_EQ(answer->gameRegionEchos->at("hk")->port, 9);

    auto json = *answer->toJSONDictionary();
    EXPECT_EQ(json["config"]["keep_alive_duration"].get<double>(), 15000.0);
    EXPECT_EQ(json["config"]["dns"][0], "8.8.8.8");
    EXPECT_EQ(json["dual_channel"], "tcp_and_udp");
    auto again = JSONAdapter::modelOfClass<AccAPIResponseObject>(json);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->toJSONDictionary()->dump(), json.dump());

    auto bare = JSONAdapter::modelOfClass<AccAPIResponseObject>(
        Json::parse(R"({"dual_channel":5,"acc":[]})"));
    EXPECT_FALSE(bare->mtu);
    EXPECT_FALSE(bare->dnsList);
    EXPECT_EQ(bare->keepaliveTimeInterval, 0);
    EXPECT_EQ(bare->dualChannelType, 0u);
    EXPECT_TRUE(bare->accNodes && bare->accNodes->empty());
    EXPECT_FALSE(bare->hosts);
    bare->dualChannelType = 7;
    EXPECT_EQ((*bare->toJSONDictionary())["dual_channel"], "off");
}

TEST(AccAPIResponseObject, ANestedRecordThatIsNoObjectFailsTheAnswer) {
    Error error;
    EXPECT_FALSE(JSONAdapter::modelOfClass<AccAPIResponseObject>(
        Json::parse(R"({"acc":[{"ip":"1"},"2"]})"), &error));
    EXPECT_EQ(error.localizedDescription(),
              "accNodes: element 1: expected a JSON object, got a string");
    EXPECT_FALSE(JSONAdapter::modelOfClass<AccAPIResponseObject>(
        Json::parse(R"({"multi_path_config":{"tcp_whitelist":[1]}})"), &error));

    // The second path's nodes have their own converter: a malformed element is left out, the
    // answer and the other nodes stay; a value that is no list is kept as it stands.
    auto acc = JSONAdapter::modelOfClass<AccAPIResponseObject>(Json::parse(
        R"({"multi_path_acc":[{"id":"a"},"b",{"id":"c","ip":[1]},{"id":"d"}],"mtu":1400})"));
    ASSERT_TRUE(acc);
    ASSERT_EQ(acc->multipathNodes->size(), 3u);
    EXPECT_EQ(acc->multipathNodes->at(2)->identifier, "d");
    acc = JSONAdapter::modelOfClass<AccAPIResponseObject>(
        Json::parse(R"({"multi_path_acc":{"id":"a"}})"));
    ASSERT_TRUE(acc);
    EXPECT_FALSE(acc->multipathNodes);
    EXPECT_EQ((*acc->toJSONDictionary())["multi_path_acc"], Json::parse(R"({"id":"a"})"));
}

TEST(StartupConfig, SwitchesAndStrategy) {
    auto config = JSONAdapter::modelOfClass<StartupConfig>(Json::parse(R"({
        "select_node_strategy":"min","grayscale_switch":{"mainlink_use_tls":true,"other":1},
        "network_condition_level":[{"level":1,"max":100,"min":0}],
        "wiki_urls":{"vpn_auth_failed_guide":"https://w"},"splash_screen":[{"any":1}]})"));
    ASSERT_TRUE(config);
    EXPECT_EQ(config->delayMode, 1);
    EXPECT_TRUE(config->mainlinkUseTLS);
    EXPECT_FALSE(config->forceMainlinkTLS);
    EXPECT_EQ((*config->grayScaleSwitch)["other"], 1);
    EXPECT_EQ(*config->wikiURLConfiguration->vpnAuthFailedGuideUrl, "https://w");
    EXPECT_EQ((*config->networkConditionLevels)[0]->max->intValue(), 100);
    auto json = *config->toJSONDictionary();
    EXPECT_EQ(json["select_node_strategy"], "min");
    EXPECT_EQ(json["grayscale_switch"]["other"], 1);
    EXPECT_EQ(json["grayscale_switch"]["mainlink_use_tls"], true);
    EXPECT_EQ(json["splash_screen"][0]["any"], 1);

    auto avg =
        JSONAdapter::modelOfClass<StartupConfig>(Json::parse(R"({"select_node_strategy":"avg"})"));
    EXPECT_EQ(avg->delayMode, 0);
}

TEST(ConfigAPIResponseObject, NestedConfigAndConverters) {
    auto config = JSONAdapter::modelOfClass<ConfigAPIResponseObject>(Json::parse(R"({
        "config":{"ping":500},"enable_new_loss_score":true,
        "domain_regex_black_list":["ads\\.", "("],"buffer_time_before_vpn_disconnect":1500,
        "show_download":{"homeland":true},"ui_config":{"type":2,"discord":"d"}})"));
    ASSERT_TRUE(config);
    EXPECT_EQ(config->accConfig->ping->intValue(), 500);
    EXPECT_TRUE(config->enableNewLossScore);
    ASSERT_EQ(config->domainRegexBlacklist->size(), 1u);
    EXPECT_TRUE((*config->domainRegexBlacklist)[0].matchInString("x.ADS.y"));
    EXPECT_EQ(config->vpnBufferDuration->doubleValue(), 1.5);
    EXPECT_TRUE(config->showDownload->homelandShowDownload);
    EXPECT_EQ(config->uiConfig->strategy->intValue(), 2);

    auto list = JSONAdapter::modelOfClass<GameSearchAPIResponse>(
        Json::parse(R"({"keyword":"k","list":[{"gid":"1"},{"gid":"2"}]})"));
    EXPECT_EQ(list->games->size(), 2u);
    auto version = JSONAdapter::modelOfClass<AppVersionModel>(
        Json::parse(R"({"current_version":"2.0","min_support_version":"1.0"})"));
    EXPECT_EQ(version->minSupportVersion, "1.0");
}

}  // namespace
}  // namespace lmkit

#include "lmkit/models/AccNode.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "lmkit/models/AccRoute.hpp"
#include "lmkit/models/NodeInfo.hpp"
#include "support/RecordDecoding.hpp"

namespace lmkit {
namespace {

using lmkit::testing::decode;

TEST(AccNode, MapsItsTwentyKeysAndNeverTheProbeStatistics) {
    auto n =
        decode<AccNode>(R"({"id":"n1","ip":"10.0.0.1","port":443,"tls_port":8443,"netask_port":9999,
        "ping_server":"p.example","operator_ip":[{"key":["46000","46002"],"value":"1.1.1.1"},
        {"key":["46002"],"value":"2.2.2.2"}],"sni_ip":"","sni_port":1,"sni_crypt":2,"total":100,
        "online":10,"weight":50,"rear_delay":12,"chart_rear_delay":13,"delay":35.5,
        "delayScore":1,"lossScore":2,"loadScore":3,"ispScore":4,"loss":0.5,"minDelay":9})");
    EXPECT_EQ(n->netaskPort->intValue(), 9999);
    EXPECT_EQ(n->delay, 35.5);
    EXPECT_EQ(n->loss, 0);
    EXPECT_EQ(n->minDelay, 0);
    EXPECT_EQ(n->score(), 10);
    EXPECT_FALSE(n->hasSniIP());
    EXPECT_EQ(n->ipForCarrierTypeCode("46002"), "1.1.1.1");
    EXPECT_FALSE(n->ipForCarrierTypeCode(""));
    EXPECT_FALSE(n->ipForCarrierTypeCode("1"));

    n->loss = 0.25;
    n->avgDelay = 40;
    auto json = *n->toJSONDictionary();
    EXPECT_EQ(json.size(), 20u);
    EXPECT_FALSE(json.contains("loss"));
    EXPECT_FALSE(json.contains("avgDelay"));
    EXPECT_EQ(json["port"].dump(), "443");
    EXPECT_EQ(json["operator_ip"][0]["key"][1], "46002");
}

TEST(AccNode, CurrentCarrierCodeComesFromTheProvider) {
    auto n = decode<AccNode>(R"({"operator_ip":[{"key":["46001"],"value":"3.3.3.3"}]})");
    EXPECT_FALSE(n->ipForCurrentCarrierTypeCode());
    AccNode::setCarrierTypeCodeProvider([] { return std::optional<std::string>("46001"); });
    EXPECT_EQ(n->ipForCurrentCarrierTypeCode(), "3.3.3.3");
    AccNode::setCarrierTypeCodeProvider(nullptr);
    EXPECT_FALSE(n->ipForCurrentCarrierTypeCode());
}

TEST(AccNode, SafePingServerAndDescription) {
    auto n = decode<AccNode>(R"({"ip":"10.0.0.1","ping_server":"","port":443,"total":5})");
    EXPECT_EQ(n->safePingServer(), "10.0.0.1");
    EXPECT_EQ(decode<AccNode>(R"({"ip":"","ping_server":""})")->safePingServer(), "");
    EXPECT_EQ(decode<AccNode>("{}")->safePingServer(), "");
    n->delayScore = 1.005;
    n->delay = 12.345;
    EXPECT_EQ(n->description(),
              "[10.0.0.1:443](1.00) ping_server: netask_port:null rear_delay:(null) "
              "chart_rear_delay:(null) total_count:5 online_count:(null) isp_weight:(null) "
              "[loss](0.00) [delay](12.35 avg:0.00 min:0.00 max:0.00) "
              "[score](delay:1.00 loss:0.00 load:0.00 isp:0.00)");
    EXPECT_NE(decode<AccNode>(R"({"ip":"a"})")->description().find("ping_server:null "),
              std::string::npos);
}

TEST(AccNode, PartialScores) {
    auto config = AccConfig::defaultConfig();
    ASSERT_TRUE(config);
    EXPECT_EQ(AccNode::computeScoreOfDelay(Number(0), config).doubleValue(), 0);
    EXPECT_EQ(AccNode::computeScoreOfDelay(std::nullopt, config).doubleValue(), 0);
    EXPECT_EQ(AccNode::computeScoreOfDelay(Number(600), config).doubleValue(), 0);
    EXPECT_EQ(AccNode::computeScoreOfDelay(Number(601), config).doubleValue(), 0);
    EXPECT_EQ(AccNode::computeScoreOfDelay(Number(100), config).doubleValue(), 500);
    EXPECT_EQ(
        AccNode::computeScoreOfDelay(Number(100), std::make_shared<AccConfig>()).doubleValue(), 0);

    EXPECT_EQ(AccNode::computeScoreOfLoss(Number(0.25), config).doubleValue(), 75);
    EXPECT_EQ(AccNode::computeScoreOfLoss(Number(1.5), config).doubleValue(), 0);
    EXPECT_EQ(AccNode::computeScoreOfLoss(Number(-0.1), config).doubleValue(), 0);
    EXPECT_DOUBLE_EQ(AccNode::computeScoreOfLoss(Number(0.25), config, true).doubleValue(), 537.5);
    EXPECT_EQ(AccNode::computeScoreOfLoss(Number(0.8), config, true).doubleValue(), 0);

    auto n = decode<AccNode>(R"({"weight":50,"total":100,"online":79})");
    EXPECT_EQ(n->computeScoreOfISPReferToAccConfig(config).doubleValue(), 50);
    EXPECT_EQ(n->computeScoreOfLoadReferToAccConfig(config).doubleValue(), 200);
    n->onlineCount = Number(90);  // halfway between 80 and 100
    EXPECT_DOUBLE_EQ(n->computeScoreOfLoadReferToAccConfig(config).doubleValue(), 100);
    n->onlineCount = Number(100);
    EXPECT_EQ(n->computeScoreOfLoadReferToAccConfig(config).doubleValue(), 0);
    n->onlineCount = Number(101);
    EXPECT_EQ(n->computeScoreOfLoadReferToAccConfig(config).doubleValue(), 0);
    auto empty = decode<AccNode>(R"({"total":0,"online":0})");
    EXPECT_EQ(empty->computeScoreOfLoadReferToAccConfig(config).doubleValue(), 0);
}

TEST(AccRoute, MatchesUnderItsMask) {
    auto route = [](const char* ip, const char* mask) {
        AccRoute r;
        r.ip = ip;
        r.mask = mask;
        return r;
    };
    std::uint32_t address = inet_addr("10.1.2.3");
    EXPECT_TRUE(route("0.0.0.0", "0.0.0.0").isMatch(address));
    EXPECT_FALSE(route("10.0.0.0", "0.0.0.0").isMatch(address));
    EXPECT_TRUE(route("10.1.0.0", "255.255.0.0").isMatch(address));
    EXPECT_FALSE(route("10.2.0.0", "255.255.0.0").isMatch(address));
}

TEST(NodeInfo, GettersNormaliseAndTheJsonFormFollows) {
    NodeInfo info;
    EXPECT_EQ(info.ip, "");
    info.setDelay(Number(12.5));
    info.setLoss(Number(0.999));
    info.setDeviation(Number(-2.5));
    EXPECT_EQ(info.delay().doubleValue(), 13);
    EXPECT_EQ(info.loss().doubleValue(), 0.99);
    EXPECT_EQ(info.deviation().doubleValue(), -3);
    auto json = *info.toJSONDictionary();
    EXPECT_EQ(json["ping"].get<double>(), 13);
    EXPECT_EQ(json["loss"].get<double>(), 0.99);
    auto back = JSONAdapter::modelOfClass<NodeInfo>(Json::parse(R"({"ip":"x","loss":0.4567})"));
    EXPECT_EQ(back->loss().doubleValue(), 0.45);
    EXPECT_EQ(back->delay().doubleValue(), 0);
}

}  // namespace
}  // namespace lmkit

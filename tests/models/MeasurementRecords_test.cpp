#include <fstream>

#include <gtest/gtest.h>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/models/NetspeedTask.hpp"
#include "lmkit/models/PublicIP.hpp"
#include "lmkit/models/QosConfig.hpp"
#include "lmkit/models/SpeedometerResult.hpp"
#include "lmkit/models/UnstableNetworkConfig.hpp"
#include "lmkit/models/VPNMessageDelayQuery.hpp"
#include "support/AppGroupTest.hpp"
#include "support/RecordDecoding.hpp"

namespace lmkit {
namespace {

using lmkit::testing::decode;

TEST(UnstableNetworkConfig, IntervalTravelsInMillisecondsAndIsHeldInSeconds) {
    auto config = decode<UnstableNetworkConfig>(R"({"interval":1500,"loss":0.3,"deviation":10})");
    ASSERT_TRUE(config);
    EXPECT_DOUBLE_EQ(config->interval->doubleValue(), 1.5);
    EXPECT_DOUBLE_EQ(config->loss->doubleValue(), 0.3);
    EXPECT_TRUE(config->deviation->isInteger());
    auto back = config->toJSONDictionary();
    ASSERT_TRUE(back);
    EXPECT_DOUBLE_EQ((*back)["interval"].get<double>(), 1500.0);
    EXPECT_EQ((*back)["deviation"], 10);

    auto partial = decode<UnstableNetworkConfig>(R"({"interval":"fast","loss":null})");
    ASSERT_TRUE(partial);
    EXPECT_FALSE(partial->interval);
    EXPECT_FALSE(partial->loss);
    EXPECT_FALSE(partial->deviation);
    // A text is no interval: it is kept as it stands and written back unchanged.
    EXPECT_EQ((*partial->toJSONDictionary())["interval"], "fast");
}

TEST(QosConfig, VerdictsAddressesAndIdentifierKind) {
    const char* text = R"({"qos_result":"phone_needed","public_ip":"203.0.113.9",
        "url":"https://qos.example/apply","id":"q-77","available_duration":3600,
        "server":["198.51.100.1","198.51.100.2"],"speed_test_delay":50,
        "speed_test_interval":5})";
    auto config = decode<QosConfig>(text);
    ASSERT_TRUE(config);
    EXPECT_EQ(config->actionResult, QosActionResultPhoneNeeded);
    EXPECT_EQ(config->availableServerAddresses->size(), 2u);
    EXPECT_EQ(*config->identifier, "q-77");
    EXPECT_EQ(*config->toJSONDictionary(), Json::parse(text));

    for (auto [verdict, code] : std::vector<std::pair<std::string, std::uint64_t>>{
             {"success", 0}, {"failed", 1}, {"ip_not_support", 3}, {"no_needed", 4}}) {
        auto one = JSONAdapter::modelOfClass<QosConfig>(Json{{"qos_result", verdict}});
        ASSERT_TRUE(one);
        EXPECT_EQ(one->actionResult, code) << verdict;
    }

    auto numeric = decode<QosConfig>(R"({"id":42,"server":["a",1]})");
    ASSERT_TRUE(numeric);
    EXPECT_EQ(*numeric->identifier, 42);
    EXPECT_FALSE(numeric->availableServerAddresses);  // one non-text element: nil list

    QosConfig unknownCode;
    unknownCode.actionResult = 9;
    EXPECT_TRUE((*unknownCode.toJSONDictionary())["qos_result"].is_null());
}

// The service's document reads into the typed members (nothing is held as another kind) and
// writes back unchanged: every wire key, "seq" and "interval_time" among them, is right.
TEST(NetspeedTask, ResponseWithMachines) {
    const char* text = R"({"tasks":[{"type":1,"category":2,"machines":[{"host":"m1.example",
        "port":9999},{"host":"m2.example","port":null}],"seq":17,"protocol":"udp","rounds":3,
        "packets":20,"interval_time":0.2}]})";
    auto response = decode<NetspeedTaskResponse>(text);
    ASSERT_TRUE(response && response->tasks);
    const auto& task = *(*response->tasks)[0];
    EXPECT_TRUE(task.valuesOfOtherKind().empty());
    EXPECT_EQ(task.sequence->intValue(), 17);
    EXPECT_FALSE((*task.machines)[1]->port);
    EXPECT_EQ(*response->toJSONDictionary(), Json::parse(text));

    Error error;
    EXPECT_FALSE(JSONAdapter::modelOfClass<NetspeedTaskResponse>(
        Json::parse(R"({"tasks":[{"machines":"m1"}]})"), &error));
    EXPECT_FALSE(error.localizedDescription().empty());

    // A message answer without delays has none, which is not an empty list.
    EXPECT_FALSE(decode<VPNMessageDelayResponse>("{}")->delaysBefore);
}

TEST(PublicIP, AllThreeFieldsRequired) {
    PublicIP ip("203.0.113.5", "DE", true);
    auto back = PublicIP::fromJson(ip.toJson());
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, ip);

    Error error;
    EXPECT_FALSE(PublicIP::fromJson(Json::parse(R"({"ip":"1.2.3.4","region":"US"})"), &error));
    EXPECT_NE(error.localizedDescription().find("isEU"), std::string::npos);
    EXPECT_FALSE(
        PublicIP::fromJson(Json::parse(R"({"ip":"1.2.3.4","region":"US","isEU":1})"), &error));
    EXPECT_FALSE(PublicIP::fromJson(Json::array(), &error));
}

SpeedometerResult sampleResult(std::uint32_t seq) {
    return SpeedometerResult(seq, "speed.example", "198.51.100.4", std::nullopt, "10.0.0.1",
                             std::uint16_t{1080}, 10.0, 30.5, 20.0, {10.0, 30.5, 19.5}, 0.0, 8.25,
                             "en0", 1700000000123ull, std::nullopt, true);
}

TEST(SpeedometerResult, CodingRulesOfTheFields) {
    auto result = sampleResult(7);
    auto json = result.toJson();
    ASSERT_TRUE(json);
    EXPECT_FALSE(json->contains("proxyType"));  // nil optionals are left out
    EXPECT_FALSE(json->contains("traceroute"));
    EXPECT_EQ((*json)["proxyPort"], 1080);
    EXPECT_EQ((*json)["completeTime"], 1700000000123ull);
    auto back = SpeedometerResult::fromJson(*json);
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, result);

    Error error;
    auto tooBigPort = *json;
    tooBigPort["proxyPort"] = 70000;
    EXPECT_FALSE(SpeedometerResult::fromJson(tooBigPort, &error));
    EXPECT_NE(error.localizedDescription().find("proxyPort"), std::string::npos);
    auto fractionalSeq = *json;
    fractionalSeq["seq"] = 1.5;
    EXPECT_FALSE(SpeedometerResult::fromJson(fractionalSeq, &error));
    auto missingHost = *json;
    missingHost.erase("host");
    EXPECT_FALSE(SpeedometerResult::fromJson(missingHost, &error));
    auto nullOptional = *json;
    nullOptional["proxyIP"] = nullptr;
    auto relaxed = SpeedometerResult::fromJson(nullOptional);
    ASSERT_TRUE(relaxed);
    EXPECT_FALSE(relaxed->proxyIP);
    auto integerLatency = *json;
    integerLatency["latencies"] = Json::parse("[10, 20]");
    ASSERT_TRUE(SpeedometerResult::fromJson(integerLatency));

    auto broken = result;
    broken.jitter = std::numeric_limits<double>::quiet_NaN();
    EXPECT_FALSE(broken.toJson(&error));
}

TEST(SpeedometerResult, ResultsFileAppendsInOrderAndKeepsItWhenAWriteIsRefused) {
    testing::TempContainer dir;
    log::Capture capture;

    EXPECT_TRUE(SpeedometerResult::results().empty());
    EXPECT_FALSE(SpeedometerResult::data());
    ASSERT_TRUE(SpeedometerResult::append(sampleResult(1)));
    EXPECT_EQ(SpeedometerResult::url(), dir.path() / "Speedometer.results");
    auto stored = Json::parse(*SpeedometerResult::data());
    EXPECT_TRUE(stored.is_array());
    EXPECT_EQ(stored.size(), 1u);

    ASSERT_TRUE(SpeedometerResult::append(sampleResult(2)));
    ASSERT_TRUE(SpeedometerResult::append(sampleResult(3)));
    auto all = SpeedometerResult::results();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0].seq, 1u);
    EXPECT_EQ(all[2].seq, 3u);
    auto first2 = SpeedometerResult::results(2);
    ASSERT_EQ(first2.size(), 2u);
    EXPECT_EQ(first2[1].seq, 2u);
    EXPECT_EQ(SpeedometerResult::results(10).size(), 3u);

    auto broken = sampleResult(4);
    broken.avgLatency = std::numeric_limits<double>::infinity();
    EXPECT_FALSE(SpeedometerResult::append(broken));
    EXPECT_EQ(SpeedometerResult::results().size(), 3u);
    EXPECT_TRUE(capture.contains("[SpeedometerResult] Failed to append result: "));
    EXPECT_TRUE(capture.contains("[SpeedometerResult] Successfully appended a result"));

    {
        std::ofstream damaged(SpeedometerResult::url(), std::ios::trunc);
        damaged << "[{\"seq\":1}";
    }
    EXPECT_TRUE(SpeedometerResult::results().empty());
}

}  // namespace
}  // namespace lmkit

#include <algorithm>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "lmkit/testbed/EchoServer.hpp"
#include "lmkit/testbed/Socks5Relay.hpp"
#include "support/ToolCommandTest.hpp"

using namespace lmkit;

namespace {

class PingCommandsTest : public lmkit::testing::ToolCommandTest {
  protected:
    void SetUp() override {
        ToolCommandTest::SetUp();
        if (IsSkipped())
            return;
        echo_ = EchoServer::start({EchoEndpointConfig{"127.0.0.1", 0, {}}});
        ASSERT_TRUE(echo_);
        echoPort_ = std::to_string(echo_->endpoints()[0].port);
    }
    std::unique_ptr<EchoServer> echo_;
    std::string echoPort_;
};

}  // namespace

TEST_F(PingCommandsTest, PingPrintsEachReplyAndASummary) {
    int status = -1;
    auto out = run("ping 127.0.0.1:" + echoPort_ + " -c 3 -i 0", &status);
    ASSERT_EQ(status, 0) << out;
    EXPECT_NE(out.find("seq=0 time="), std::string::npos) << out;
    EXPECT_NE(out.find("seq=2 time="), std::string::npos) << out;
    EXPECT_NE(out.find("3 sent, 3 received, 0.0% loss"), std::string::npos) << out;
    EXPECT_NE(out.find("min/avg/max/deviation = "), std::string::npos) << out;

    auto json =
        nlohmann::json::parse(run("ping 127.0.0.1:" + echoPort_ + " -c 2 -i 0 --json", &status));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(json["received"], 2);
    EXPECT_EQ(json["rounds"].size(), 2u);
}

TEST_F(PingCommandsTest, FailuresAreOneLineWithDomainAndCode) {
    int status = -1;
    auto out = run("ping 127.0.0.1:70000", &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("the port must be 1 to 65535"), std::string::npos) << out;

    // Nobody answers on the relay's port once it is stopped.
    Socks5RelayConfig config;
    auto silent = Socks5Relay::start(config);
    ASSERT_TRUE(silent);
    auto deadPort = std::to_string(silent->endpoint().port);
    silent.reset();
    out = run("ping 127.0.0.1:" + deadPort + " -c 1 --timeout 0.2", &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("NodeSelectorErrorDomain 2"), std::string::npos) << out;

    out = run("ping 127.0.0.1:" + echoPort_ + " --interface cellular", &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("NodeSelectorErrorDomain 1"), std::string::npos) << out;

    out = run("proxy-test --proxy 127.0.0.1:" + deadPort +
                  " --token 1 --target 127.0.0.1:" + echoPort_ + " --count 2",
              &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("ProxySpeedTestErrorDomain 2"), std::string::npos) << out;
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;

    out = run("proxy-test --proxy 127.0.0.1:1080 --token 1 --target localhost:9", &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("IPv4"), std::string::npos) << out;
}

TEST_F(PingCommandsTest, ProxyTestMeasuresThroughTheRelay) {
    Socks5RelayConfig config;
    config.token = 99;
    auto relay = Socks5Relay::start(config);
    ASSERT_TRUE(relay);
    int status = -1;
    std::string proxy = "127.0.0.1:" + std::to_string(relay->endpoint().port);
    auto json = nlohmann::json::parse(run("proxy-test --proxy " + proxy +
                                              " --token 99 --target 127.0.0.1:" + echoPort_ +
                                              " --count 4 --interval 0.1 --json",
                                          &status));
    ASSERT_EQ(status, 0);
    EXPECT_EQ(json["loss"], 0);
    EXPECT_GT(json["avg_ms"].get<double>(), 0);
    EXPECT_EQ(relay->requestsForwarded(), 4u);
}

TEST_F(PingCommandsTest, SelectExplainsItsChoiceAndASeedRepeatsIt) {
    // Three nodes within the score gap on one endpoint's port: the choice is a random order.
    std::vector<EchoEndpointConfig> endpoints;
    for (const char* host : {"127.0.0.2", "127.0.0.3", "127.0.0.4"})
        endpoints.push_back({host, echo_->endpoints()[0].port, {}});
    auto more = EchoServer::start(endpoints);
    ASSERT_TRUE(more);
    auto nodes = dir_.path() / "nodes.json";
    std::ofstream(nodes) << R"([{"id":"a","ip":"127.0.0.2"},{"id":"b","ip":"127.0.0.3"},)"
                         << R"({"id":"c","ip":"127.0.0.4"}])";
    int status = -1;
    run("settings set ShareStorerKeyScoreRangeGap 1000", &status);
    ASSERT_EQ(status, 0);
    auto select = [&](const std::string& seed) {
        auto out = run("select " + nodes.string() + " --port " + echoPort_ +
                           " --explain --json --seed " + seed + " 2>/dev/null",
                       &status);
        EXPECT_EQ(status, 0) << out;
        return nlohmann::json::parse(out);
    };
    auto first = select("7"), again = select("7");
    ASSERT_EQ(first["nodes"].size(), 3u);
    EXPECT_EQ(first["explain"]["score_gap"], 1000.0);
    EXPECT_EQ(first["explain"]["draws"].size(), 2u);  // Fisher-Yates over three nodes
    // The same seed draws the same positions (the nodes at them follow the measured order).
    auto positions = [](const nlohmann::json& draws) {
        std::vector<std::string> kept;
        for (const auto& draw : draws)
            kept.push_back(
                std::regex_replace(draw.get<std::string>(), std::regex(R"( \([^)]*\))"), ""));
        return kept;
    };
    EXPECT_EQ(positions(first["explain"]["draws"]), positions(again["explain"]["draws"]));
    EXPECT_TRUE(first["explain"]["weights"].contains("ping"));
    EXPECT_TRUE(first["nodes"][0].contains("deviation"));

    auto text = run("select " + nodes.string() + " --port " + echoPort_ + " --explain", &status);
    EXPECT_EQ(status, 0);
    EXPECT_NE(text.find("score gap: 1000"), std::string::npos) << text;
    EXPECT_NE(text.find("random draw: within the score gap"), std::string::npos) << text;
}

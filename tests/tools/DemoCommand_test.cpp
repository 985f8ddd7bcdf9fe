// test-labels: slow system
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "lmkit/tunnel/WormholeManager.hpp"
#include "support/ToolCommandTest.hpp"

namespace fs = std::filesystem;

namespace {

class DemoCommandTest : public lmkit::testing::ToolCommandTest {
  protected:
    void SetUp() override {
        ToolCommandTest::SetUp();
        fs::create_directories(dir_.path() / "tmp");
    }
    // The demo makes its scratch app group under TMPDIR: the test's own directory shows what
    // it leaves behind.
    std::string run(const std::string& args, int* status) {
        return lmkit::testing::runCommand(
            "TMPDIR='" + (dir_.path() / "tmp").string() + "' " + tool("demo " + args), status);
    }
};

TEST_F(DemoCommandTest, JsonHasTheChoiceAndTheRoadThroughTheTunnel) {
    int status = -1;
    auto text = run("--json 2>" + (dir_.path() / "stderr").string(), &status);
    ASSERT_EQ(status, 0) << text;
    auto out = nlohmann::json::parse(text);  // one document, nothing else on standard output

    ASSERT_EQ(out["nodes"].size(), 40u);
    ASSERT_FALSE(out["chosen"].empty());
    const auto& road = out["road"];
    EXPECT_EQ(road["options"]["keys"], 46);
    EXPECT_EQ(road["options"]["nodes"], out["chosen"]);
    EXPECT_GT(road["options"]["bytes"].get<int>(), 1000);

    // The tunnel measured the chosen node's echo as the relay, the game server as the direct
    // path, and answered with samples of both.
    const std::string relay = road["relay"];
    EXPECT_EQ(relay.rfind("127.0.0.", 0), 0u) << relay;
    EXPECT_EQ(road["game_server"].get<std::string>().rfind("127.0.0.200:", 0), 0u);
    ASSERT_FALSE(road["direct_delays"].empty());
    ASSERT_FALSE(road["relay_delays"].empty());
    const double direct = road["direct_delay"];
    const double relayed = road["relay_delay"];
    // 90 ms injected on the game server; the best relay is far nearer even with its 15 ms.
    EXPECT_GE(direct, 85.0);
    EXPECT_LT(direct, 400.0);
    EXPECT_GE(relayed, 15.0);
    EXPECT_LT(relayed, direct);
    EXPECT_DOUBLE_EQ(road["benefit"].get<double>(), direct - relayed);

    // The tunnel stopped when asked (not killed), was reaped, and its app group removed.
    EXPECT_EQ(road["tunnel_exit_status"], 0);
    EXPECT_TRUE(fs::is_empty(dir_.path() / "tmp"));
    EXPECT_FALSE(fs::exists(dir_.path() / "group" / "Wormhole"));
}

TEST_F(DemoCommandTest, TunnelSideRefusesBadStartOptionsAndSaysWhyOnTheChannel) {
    // The hidden tunnel half measures nothing without usable start options: it tells the app
    // through the channel's tunnel status, and ends with 1.
    const fs::path group = dir_.path() / "group";
    fs::create_directories(group);
    auto tunnelError = [&] {
        auto status =
            lmkit::WormholeManager::create(group)->messageWithCmd(lmkit::kWormholeCmdTunnel);
        return status ? status->root.value(lmkit::kWormholeTunnelErrorKey, "") : "";
    };
    const std::string tunnel = "--tunnel-side '" + group.string() + "' --game-server ";
    int status = -1;
    auto out = run(tunnel + "127.0.0.200:9 2>&1", &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, "");  // its standard output is the app's
    EXPECT_NE(tunnelError().find("start-options.json"), std::string::npos) << tunnelError();

    std::ofstream(group / "start-options.json") << R"({"game": 5)";
    run(tunnel + "127.0.0.200:9 2>&1", &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(tunnelError().find("do not decode"), std::string::npos) << tunnelError();

    run(tunnel + "127.0.0.200 2>&1", &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(tunnelError().find("HOST:PORT"), std::string::npos) << tunnelError();

    auto help = run("--help", &status);
    EXPECT_EQ(status, 0);
    EXPECT_NE(help.find("--json"), std::string::npos) << help;
    EXPECT_EQ(help.find("tunnel-side"), std::string::npos) << help;
}

}  // namespace

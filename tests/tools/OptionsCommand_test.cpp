#include <algorithm>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/ToolCommandTest.hpp"

namespace {

const std::string kSamples = std::string(LMKIT_TEST_DATA_DIR) + "/start_options/";

class OptionsCommandTest : public lmkit::testing::ToolCommandTest {
  protected:
    std::string run(const std::string& args, int* status, bool withStderr = false) {
        return lmkit::testing::runCommand(
            tool("options " + args + (withStderr ? " 2>&1" : " 2>/dev/null")), status);
    }
    std::string built() { return (dir_.path() / "options.json").string(); }
};

TEST_F(OptionsCommandTest, BuildThenInspectAndMatchAsTheTunnel) {
    int status = -1;
    run("build --game " + kSamples + "game.json --acc " + kSamples + "acc.json --nodes " +
            kSamples +
            "nodes.json --enable-grp --domain-blacklist apple.com "
            "--domain-regex-blacklist '^ads\\.' --direct-rtt hk=12.5 -o " +
            built(),
        &status);
    ASSERT_EQ(status, 0);
    std::ifstream in(built());
    auto options = nlohmann::ordered_json::parse(in);
    EXPECT_EQ(options.size(), 46u);  // the builder's keys, checked with the builder
    ASSERT_EQ(options["socksInfos"].size(), 2u);
    EXPECT_EQ(options["socksInfos"][0]["accIdentifier"], "jp-01");  // the given order
    EXPECT_EQ(options["socksInfos"][0]["netaskPort"], 1081);
    EXPECT_EQ(options["grpConfig"]["enable"], true);
    EXPECT_EQ(options["directRTTs"]["hk"], 12.5);

    auto summary = nlohmann::json::parse(run("inspect --json " + built(), &status));
    ASSERT_EQ(status, 0);
    EXPECT_EQ(summary["relays"][1]["relay"], "127.0.0.1:30001");
    EXPECT_EQ(summary["relays"][1]["tcpEncryptMethod"], "XOR");
    EXPECT_EQ(summary["hosts"], 2);
    EXPECT_EQ(summary["banLists"]["tcp"], 2);
    // The answer's list of addresses reaches the tunnel's decoding as a list.
    EXPECT_EQ(summary["netToPingIPs"], nlohmann::json::parse(R"(["198.51.100.60"])"));

    auto domain =
        nlohmann::json::parse(run("match --json " + built() + " --domain ads.x", &status));
    ASSERT_EQ(status, 0);
    EXPECT_EQ(domain["blacklisted"], true);
    auto address = nlohmann::json::parse(
        run("match --json " + built() + " --ip 10.0.0.9 --port 443", &status));
    ASSERT_EQ(status, 0);
    EXPECT_EQ(address["tcpBan"]["port"], 443);
    EXPECT_TRUE(address["udpBan"].is_null());
    EXPECT_EQ(address["blackListPortUDP"], false);
}

TEST_F(OptionsCommandTest, BadInputIsOneLineAndExitOne) {
    int status = -1;
    auto out = run("build --game " + kSamples + "game.json --acc " + kSamples + "missing.json",
                   &status, true);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
    EXPECT_NE(out.find("missing.json"), std::string::npos) << out;

    std::ofstream(built()) << R"({"account":{"account":"u"},"acc":[]})";
    out = run("build --game " + kSamples + "game.json --acc " + built(), &status, true);
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("no acceleration node"), std::string::npos) << out;

    out = run("match " + kSamples + "acc.json --ip 1.2.3", &status, true);
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("not an IPv4 address"), std::string::npos) << out;

    std::ofstream(built()) << R"({"hosts":{"domain":1}})";
    out = run("inspect " + built(), &status, true);
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("hosts"), std::string::npos) << out;
}

}  // namespace

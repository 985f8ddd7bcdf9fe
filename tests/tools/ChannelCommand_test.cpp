// test-labels: system
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/ToolCommandTest.hpp"

namespace {

std::vector<nlohmann::json> jsonLines(const std::string& text) {
    std::vector<nlohmann::json> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        auto end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        if (end > start)
            lines.push_back(nlohmann::json::parse(text.substr(start, end - start), nullptr, false));
        start = end + 1;
    }
    return lines;
}

using ChannelCommandTest = lmkit::testing::ToolCommandTest;

}  // namespace

TEST_F(ChannelCommandTest, AListenerInAnotherShellPrintsWhatIsSent) {
    int status = -1;
    auto out = script(
        R"("$LMKIT" channel listen --count 2 --timeout 20 --json >out 2>err & pid=$!
for i in $(seq 200); do grep -q listening err && break; sleep 0.05; done
"$LMKIT" channel send network-change &&
"$LMKIT" channel send picked-node '{"ip":"10.9.8.7","port":443}' &&
wait $pid && cat out)",
        &status);
    ASSERT_EQ(status, 0) << out;
    auto lines = jsonLines(out);
    ASSERT_EQ(lines.size(), 2u) << out;
    EXPECT_EQ(lines[0]["cmd"], "WormholeCmdNetworkChange");
    EXPECT_EQ(lines[0]["object"], nlohmann::json::object());
    EXPECT_EQ(lines[1]["cmd"], "WormholeCmdPickedNode");
    EXPECT_EQ(lines[1]["class"], "SocksInfo");
    EXPECT_EQ(lines[1]["object"]["ip"], "10.9.8.7");
}

TEST_F(ChannelCommandTest, AQueryWaitsForItsAnswerAndStoredMessagesStayReadable) {
    int status = -1;
    auto out = script(
        R"("$LMKIT" channel send loss-query g7 --wait 20 --json >answer & pid=$!
for i in $(seq 200); do
  kill -0 $pid 2>/dev/null || break
  "$LMKIT" channel send loss-response 0.25 0.05 || exit 9
  sleep 0.05
done
wait $pid || exit 8
"$LMKIT" channel send tunnel --message up &&
cat answer && "$LMKIT" channel listen --current --timeout 0.01 --json 2>/dev/null)",
        &status);
    ASSERT_EQ(status, 0) << out;
    auto lines = jsonLines(out);
    ASSERT_EQ(lines.size(), 4u) << out;
    EXPECT_EQ(lines[0], (nlohmann::json{{"lossBefore", 0.25}, {"lossAfter", 0.05}}));
    EXPECT_EQ(lines[1]["cmd"], "WormholeCmdTunnel");
    EXPECT_EQ(lines[1]["object"]["WormholeTunnelMsgKey"], "up");
    EXPECT_EQ(lines[1]["object"]["WormholeTunnelErrorKey"], "");
    EXPECT_EQ(lines[2]["cmd"], "WormholeCmdLossQuery");
    EXPECT_EQ(lines[2]["object"]["gid"], "g7");
    EXPECT_EQ(lines[3]["cmd"], "WormholeCmdLossResponse");
    EXPECT_EQ(lines[3]["stored"], true);
}

TEST_F(ChannelCommandTest, FailuresAreOneLineAndExitOne) {
    struct Case {
        const char* args;
        const char* line;
    };
    const Case cases[] = {
        {"send picked-node '[1]'", "lmkit channel: SOCKSINFO must be a JSON object\n"},
        {"send delay-query g --wait 0.1", "lmkit channel: no delay response within 0.1 s\n"},
        {"listen --count 1 --timeout 0.1 2>err >/dev/null; s=$?; grep -v listening err; exit $s",
         "lmkit channel: 0 of 1 messages within 0.1 s\n"},
    };
    for (const auto& c : cases) {
        int status = -1;
        auto out = script(std::string("\"$LMKIT\" channel ") + c.args + " 2>&1", &status);
        EXPECT_EQ(status, 1) << c.args;
        EXPECT_EQ(out, c.line) << c.args;
    }
}

// test-labels: system
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <nlohmann/json.hpp>

#include "lmkit/testbed/EchoServer.hpp"
#include "support/ToolCommandTest.hpp"

using namespace lmkit;
using json = nlohmann::json;
using lmkit::testing::waitFor;
namespace fs = std::filesystem;

namespace {

class WatchCommandTest : public lmkit::testing::ToolCommandTest {
  protected:
    fs::path history() const { return dir_.path() / "history.sqlite"; }
};

std::vector<json> lines(const fs::path& file) {
    std::vector<json> parsed;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);)
        if (!line.empty() && line.front() == '{')
            parsed.push_back(json::parse(line));
    return parsed;
}

long lostRounds(const fs::path& history, const std::string& node) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(history.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    sqlite3_stmt* query = nullptr;
    sqlite3_prepare_v2(db, "SELECT COUNT(*) FROM samples WHERE node = ? AND loss = 1", -1, &query,
                       nullptr);
    sqlite3_bind_text(query, 1, node.c_str(), -1, SQLITE_TRANSIENT);
    long count = sqlite3_step(query) == SQLITE_ROW ? sqlite3_column_int64(query, 0) : -1;
    sqlite3_finalize(query);
    sqlite3_close(db);
    return count;
}

}  // namespace

TEST_F(WatchCommandTest, ANodeThatDiesIsLeftWithinTheSwitchRoundsAndTheOutageIsKept) {
    // The fast node on one server, the slower one on another: the first can die on its own.
    auto slow = EchoServer::start({EchoEndpointConfig{"127.0.0.3", 0, {0.010}}});
    ASSERT_TRUE(slow);
    const auto port = slow->endpoints()[0].port;
    auto fast = EchoServer::start({EchoEndpointConfig{"127.0.0.2", port, {0.001}}});
    ASSERT_TRUE(fast);
    const std::string a = "127.0.0.2:" + std::to_string(port);
    const std::string b = "127.0.0.3:" + std::to_string(port);
    const auto out = dir_.path() / "rounds.jsonl";
    const std::string watch =
        tool("watch " + a + " " + b + " --every 0.3 --timeout 0.2 " +
             "--switch-after 2 --json --history '" + history().string() + "'");
    std::thread watching(
        [&] { lmkit::testing::runCommand(watch + " --rounds 9 > '" + out.string() + "' 2>&1"); });
    ASSERT_TRUE(waitFor([&] { return lines(out).size() >= 3; }, 20));
    fast.reset();  // the chosen node dies
    watching.join();

    auto rounds = lines(out);
    ASSERT_EQ(rounds.size(), 9u);
    EXPECT_EQ(rounds[0]["chosen"], a);
    EXPECT_TRUE(rounds[0]["switched"]);
    std::size_t died = 0, switched = 0;
    for (std::size_t i = 1; i < rounds.size(); ++i) {
        if (!died && rounds[i]["chosen"] == a && rounds[i]["loss"] == 1.0)
            died = i;
        if (!switched && rounds[i]["switched"] == true)
            switched = i;
    }
    ASSERT_GT(died, 0u);
    ASSERT_GT(switched, died);
    EXPECT_LE(switched - died, 1u);  // the second lost round moves the choice
    EXPECT_EQ(rounds[switched]["chosen"], b);
    EXPECT_NE(rounds[switched]["reason"].get<std::string>().find(a + " scored 0"),
              std::string::npos);
    EXPECT_GE(lostRounds(history(), a), 2);

    // A restart continues the history and the choice.
    int status = -1;
    auto again = run("watch " + a + " " + b + " --every 0.1 --rounds 1 --json --history '" +
                         history().string() + "'",
                     &status);
    ASSERT_EQ(status, 0) << again;
    auto last = json::parse(again.substr(again.find('{')));
    EXPECT_EQ(last["chosen"], b);
    EXPECT_FALSE(last["switched"]);

    // The chart of that history: one panel per node, 960 pixels wide.
    auto chart = run(
        "chart '" + history().string() + "' --out '" + (dir_.path() / "chart.svg").string() + "'",
        &status);
    ASSERT_EQ(status, 0) << chart;
    if (lmkit::testing::runCommand("command -v rsvg-convert").empty())
        GTEST_SKIP() << "rsvg-convert (librsvg2-bin) is not installed: the SVG is not checked";
    auto png = dir_.path() / "chart.png";
    lmkit::testing::runCommand(
        "rsvg-convert '" + (dir_.path() / "chart.svg").string() + "' -o '" + png.string() + "'",
        &status);
    ASSERT_EQ(status, 0);
    std::ifstream in(png, std::ios::binary);
    unsigned char header[24] = {};
    in.read(reinterpret_cast<char*>(header), sizeof header);
    auto big = [&](int at) {
        return (header[at] << 24) | (header[at + 1] << 16) | (header[at + 2] << 8) | header[at + 3];
    };
    EXPECT_EQ(big(16), 960);
    EXPECT_EQ(big(20), 48 + 2 * 150 + 28);
}

TEST_F(WatchCommandTest, ABusyMetricsPortAndADamagedHistoryAreToldInOneLine) {
    auto echo = EchoServer::start({EchoEndpointConfig{}});
    ASSERT_TRUE(echo);
    const std::string target = "127.0.0.1:" + std::to_string(echo->endpoints()[0].port);

    int busy = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    ASSERT_EQ(::bind(busy, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(busy, 1), 0);
    socklen_t length = sizeof address;
    getsockname(busy, reinterpret_cast<sockaddr*>(&address), &length);
    int status = -1;
    auto out = run("watch " + target + " --rounds 1 --metrics-listen 127.0.0.1:" +
                       std::to_string(ntohs(address.sin_port)),
                   &status);
    ::close(busy);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
    EXPECT_NE(out.find("cannot serve metrics on 127.0.0.1:"), std::string::npos) << out;

    // A damaged history is kept aside, never emptied, and a new one starts.
    std::ofstream(history()) << "not a database" << std::string(4096, 'x');
    out = run("watch " + target + " --rounds 1 --history '" + history().string() + "'", &status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_NE(out.find("was damaged"), std::string::npos) << out;
    std::size_t aside = 0;
    for (const auto& entry : fs::directory_iterator(dir_.path()))
        if (entry.path().filename().string().rfind("history.sqlite.damaged-", 0) == 0) {
            ++aside;
            EXPECT_GT(fs::file_size(entry.path()), 4096u);
        }
    EXPECT_EQ(aside, 1u);
    EXPECT_NE(out.find("1 rounds in the history"), std::string::npos) << out;
}

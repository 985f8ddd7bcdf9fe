// test-labels: concurrency system slow
// The message channel between real processes: the test binary re-executes itself as the other
// side (app or tunnel) of the channel.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/tunnel/WormholeManager.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::TempDir;
using lmkit::testing::waitFor;

namespace {

constexpr const char* kChildVariable = "LMKIT_WORMHOLE_TEST_CHILD";
constexpr int kMessagesPerWriter = 10'000;
const std::vector<std::string> kAllCmds = {kWormholeCmdTunnel,        kWormholeCmdPickedNode,
                                           kWormholeCmdNetworkChange, kWormholeCmdDelayQuery,
                                           kWormholeCmdDelayResponse, kWormholeCmdLossQuery,
                                           kWormholeCmdLossResponse};

// A game id that carries its index and is long enough (about 2 KiB) that a torn read of its
// file could not pass for a whole one.
std::string paddedGid(int index) {
    std::string gid = std::to_string(index) + ":";
    while (gid.size() < 2048)
        gid += std::to_string(index * 7919 % 10007);
    return gid;
}

void writeLine(int fd, const std::string& line) {
    std::string text = line + "\n";
    if (::write(fd, text.data(), text.size()) < 0)
        std::_Exit(0);  // the test is gone
}

// The child side. The test binary re-executes itself with kChildVariable set to
// "<mode>|<container>|<argument>"; this runs before the test framework starts and never returns
// in a child.
//   delay-writer|DIR|N  passes N delay queries (gid paddedGid(i), latestLimitCount i), exits 0
//   loss-writer|DIR|N   passes N loss responses (lossBefore i, lossAfter -i), exits 0
//   reader|DIR|FD       writes "stored CMD JSON" for the newest stored object of each kind,
//                       then "ready", then "live CMD JSON" for every arrival, until killed
bool runChildIfAsked() {
    auto request = lmkit::testing::childRequest(kChildVariable);
    if (!request)
        return false;
    const auto& parts = *request;
    if (parts.size() != 3)
        std::_Exit(2);
    auto manager = WormholeManager::create(parts[1]);
    if (parts[0] == "delay-writer") {
        int count = std::atoi(parts[2].c_str());
        for (int i = 0; i < count; ++i)
            manager->passMessageForDelayQuery(VPNMessageDelayQuery(paddedGid(i), Number(i)),
                                              nullptr);
        std::_Exit(0);
    }
    if (parts[0] == "loss-writer") {
        int count = std::atoi(parts[2].c_str());
        for (int i = 0; i < count; ++i)
            manager->passMessageForLossResponse(VPNMessageLossResponse(Number(i), Number(-i)));
        std::_Exit(0);
    }
    if (parts[0] == "reader") {
        int fd = std::atoi(parts[2].c_str());
        for (const auto& cmd : kAllCmds)
            if (auto object = manager->messageWithCmd(cmd))
                writeLine(fd, "stored " + cmd + " " + object->root.dump());
        for (const auto& cmd : kAllCmds)
            manager->listenForMessageWithCmd(cmd, [fd, cmd](const WormholeMessageObject& object) {
                writeLine(fd, "live " + cmd + " " + object.root.dump());
            });
        writeLine(fd, "ready");
        for (;;)
            ::pause();
    }
    std::_Exit(2);
}
[[maybe_unused]] const bool kIsChild = runChildIfAsked();

pid_t spawnChild(const std::string& request) {
    return lmkit::testing::spawnSelf(kChildVariable, request);
}
using lmkit::testing::waitExit;

// Lines from a child's pipe, with a deadline per line.
class LineReader {
  public:
    explicit LineReader(int fd) : fd_(fd) {}
    std::optional<std::string> next(double seconds = 10) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        for (;;) {
            if (auto end = buffer_.find('\n'); end != std::string::npos) {
                std::string line = buffer_.substr(0, end);
                buffer_.erase(0, end + 1);
                return line;
            }
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                            deadline - std::chrono::steady_clock::now())
                            .count();
            pollfd p{fd_, POLLIN, 0};
            if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) <= 0)
                return std::nullopt;
            char chunk[4096];
            ssize_t n = ::read(fd_, chunk, sizeof chunk);
            if (n <= 0)
                return std::nullopt;
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
    }

  private:
    int fd_;
    std::string buffer_;
};

// A reader child with the read end of its pipe.
struct ReaderChild {
    pid_t pid = -1;
    int fd = -1;
    std::unique_ptr<LineReader> lines;

    static ReaderChild start(const std::filesystem::path& container) {
        int ends[2];
        if (::pipe(ends) != 0)
            return {};
        ::fcntl(ends[0], F_SETFD, FD_CLOEXEC);
        ReaderChild child;
        child.pid = spawnChild("reader|" + container.string() + "|" + std::to_string(ends[1]));
        ::close(ends[1]);
        child.fd = ends[0];
        child.lines = std::make_unique<LineReader>(ends[0]);
        return child;
    }
    void kill() {
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            waitExit(pid);
            pid = -1;
        }
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
};

// The lines a reader writes before "ready" (its stored messages).
std::vector<std::string> readUntilReady(ReaderChild& child) {
    std::vector<std::string> lines;
    while (auto line = child.lines->next()) {
        if (*line == "ready")
            break;
        lines.push_back(*line);
    }
    return lines;
}

// The next `count` lines of a reader (or fewer when it falls silent).
std::vector<std::string> readLines(ReaderChild& child, std::size_t count) {
    std::vector<std::string> lines;
    while (lines.size() < count) {
        auto line = child.lines->next();
        if (!line)
            break;
        lines.push_back(*line);
    }
    return lines;
}

// The seven kinds, each carrying `round` so that rounds are told apart.
void passEveryKind(WormholeManager& tunnel, WormholeManager& app, int round) {
    std::string r = std::to_string(round);
    tunnel.passMessageForTunnel("status " + r, std::nullopt);
    tunnel.passMessageForPickedNode(SocksInfo("10.0.0." + r, Number(1000 + round)));
    tunnel.passMessageForNetworkChange();
    app.passMessageForDelayQuery(VPNMessageDelayQuery("gid " + r, Number(round)), nullptr);
    VPNMessageDelayResponse delays;
    delays.delaysBefore = std::vector<Number>{Number(round)};
    delays.delaysAfter = std::vector<Number>{Number(round)};
    tunnel.passMessageForDelayResponse(delays);
    app.passMessageForLossQuery(VPNMessageLossQuery("gid " + r), nullptr);
    tunnel.passMessageForLossResponse(VPNMessageLossResponse(Number(round), Number(round)));
}

std::vector<std::string> expectedLines(const std::string& prefix, int round) {
    std::string r = std::to_string(round);
    return {
        prefix + " WormholeCmdTunnel " +
            Json{{"WormholeTunnelMsgKey", "status " + r}, {"WormholeTunnelErrorKey", ""}}.dump(),
        prefix + " WormholeCmdPickedNode \"10.0.0." + r + "\"",
        prefix + " WormholeCmdNetworkChange {}",
        prefix + " WormholeCmdDelayQuery " +
            Json{{"gid", "gid " + r}, {"latestLimitCount", round}}.dump(),
        prefix + " WormholeCmdDelayResponse " +
            Json{{"delaysBefore", Json::array({round})}, {"delaysAfter", Json::array({round})}}
                .dump(),
        prefix + " WormholeCmdLossQuery " + Json{{"gid", "gid " + r}}.dump(),
        prefix + " WormholeCmdLossResponse " +
            Json{{"lossBefore", round}, {"lossAfter", round}}.dump(),
    };
}

// A relay's full JSON is long; the lines compare by its address only.
std::vector<std::string> normalised(std::vector<std::string> lines) {
    for (auto& line : lines) {
        auto at = line.find(" WormholeCmdPickedNode ");
        if (at == std::string::npos)
            continue;
        auto json = Json::parse(line.substr(at + 23), nullptr, false);
        if (!json.is_discarded() && json.contains("ip"))
            line = line.substr(0, at) + " WormholeCmdPickedNode " + json["ip"].dump();
    }
    return lines;
}

}  // namespace

TEST(WormholeProcessesTest, TwoWritersAtOnceDeliverWholeObjectsEndingWithTheLastSent) {
    TempDir dir;
    auto listener = WormholeManager::create(dir.path());
    log::Capture capture;

    std::mutex mutex;
    int lastDelay = -1, lastLoss = -1, delayCalls = 0, lossCalls = 0;
    std::vector<std::string> faults;
    listener->listenForMessageOfDelayQuery([&](auto query) {
        std::lock_guard lock(mutex);
        ++delayCalls;
        int index =
            query->latestLimitCount ? static_cast<int>(query->latestLimitCount->intValue()) : -1;
        if (!query->gid || *query->gid != paddedGid(index))
            faults.push_back("delay query " + std::to_string(index) + " is not whole");
        if (index <= lastDelay)
            faults.push_back("delay query " + std::to_string(index) + " after " +
                             std::to_string(lastDelay));
        lastDelay = index;
    });
    listener->listenForMessageOfLossResponse([&](auto response) {
        std::lock_guard lock(mutex);
        ++lossCalls;
        int index = response->lossBefore ? static_cast<int>(response->lossBefore->intValue()) : -1;
        if (!response->lossAfter || response->lossAfter->intValue() != -index)
            faults.push_back("loss response " + std::to_string(index) + " is not whole");
        if (index <= lastLoss)
            faults.push_back("loss response " + std::to_string(index) + " after " +
                             std::to_string(lastLoss));
        lastLoss = index;
    });

    auto count = std::to_string(kMessagesPerWriter);
    pid_t app = spawnChild("delay-writer|" + dir.path().string() + "|" + count);
    pid_t tunnel = spawnChild("loss-writer|" + dir.path().string() + "|" + count);
    ASSERT_GT(app, 0);
    ASSERT_GT(tunnel, 0);
    EXPECT_EQ(waitExit(app), 0);
    EXPECT_EQ(waitExit(tunnel), 0);

    ASSERT_TRUE(waitFor(
        [&] {
            std::lock_guard lock(mutex);
            return lastDelay == kMessagesPerWriter - 1 && lastLoss == kMessagesPerWriter - 1;
        },
        30));
    {
        std::lock_guard lock(mutex);
        EXPECT_TRUE(faults.empty()) << faults.size() << " faults, first: " << faults.front();
        EXPECT_GT(delayCalls, 0);
        EXPECT_GT(lossCalls, 0);
    }
    EXPECT_EQ(capture.count("[Wormhole]"), 0u) << capture.texts().front();

    // Each writer leaves its newest message only (beside the channel's own hidden files), and
    // that is what a later process reads.
    std::size_t files = 0;
    for (const auto& entry :
         std::filesystem::directory_iterator(dir.path() / kWormholeDirectoryName))
        files += entry.path().filename().string()[0] != '.';
    EXPECT_EQ(files, 2u);
    auto reader = ReaderChild::start(dir.path());
    auto lines = readUntilReady(reader);
    reader.kill();
    ASSERT_EQ(lines.size(), 2u);
    const int last = kMessagesPerWriter - 1;
    Json lastQuery = {{"gid", paddedGid(last)}, {"latestLimitCount", last}};
    Json lastResponse = {{"lossBefore", last}, {"lossAfter", -last}};
    EXPECT_EQ(lines[0], "stored WormholeCmdDelayQuery " + lastQuery.dump());
    EXPECT_EQ(lines[1], "stored WormholeCmdLossResponse " + lastResponse.dump());
}

TEST(WormholeProcessesTest, AListenerKilledAndStartedAgainReadsTheNewestOfEachKind) {
    TempDir dir;
    auto tunnel = WormholeManager::create(dir.path());
    auto app = WormholeManager::create(dir.path());

    auto first = ReaderChild::start(dir.path());
    ASSERT_TRUE(readUntilReady(first).empty());  // nothing stored yet
    passEveryKind(*tunnel, *app, 1);
    auto live = readLines(first, 7);
    first.kill();
    EXPECT_EQ(normalised(live), expectedLines("live", 1));

    // While no listener runs, every kind gets a newer message, some of them twice.
    passEveryKind(*tunnel, *app, 2);
    passEveryKind(*tunnel, *app, 3);

    auto second = ReaderChild::start(dir.path());
    auto stored = readUntilReady(second);
    EXPECT_EQ(normalised(stored), expectedLines("stored", 3));
    // And it hears what comes next.
    tunnel->passMessageForNetworkChange();
    auto next = second.lines->next();
    second.kill();
    ASSERT_TRUE(next);
    EXPECT_EQ(*next, "live WormholeCmdNetworkChange {}");
}

// test-labels: concurrency system
// The measuring objects against the test servers' faults: loss, duplication, reordering,
// garbage, replies after the time-out and a server that goes away mid-run. Every run
// reports exactly once, and what it counts matches what the servers injected. Under the address
// sanitizer the same runs also show that nothing leaks.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "lmkit/nodes/NetworkMonitor.hpp"
#include "lmkit/nodes/NodeSelector.hpp"
#include "lmkit/nodes/ProxySpeedTest.hpp"
#include "lmkit/nodes/SimplePinger.hpp"
#include "lmkit/testbed/EchoServer.hpp"
#include "lmkit/testbed/Socks5Relay.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::waitFor;

namespace {

constexpr std::uint32_t kToken = 77;
constexpr long kProbes = 5;

EchoFaults faultsOf(const std::function<void(EchoFaults&)>& set) {
    EchoFaults faults;
    faults.delaySeconds = 0.005;
    set(faults);
    return faults;
}

std::unique_ptr<EchoServer> echo(const EchoFaults& faults, const std::string& host = "127.0.0.1",
                                 uint16_t port = 0) {
    auto server = EchoServer::start({EchoEndpointConfig{host, port, faults}}, 11);
    EXPECT_TRUE(server);
    return server;
}

/// Counts the reports of one run and keeps the last one's figures.
struct Reports {
    std::atomic<int> successes{0}, failures{0};
    std::mutex mutex;
    double delay = -1, loss = -1;
    std::optional<Error> error;

    void succeeded(double d, double l) {
        std::lock_guard guard(mutex);
        delay = d;
        loss = l;
        ++successes;
    }
    void failed(const std::optional<Error>& e) {
        std::lock_guard guard(mutex);
        error = e;
        ++failures;
    }
    /// Waits for the first report, then long enough that a second one would have come.
    bool exactlyOne(double seconds = 10) {
        bool reported = waitFor([&] { return successes + failures > 0; }, seconds);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        return reported && successes + failures == 1;
    }
    long errorCode() {
        std::lock_guard guard(mutex);
        return error ? error->code : -1;
    }
};

}  // namespace

TEST(FaultMatrix, NodeSelector) {
    const struct {
        const char* name;
        std::function<void(EchoFaults&)> faults;
        bool succeeds;
    } cases[] = {
        {"loss", [](EchoFaults& f) { f.loss = 0.4; }, true},
        {"duplicate", [](EchoFaults& f) { f.duplicate = true; }, true},
        {"reorder", [](EchoFaults& f) { f.reorder = true; }, true},
        {"junk beside the replies", [](EchoFaults& f) { f.junkFlood = 3; }, true},
        {"late", [](EchoFaults& f) { f.lateSeconds = 0.6; }, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto server = echo(faultsOf(c.faults));
        ASSERT_TRUE(server);
        auto selector = NodeSelector::create(NodeSelector::kInterfaceAny, 0.4, kProbes);
        selector->setPort(server->endpoints()[0].port);
        auto node = std::make_shared<AccNode>();
        node->ip = "127.0.0.1";
        Reports reports;
        selector->pickBestNodeFromNodes(
            {node}, AccConfig::defaultConfig(), NodeSelector::kDelayModeAvg,
            [&](const NodeSelector::Nodes&, double d, double l, double) {
                reports.succeeded(d, l);
            },
            [&](const Error& e) { reports.failed(e); });
        ASSERT_TRUE(reports.exactlyOne());
        EXPECT_EQ(reports.successes, c.succeeds ? 1 : 0);
        if (!c.succeeds) {
            EXPECT_EQ(reports.errorCode(), NodeSelector::kErrorTimeout);
            continue;
        }
        // The selector counted exactly the replies the server sent, once each.
        const long sent = static_cast<long>(server->repliesSent());
        const long unique = std::string(c.name) == "duplicate" ? sent / 2 : sent;
        EXPECT_NEAR(reports.loss, 1.0 - static_cast<double>(unique) / kProbes, 1e-6);
        EXPECT_EQ(selector->duplicateReplyCount() + selector->lateReplyCount(), sent - unique);
        selector->stop();
    }
}

// Duplicate and late echoes of the pinger are counted in its own tests; here, echoes that never
// come or are no echo at all, and a server that goes away, each give one failure.
TEST(FaultMatrix, SimplePinger) {
    for (auto fault : std::vector<std::function<void(EchoFaults&)>>{
             [](EchoFaults& f) { f.loss = 1.0; }, [](EchoFaults& f) { f.garbage = true; }}) {
        auto server = echo(faultsOf(fault));
        ASSERT_TRUE(server);
        auto pinger =
            SimplePinger::create(0, 0.3, SimplePingNode("127.0.0.1", server->endpoints()[0].port));
        Reports reports;
        pinger->testPing([&](double d) { reports.succeeded(d, 0); },
                         [&](const std::optional<Error>& e) { reports.failed(e); });
        ASSERT_TRUE(reports.exactlyOne());
        EXPECT_EQ(reports.errorCode(), SimplePinger::kErrorTimeout);
        pinger->stop();
    }

    // The server goes away: one failure.
    auto server = echo(faultsOf([](EchoFaults& f) { f.delaySeconds = 0.1; }));
    ASSERT_TRUE(server);
    auto pinger =
        SimplePinger::create(0, 0.3, SimplePingNode("127.0.0.1", server->endpoints()[0].port));
    Reports gone;
    pinger->testPing([&](double d) { gone.succeeded(d, 0); },
                     [&](const std::optional<Error>& e) { gone.failed(e); });
    ASSERT_TRUE(waitFor([&] { return server->requestsReceived() == 1; }));
    server->stop();
    ASSERT_TRUE(gone.exactlyOne());
    EXPECT_EQ(gone.errorCode(), SimplePinger::kErrorTimeout);
}

// Malformed relay replies are refused in the proxy test's own tests.
TEST(FaultMatrix, ProxySpeedTest) {
    const struct {
        const char* name;
        std::function<void(EchoFaults&)> echoFaults;
        std::function<void(Socks5RelayFaults&)> relayFaults;
        bool succeeds;
    } cases[] = {
        {"relay loss", [](EchoFaults&) {}, [](Socks5RelayFaults& f) { f.loss = 0.4; }, true},
        {"echo duplicate", [](EchoFaults& f) { f.duplicate = true; }, [](Socks5RelayFaults&) {},
         true},
        {"echo reorder", [](EchoFaults& f) { f.reorder = true; }, [](Socks5RelayFaults&) {}, true},
        {"late echoes", [](EchoFaults& f) { f.lateSeconds = 0.4; }, [](Socks5RelayFaults&) {},
         false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto server = echo(faultsOf(c.echoFaults));
        Socks5RelayConfig config;
        config.token = kToken;
        c.relayFaults(config.faults);
        auto relay = Socks5Relay::start(config, 5);
        ASSERT_TRUE(server && relay);
        auto test = ProxySpeedTest::create(0, kProbes, 0, "127.0.0.1", relay->endpoint().port,
                                           std::to_string(kToken));
        Reports reports;
        test->speedTestToTargetAddress(
            "127.0.0.1", server->endpoints()[0].port,
            [&](double d, double l) { reports.succeeded(d, l); },
            [&](const std::optional<Error>& e) { reports.failed(e); });
        ASSERT_TRUE(reports.exactlyOne());
        EXPECT_EQ(reports.successes, c.succeeds ? 1 : 0);
        if (!c.succeeds) {
            EXPECT_EQ(reports.errorCode(), ProxySpeedTest::kErrorTimeout);
            test->stop();
            continue;
        }
        const long relayed = static_cast<long>(relay->repliesRelayed());
        const long unique =
            std::string(c.name) == "echo duplicate" ? relayed / 2 : std::min(relayed, kProbes);
        EXPECT_NEAR(reports.loss, 1.0 - static_cast<double>(unique) / kProbes, 1e-6);
        EXPECT_EQ(test->duplicateReplyCount() + test->lateReplyCount(), relayed - unique);
        test->stop();
    }
}

TEST(FaultMatrix, NetworkMonitorCountsEveryLostProbeOnce) {
    lmkit::testing::TempDir group;
    setenv("LMKIT_APP_GROUP_DIR", group.path().c_str(), 1);
    auto server = echo(faultsOf([](EchoFaults& f) { f.loss = 1.0; }));
    ASSERT_TRUE(server);
    auto monitor = NetworkMonitor::create();
    monitor->setPingPort(server->endpoints()[0].port);
    monitor->setNetworkValidCheck([] { return true; });
    auto config = std::make_shared<UnstableNetworkConfig>();
    config->interval = Number(0.1);
    monitor->setUnstableNetworkConfig(config);
    std::atomic<int> lost{0}, answered{0};
    monitor->setOutcomeObserver([&](const NodeSelectorResult& outcome) {
        (outcome.lossPercent == 1.0 ? lost : answered)++;
    });
    monitor->startMonitorWithTargetAddress("127.0.0.1");
    ASSERT_TRUE(waitFor([&] { return !monitor->isRunning(); }, 10));
    EXPECT_EQ(monitor->result(), NetworkMonitor::kResultUnstable);
    // The default threshold 0.3 of a batch of ten: the third loss decides, and each probe the
    // server received was counted once.
    EXPECT_EQ(lost, 3);
    EXPECT_EQ(answered, 0);
    // The tick that finds the third probe unanswered decides and sends nothing more; should the
    // probe's own time-out come first, that tick's probe may already be on its way.
    EXPECT_GE(server->requestsReceived(), 3u);
    EXPECT_LE(server->requestsReceived(), 4u);
}

// test-labels: concurrency
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <mutex>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/netinfo/VPNNetworkStatusMonitor.hpp"
#include "lmkit/nodes/NodeSelector.hpp"
#include "lmkit/platform/Clock.hpp"
#include "lmkit/testbed/EchoServer.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::delayed;
using lmkit::testing::waitFor;
using Nodes = NodeSelector::Nodes;

namespace {

// Echo endpoints at 127.0.0.1, 127.0.0.2, ... (or all at `base`) on one port.
struct Echoes {
    uint16_t port = 0;
    std::unique_ptr<EchoServer> server;

    static std::string host(std::size_t i) { return "127.0.0." + std::to_string(i + 1); }
    explicit Echoes(const std::vector<EchoFaults>& faults, const std::string& base = "")
        : server(lmkit::testing::echoesOnOnePort(faults, 7, port, base)) {}
};

Nodes nodesAt(std::size_t count, std::size_t first = 0) {
    Nodes nodes;
    for (std::size_t i = first; i < first + count; ++i) {
        auto node = std::make_shared<AccNode>();
        node->ip = Echoes::host(i);
        node->port = Number(443);
        nodes.push_back(node);
    }
    return nodes;
}

// Everything one run reported.
struct SelectionOutcome {
    std::mutex mutex;
    std::atomic<int> successes{0};
    std::atomic<int> failures{0};
    Nodes nodes;
    double delay = 0, loss = -1, deviation = -1;
    std::optional<Error> error;

    int reports() const { return successes + failures; }
    // Starts a Best Node run of `selector` over `nodes` reporting here.
    void pick(NodeSelector& selector, const Nodes& nodes, long mode = NodeSelector::kDelayModeAvg,
              std::shared_ptr<AccConfig> config = AccConfig::defaultConfig()) {
        selector.pickBestNodeFromNodes(nodes, config, mode, success(), failure());
    }
    // Waits for the run's report.
    bool reported(double seconds = 10) {
        return waitFor([&] { return reports() > 0; }, seconds);
    }

    NodeSelector::BestNodeNotifyBlock success() {
        return [this](const Nodes& chosen, double d, double l, double dev) {
            std::lock_guard guard(mutex);
            nodes = chosen;
            delay = d;
            loss = l;
            deviation = dev;
            ++successes;
        };
    }
    NodeSelector::FailureBlock failure() {
        return [this](const Error& e) {
            std::lock_guard guard(mutex);
            error = e;
            ++failures;
        };
    }
};

std::shared_ptr<NodeSelector> makeSelector(double timeout, long count, uint16_t port) {
    auto selector = NodeSelector::create(NodeSelector::kInterfaceAny, timeout, count,
                                         DispatchQueue::serial("nodeselector.test.callbacks"));
    selector->setPort(port);
    return selector;
}

}  // namespace

TEST(NodeSelector, PicksTheFastestSteadyNodeOverRealEchoes) {
    Echoes echoes({delayed(40), delayed(10), delayed(80), delayed(10, 0.6)});
    ASSERT_TRUE(echoes.server);
    auto selector = makeSelector(0.5, 5, echoes.port);
    log::Capture capture;
    SelectionOutcome outcome;
    outcome.pick(*selector, nodesAt(4));
    ASSERT_TRUE(outcome.reported());
    std::lock_guard guard(outcome.mutex);
    ASSERT_EQ(outcome.successes, 1);
    ASSERT_FALSE(outcome.nodes.empty());
    EXPECT_EQ(outcome.nodes[0]->ip, "127.0.0.2");
    // The reported delay is the best key's trimmed average, as stored in the node.
    EXPECT_GE(outcome.delay, 10);
    EXPECT_EQ(outcome.delay, outcome.nodes[0]->delay);
    EXPECT_EQ(outcome.loss, 0);
    EXPECT_GE(outcome.deviation, 0);
    const auto& best = *outcome.nodes[0];
    EXPECT_GE(best.minDelay, 10);
    EXPECT_LE(best.minDelay, best.avgDelay);
    EXPECT_LE(best.avgDelay, best.maxDelay);
    EXPECT_EQ(best.delayScore, 600 - best.delay);
    EXPECT_EQ(best.lossScore, 100);
    // One node per score: the lossy 10 ms node scores below the steady one.
    for (std::size_t i = 1; i < outcome.nodes.size(); ++i)
        EXPECT_LT(outcome.nodes[i]->score(), outcome.nodes[0]->score());
    EXPECT_EQ(selector->sendPacketGroupCount(), 1);
    EXPECT_EQ(selector->sendedPacketNumber(), 20);
    EXPECT_TRUE(
        capture.contains("[NodeSelector] Start, nodes count:4, ping servers count:4，packet "
                         "timeout:500ms, delayMode:avg"));
    EXPECT_TRUE(capture.contains("[NodeSelector] All packets sent, start recv timer"));
    EXPECT_TRUE(capture.contains("[NodeSelector] final sorted and random node results:\n[best]"));
}

TEST(NodeSelector, MultipathMeasuresEveryNodeAndPacesManyServers) {
    // 12 servers are paced in 10 groups, round-robin.
    std::vector<EchoFaults> faults;
    for (int i = 0; i < 12; ++i)
        faults.push_back(delayed(5 + i));
    Echoes echoes(faults);
    ASSERT_TRUE(echoes.server);
    auto selector = makeSelector(0.4, 3, echoes.port);
    SelectionOutcome outcome;
    selector->testMultipathNodeFromNodes(nodesAt(12), AccConfig::defaultConfig(),
                                         NodeSelector::kDelayModeMin, outcome.success(),
                                         outcome.failure());
    ASSERT_TRUE(outcome.reported());
    std::lock_guard guard(outcome.mutex);
    ASSERT_EQ(outcome.successes, 1);
    ASSERT_EQ(outcome.nodes.size(), 12u);
    for (std::size_t i = 1; i < outcome.nodes.size(); ++i)
        EXPECT_GE(outcome.nodes[i - 1]->score(), outcome.nodes[i]->score());
    EXPECT_EQ(selector->sendPacketGroupCount(), 10);
    EXPECT_DOUBLE_EQ(selector->sendGroupPacketInternval(), 0.4 / 4);
    EXPECT_EQ(selector->sendedPacketNumber(), 36);
    EXPECT_EQ(outcome.nodes[0]->delay, outcome.nodes[0]->minDelay);
    // 36 probes in groups of min(ceil(36 / 10), 12) = 4: each group left in one system call.
    EXPECT_EQ(selector->udpSocket()->sendCallCount(), 9u);
}

TEST(NodeSelector, ASubMillisecondNodeOutranksASlowerOne) {
    // The fast endpoint answers within microseconds: its delay must still be a positive
    // measurement, never the zero that marks an unusable sample.
    Echoes echoes({delayed(20), delayed(0)});
    ASSERT_TRUE(echoes.server);
    for (int run = 0; run < 3; ++run) {
        auto selector = makeSelector(0.5, 5, echoes.port);
        SelectionOutcome outcome;
        outcome.pick(*selector, nodesAt(2));
        ASSERT_TRUE(outcome.reported());
        std::lock_guard guard(outcome.mutex);
        ASSERT_EQ(outcome.successes, 1);
        ASSERT_EQ(outcome.nodes.size(), 2u);
        EXPECT_EQ(outcome.nodes[0]->ip, "127.0.0.2");
        EXPECT_GT(outcome.delay, 0);
        EXPECT_LT(outcome.deviation, 9999);
        EXPECT_GT(outcome.nodes[0]->score(), outcome.nodes[1]->score());
    }
}

TEST(NodeSelector, DelayArithmeticWithAnInjectedClock) {
    Echoes echoes({delayed(400)});
    ASSERT_TRUE(echoes.server);
    std::atomic<double> now{1'700'000'000'000.5};
    Clock::setNowForTesting([&] { return now.load(); });
    auto selector = makeSelector(3.0, 5, echoes.port);
    selector->setSendDataPrefix("QOS");
    SelectionOutcome outcome;
    outcome.pick(*selector, nodesAt(1));
    // Every probe carries "QOS0"; the echoes come back after the clock moved 40 us: a delay far
    // below a millisecond is still a measurement, not the zero that marks an unusable sample.
    bool sent = waitFor([&] { return selector->sendedPacketNumber() == 5; }, 5);
    now = now + 0.04;
    ASSERT_TRUE(sent);
    ASSERT_TRUE(outcome.reported());
    Clock::setNowForTesting(nullptr);
    std::lock_guard guard(outcome.mutex);
    ASSERT_EQ(outcome.successes, 1);
    EXPECT_EQ(selector->firstPacketTimeStamp(), 1'700'000'000'000.5);
    EXPECT_NEAR(outcome.delay, 0.04, 1e-3);
    EXPECT_EQ(outcome.deviation, 0);
    EXPECT_NEAR(outcome.nodes[0]->minDelay, 0.04, 1e-3);
    EXPECT_NEAR(outcome.nodes[0]->delayScore, 600 - 0.04, 1e-3);
}

TEST(NodeSelector, SilentServersTimeOut) {
    Echoes echoes({delayed(5), delayed(5)});
    ASSERT_TRUE(echoes.server);
    log::Capture capture;
    {
        // Nobody answers on 127.0.0.10 and 127.0.0.11.
        auto selector = makeSelector(0.3, 2, echoes.port);
        SelectionOutcome outcome;
        outcome.pick(*selector, nodesAt(2, 9));
        ASSERT_TRUE(outcome.reported());
        std::lock_guard guard(outcome.mutex);
        EXPECT_EQ(outcome.successes, 0);
        ASSERT_TRUE(outcome.error);
        EXPECT_EQ(outcome.error->domain, "NodeSelectorErrorDomain");
        EXPECT_EQ(outcome.error->code, 2);
        EXPECT_EQ(outcome.error->localizedDescription(), "Timeout, all packets lost...");
        EXPECT_TRUE(capture.contains("[NodeSelector] Timeout, all packets lost..."));
    }
    {
        // One of three answers: the run ends normally and names the silent ones.
        auto selector = makeSelector(0.3, 2, echoes.port);
        SelectionOutcome outcome;
        Nodes nodes = nodesAt(1);
        for (auto& node : nodesAt(2, 9))
            nodes.push_back(node);
        outcome.pick(*selector, nodes);
        ASSERT_TRUE(outcome.reported());
        std::lock_guard guard(outcome.mutex);
        ASSERT_EQ(outcome.successes, 1);
        ASSERT_EQ(outcome.nodes.size(), 1u);
        EXPECT_EQ(outcome.nodes[0]->ip, "127.0.0.1");
        std::string key = "127.0.0.10:" + std::to_string(echoes.port);
        EXPECT_TRUE(capture.contains("[NodeSelector] All packets lost node: " + key));
        EXPECT_EQ(nodes[1]->delay, 1000);
        EXPECT_EQ(nodes[1]->loss, 1);
        EXPECT_EQ(nodes[1]->delayScore, 0);
        EXPECT_EQ(nodes[1]->lossScore, 0);
    }
}

TEST(NodeSelector, NoBufferSpaceRefusalFailsTheRunAndThinsTheNext) {
    std::vector<EchoFaults> faults(12, delayed(2));
    Echoes echoes(faults);
    ASSERT_TRUE(echoes.server);
    // Computed time-outs (the plain initialiser): the pause between groups then doubles too.
    auto selector = NodeSelector::create();
    selector->setPort(echoes.port);
    ASSERT_TRUE(selector->createUdpSocketIfHasError());
    selector->udpSocket()->failNextSendsForTesting(1, ENOBUFS);
    log::Capture capture;
    SelectionOutcome first;
    first.pick(*selector, nodesAt(12));
    ASSERT_TRUE(first.reported());
    {
        std::lock_guard guard(first.mutex);
        EXPECT_EQ(first.successes, 0);
        ASSERT_TRUE(first.error);
        EXPECT_EQ(first.error->code, 3);
    }
    EXPECT_TRUE(waitFor([&] { return selector->udpSocket() == nullptr; }, 5));
    EXPECT_EQ(selector->occurNoBufferSpaceAvailableErrorTimes(), 1);
    EXPECT_EQ(selector->sendPacketGroupCount(), 10);
    EXPECT_DOUBLE_EQ(selector->sendGroupPacketInternval(), static_cast<double>(0.006f));
    EXPECT_TRUE(capture.contains("didNotSendDataWithTag due to error:"));
    EXPECT_TRUE(capture.contains("udpSocketDidClose with error:"));

    SelectionOutcome second;
    second.pick(*selector, nodesAt(12));
    ASSERT_TRUE(second.reported());
    std::lock_guard guard(second.mutex);
    EXPECT_EQ(second.successes, 1);
    // Twice the groups (capped at the server count), twice the pause.
    EXPECT_EQ(selector->sendPacketGroupCount(), 12);
    EXPECT_DOUBLE_EQ(selector->sendGroupPacketInternval(), 2 * static_cast<double>(0.006f));
    EXPECT_EQ(first.reports(), 1);
}

TEST(NodeSelector, StopAndReleaseEndARunSilently) {
    EchoFaults late = delayed(50);
    Echoes echoes({late, late});
    ASSERT_TRUE(echoes.server);
    SelectionOutcome stopped;
    auto selector = makeSelector(0.2, 3, echoes.port);
    stopped.pick(*selector, nodesAt(2));
    selector->stop();
    EXPECT_EQ(selector->udpSocket(), nullptr);

    SelectionOutcome released;
    auto doomed = makeSelector(0.2, 3, echoes.port);
    std::weak_ptr<NodeSelector> weak = doomed;
    released.pick(*doomed, nodesAt(2));
    doomed.reset();
    // Well past the echoes and the receive time-out: still no word from either run.
    EXPECT_FALSE(waitFor([&] { return stopped.reports() + released.reports() > 0; }, 1.0));
    EXPECT_TRUE(weak.expired());

    // A stopped selector runs again.
    SelectionOutcome again;
    again.pick(*selector, nodesAt(2), NodeSelector::kDelayModeMin);
    ASSERT_TRUE(again.reported());
    EXPECT_EQ(again.successes, 1);
    EXPECT_EQ(stopped.reports(), 0);
}

TEST(NodeSelector, ReportsOnceUnderDuplicateLateAndGarbageReplies) {
    EchoFaults duplicate = delayed(5);
    duplicate.duplicate = true;
    EchoFaults reorder = delayed(8);
    reorder.reorder = true;
    reorder.junkFlood = 3;
    EchoFaults garbage;
    garbage.garbage = true;
    EchoFaults late;
    late.lateSeconds = 0.5;
    EchoFaults otherPort = delayed(3);
    otherPort.otherPort = true;
    Echoes echoes({duplicate, reorder, garbage, late, otherPort});
    ASSERT_TRUE(echoes.server);
    for (int round = 0; round < 3; ++round) {
        auto selector = makeSelector(0.3, 4, echoes.port);
        SelectionOutcome outcome;
        outcome.pick(*selector, nodesAt(5));
        ASSERT_TRUE(outcome.reported());
        // The late echoes arrive after the report; nothing follows it.
        EXPECT_FALSE(waitFor([&] { return outcome.reports() > 1; }, 0.7));
        std::lock_guard guard(outcome.mutex);
        ASSERT_EQ(outcome.successes, 1);
        // Every probe to the duplicating endpoint came back twice; the late ones were counted.
        EXPECT_EQ(selector->duplicateReplyCount(), 4);
        EXPECT_EQ(selector->lateReplyCount(), 4);
        std::set<std::string> chosen;
        for (const auto& node : outcome.nodes)
            chosen.insert(*node->ip);
        // Only the duplicating and the reordering endpoints answered from the probed port.
        EXPECT_TRUE(chosen.count("127.0.0.1") || chosen.count("127.0.0.2"));
        EXPECT_FALSE(chosen.count("127.0.0.3"));
        EXPECT_FALSE(chosen.count("127.0.0.4"));
        EXPECT_FALSE(chosen.count("127.0.0.5"));
    }
}

TEST(NodeSelector, ZeroScoresAndOtherDelayModes) {
    Echoes echoes({delayed(5)});
    ASSERT_TRUE(echoes.server);
    {
        // Every node scores 0: nothing to choose, so neither callback comes.
        auto config = AccConfig::defaultConfig();
        config->ping = Number(1);
        config->loss = Number(0);
        config->load = Number(0);
        config->isp = Number(0);
        auto selector = makeSelector(0.3, 2, echoes.port);
        SelectionOutcome outcome;
        outcome.pick(*selector, nodesAt(1), NodeSelector::kDelayModeAvg, config);
        ASSERT_TRUE(waitFor(
            [&] { return selector->computingStatus() == NodeSelector::kStatusFinished; }, 10));
        EXPECT_FALSE(waitFor([&] { return outcome.reports() > 0; }, 0.5));
    }
    {
        // A delay mode that is neither avg nor min reports the fallback delay.
        auto selector = makeSelector(0.3, 2, echoes.port);
        SelectionOutcome outcome;
        outcome.pick(*selector, nodesAt(1), 7);
        ASSERT_TRUE(outcome.reported());
        std::lock_guard guard(outcome.mutex);
        ASSERT_EQ(outcome.successes, 1);
        EXPECT_EQ(outcome.delay, 1000);
        EXPECT_EQ(selector->delayModeString(), "null");
    }
    {
        // An empty list fails before the run's callbacks are stored: the caller hears nothing,
        // and the error (code 5) waits on the selector.
        auto selector = makeSelector(0.3, 2, echoes.port);
        SelectionOutcome outcome;
        outcome.pick(*selector, {});
        ASSERT_TRUE(waitFor([&] { return selector->error().has_value(); }, 5));
        EXPECT_EQ(selector->error()->code, 5);
        EXPECT_EQ(selector->error()->domain, "NodeSelectorErrorDomain");
        EXPECT_FALSE(waitFor([&] { return outcome.reports() > 0; }, 0.3));
    }
}

TEST(NodeSelector, SingleAddressPing) {
    Echoes echoes({delayed(5)});
    ASSERT_TRUE(echoes.server);
    auto selector = makeSelector(0.3, 3, 0);
    log::Capture capture;
    std::atomic<int> reports{0};
    std::shared_ptr<AccNode> best;
    double loss = -1;
    std::mutex mutex;
    selector->testPingFromAddress(
        "127.0.0.1", echoes.port,
        [&](const std::shared_ptr<AccNode>& node, double, double l, double) {
            std::lock_guard guard(mutex);
            best = node;
            loss = l;
            ++reports;
        },
        [&](const Error&) { ++reports; });
    ASSERT_TRUE(waitFor([&] { return reports > 0; }, 10));
    std::lock_guard guard(mutex);
    ASSERT_TRUE(best);
    EXPECT_EQ(best->pingServer, "127.0.0.1");
    EXPECT_EQ(loss, 0);
    EXPECT_EQ(selector->port(), echoes.port);
    // Test Ping runs log none of the Best Node progress lines.
    EXPECT_FALSE(capture.contains("[NodeSelector] Start,"));
    EXPECT_FALSE(capture.contains("All packets sent"));
}

TEST(NodeSelector, ANodeAtANativeIPv6AddressIsMeasured) {
    Echoes v6({delayed(5)}, "::1");
    if (!v6.server)
        GTEST_SKIP() << "no IPv6 loopback";
    auto selector = makeSelector(0.3, 2, v6.port);
    log::Capture capture;
    SelectionOutcome outcome;
    auto node = std::make_shared<AccNode>();
    node->pingServer = "::1";
    outcome.pick(*selector, {node});
    ASSERT_TRUE(outcome.reported());
    EXPECT_TRUE(selector->isIPV6());
    EXPECT_EQ(capture.count("[NodeSelector] Detected IPV6 environment"), 1u);
    // The last 32 bits of ::1 read as 0.0.0.1, which is no probed address: the echoes count
    // under ::1 itself.
    std::lock_guard guard(outcome.mutex);
    ASSERT_EQ(outcome.successes, 1);
    EXPECT_EQ(node->loss, 0);
    EXPECT_GE(node->delay, 5);
}

TEST(NodeSelector, SetUpRulesAndInterfaceChecks) {
    // Unusable figures fall back to the defaults: a computed time-out of 2.5 s, five probes.
    auto fixed = NodeSelector::create(7, -1, 0);
    EXPECT_EQ(fixed->testPingTimeout(), 2.5);
    EXPECT_EQ(fixed->sendPacketCount(), 5);
    EXPECT_EQ(fixed->bindedInterfaceTypeString(), "Unknown");
    EXPECT_TRUE(fixed->isInterfaceUp());

    EXPECT_TRUE(NodeSelector::isNoBufferSpaceAvailbaleError(Error("AnyDomain", ENOBUFS)));
    EXPECT_FALSE(NodeSelector::isNoBufferSpaceAvailbaleError(Error("AnyDomain", EAGAIN)));
    EXPECT_FALSE(NodeSelector::isNoBufferSpaceAvailbaleError(std::nullopt));

    // No interface carries a Wi-Fi or cellular name here.
    auto& monitor = VPNNetworkStatusMonitor::sharedMonitor();
    auto saved = monitor.interfaceNaming();
    InterfaceNaming none;
    none.wifiPrefixes = {"lmkit-none"};
    none.cellularPrefixes = {"lmkit-none"};
    monitor.setInterfaceNaming(none);
    for (long type : {1L, 2L}) {
        auto selector = NodeSelector::create(type, 0.3, 1);
        std::optional<Error> error;
        EXPECT_FALSE(selector->isInterfaceUp());
        EXPECT_FALSE(selector->createUdpSocketIfHasError(&error));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code, 4);
        EXPECT_EQ(error->localizedDescription(),
                  type == 1 ? "wifi interface is not up, do not bind."
                            : "wwan interface(pdp_ip0) is not up, do not bind.");
        EXPECT_EQ(selector->udpSocket(), nullptr);
    }
    monitor.setInterfaceNaming(saved);

    auto selector = makeSelector(0.3, 1, 9);
    ASSERT_TRUE(selector->createUdpSocketIfHasError());
    auto socket = selector->udpSocket();
    ASSERT_TRUE(selector->createUdpSocketIfHasError());
    EXPECT_EQ(selector->udpSocket(), socket);
    NodeSelector::enlargeSocketSendBufferSize(socket);
    selector->closeUdpSocket();
    EXPECT_EQ(selector->udpSocket(), nullptr);
}

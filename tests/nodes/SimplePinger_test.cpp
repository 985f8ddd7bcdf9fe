// test-labels: concurrency
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <thread>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/netinfo/VPNNetworkStatusMonitor.hpp"
#include "lmkit/nodes/SimplePinger.hpp"
#include "lmkit/platform/Clock.hpp"
#include "lmkit/testbed/EchoServer.hpp"
#include "nodes/ScriptedPeer.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::bytes;
using lmkit::testing::delayed;
using lmkit::testing::ScriptedPeer;
using lmkit::testing::text;
using lmkit::testing::waitFor;

namespace {

// Everything one pinger reported, with the queue each report ran on.
struct PingOutcome {
    mutable std::mutex mutex;
    std::vector<double> delays;
    std::vector<std::optional<Error>> failures;
    std::vector<std::string> labels;

    std::size_t reports() const {
        std::lock_guard guard(mutex);
        return delays.size() + failures.size();
    }
    SimplePinger::SuccessBlock success() {
        return [this](double delay) {
            std::lock_guard guard(mutex);
            delays.push_back(delay);
            labels.push_back(DispatchQueue::currentLabel());
        };
    }
    SimplePinger::FailureBlock failure() {
        return [this](const std::optional<Error>& error) {
            std::lock_guard guard(mutex);
            failures.push_back(error);
            labels.push_back(DispatchQueue::currentLabel());
        };
    }
};

std::unique_ptr<EchoServer> echoServer(EchoFaults faults = {}) {
    return EchoServer::start({EchoEndpointConfig{"127.0.0.1", 0, faults}}, 3);
}

// Restores the shared monitor's interface naming when a test ends.
struct NamingGuard {
    InterfaceNaming saved = VPNNetworkStatusMonitor::sharedMonitor().interfaceNaming();
    ~NamingGuard() { VPNNetworkStatusMonitor::sharedMonitor().setInterfaceNaming(saved); }
};

}  // namespace

TEST(SimplePinger, MeasuresAnEchoOnceAndReusesItsSocketForTheNextMeasurement) {
    EchoFaults faults = delayed(20);
    faults.duplicate = true;  // every echo twice: only the first may count
    auto server = echoServer(faults);
    ASSERT_TRUE(server);
    auto port = server->endpoints()[0].port;
    auto pinger = SimplePinger::create(0, 2.0, SimplePingNode("127.0.0.1", 0x10000 + port));
    PingOutcome outcome;

    pinger->testPing(outcome.success(), outcome.failure());
    ASSERT_TRUE(waitFor([&] { return outcome.reports() == 1; }));
    ASSERT_TRUE(waitFor([&] { return server->repliesSent() == 2; }));
    auto socket = pinger->udpSocket();
    ASSERT_TRUE(socket);
    uint16_t localPort = socket->localPort();

    // A second measurement: same socket, same work queue, one new datagram.
    pinger->testPing(outcome.success(), outcome.failure());
    ASSERT_TRUE(waitFor([&] { return outcome.reports() == 2; }));
    ASSERT_TRUE(waitFor([&] { return server->repliesSent() == 4; }));
    EXPECT_EQ(server->requestsReceived(), 2u);
    EXPECT_EQ(pinger->udpSocket(), socket);
    EXPECT_EQ(socket->localPort(), localPort);

    ASSERT_TRUE(waitFor([&] { return pinger->duplicateReplyCount() == 2; }));
    pinger->stop();
    std::lock_guard guard(outcome.mutex);
    ASSERT_EQ(outcome.delays.size(), 2u);
    EXPECT_TRUE(outcome.failures.empty());
    EXPECT_EQ(pinger->lateReplyCount(), 0);
    for (double delay : outcome.delays) {
        EXPECT_GE(delay, 20);
        EXPECT_LT(delay, 1500);
    }
    // Without a callback queue the callbacks run on the work queue.
    ASSERT_TRUE(pinger->generalQueue());
    EXPECT_EQ(outcome.labels[0], pinger->generalQueue()->label());
}

TEST(SimplePinger, SendsTheStampAloneAndComputesTheDelayFromItsOrigin) {
    std::atomic<double> now{1731637946123.4};
    Clock::setNowForTesting([&] { return now.load(); });
    // Echoes every stamp unchanged, 37.25 ms of clock later.
    auto peer = ScriptedPeer::start([&](const std::vector<uint8_t>& data) {
        now = now + 37.25;
        return std::vector<std::vector<uint8_t>>{data};
    });
    auto callbacks = DispatchQueue::serial("test.pinger.callbacks");
    auto pinger =
        SimplePinger::create(7, 2.0, SimplePingNode("127.0.0.1", peer->port()), callbacks);
    PingOutcome outcome;
    pinger->testPing(outcome.success(), outcome.failure());
    ASSERT_TRUE(waitFor([&] { return outcome.reports() == 1; }));
    // Truncated toward zero: the fraction of the send time counts in the delay.
    ASSERT_EQ(text(peer->received().at(0)), "1731637946123");

    pinger->setFirstPacketTimeStamp(1731637946000);
    pinger->testPing(outcome.success(), outcome.failure());
    ASSERT_TRUE(waitFor([&] { return outcome.reports() == 2; }));
    ASSERT_EQ(text(peer->received().at(1)), "160");
    Clock::setNowForTesting(nullptr);

    std::lock_guard guard(outcome.mutex);
    ASSERT_EQ(outcome.delays.size(), 2u);
    EXPECT_NEAR(outcome.delays[0], 37.25 + 0.4, 1e-3);
    EXPECT_NEAR(outcome.delays[1], 37.25 + 0.65, 1e-3);
    EXPECT_EQ(outcome.labels[0], "test.pinger.callbacks");
}

TEST(SimplePinger, MalformedAndFutureEchoesAreIgnoredUntilTheTimeout) {
    log::Capture capture;
    auto peer = ScriptedPeer::start([](const std::vector<uint8_t>& data) {
        auto future = std::to_string(std::stoll(text(data)) + 60000);
        return std::vector<std::vector<uint8_t>>{bytes("abc"), {}, {0xff, 0xfe}, bytes(future)};
    });
    auto pinger = SimplePinger::create(0, 0.3, SimplePingNode("127.0.0.1", peer->port()));
    PingOutcome outcome;
    pinger->testPing(outcome.success(), outcome.failure());
    ASSERT_TRUE(waitFor([&] { return outcome.reports() == 1; }));
    std::lock_guard guard(outcome.mutex);
    ASSERT_EQ(outcome.failures.size(), 1u);
    ASSERT_TRUE(outcome.failures[0]);
    EXPECT_EQ(outcome.failures[0]->domain, "NodeSelectorErrorDomain");
    EXPECT_EQ(outcome.failures[0]->code, 2);
    EXPECT_EQ(outcome.failures[0]->localizedDescription(), "all udp packets lost");
    EXPECT_EQ(capture.count("time from server:abc is not all digitis"), 1u);
    // The empty, undecodable and future echoes leave no line of their own.
    EXPECT_EQ(capture.count("is not all digitis"), 1u);
    EXPECT_FALSE(capture.contains("invalid time("));
}

TEST(SimplePinger, ALateEchoIsCountedLateAndNeverCreditedToTheNextMeasurement) {
    // Every echo comes 150 ms late against a 100 ms time-out: the first measurement's echo
    // arrives while the second one waits, and must not pass for the second one's answer.
    EchoFaults faults;
    faults.lateSeconds = 0.15;
    auto server = echoServer(faults);
    ASSERT_TRUE(server);
    auto pinger =
        SimplePinger::create(0, 0.1, SimplePingNode("127.0.0.1", server->endpoints()[0].port));
    PingOutcome outcome;
    pinger->testPing(outcome.success(), outcome.failure());
    ASSERT_TRUE(waitFor([&] { return outcome.reports() == 1; }));
    pinger->testPing(outcome.success(), outcome.failure());
    ASSERT_TRUE(waitFor([&] { return outcome.reports() == 2; }));
    ASSERT_TRUE(waitFor([&] { return pinger->lateReplyCount() == 2; }));
    pinger->stop();
    std::lock_guard guard(outcome.mutex);
    EXPECT_TRUE(outcome.delays.empty());
    ASSERT_EQ(outcome.failures.size(), 2u);
    EXPECT_EQ(outcome.failures[1]->code, 2);
    EXPECT_EQ(pinger->duplicateReplyCount(), 0);
}

TEST(SimplePinger, AnEmptyAddressSendsNothingAndNeverReports) {
    auto peer = ScriptedPeer::start(
        [](const std::vector<uint8_t>&) { return std::vector<std::vector<uint8_t>>{}; });
    for (auto node : {std::optional<SimplePingNode>(SimplePingNode("", peer->port())),
                      std::optional<SimplePingNode>()}) {
        auto pinger = SimplePinger::create(0, 0.05, node);
        PingOutcome outcome;
        pinger->testPing(outcome.success(), outcome.failure());
        // The socket exists once startPing ran; without a timer nothing follows.
        ASSERT_TRUE(waitFor([&] { return pinger->udpSocket() != nullptr; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        EXPECT_EQ(outcome.reports(), 0u);
        pinger->stop();
    }
    EXPECT_EQ(peer->receivedCount(), 0u);
}

TEST(SimplePinger, InterfaceBindingFollowsTheStatusMonitor) {
    NamingGuard guard;
    auto& monitor = VPNNetworkStatusMonitor::sharedMonitor();
    auto server = echoServer();
    ASSERT_TRUE(server);
    SimplePingNode node("127.0.0.1", server->endpoints()[0].port);

    InterfaceNaming none;
    none.wifiPrefixes = {"lmkit-none"};
    none.cellularPrefixes = {"lmkit-none"};
    monitor.setInterfaceNaming(none);
    for (long type : {1L, 2L}) {
        auto pinger = SimplePinger::create(type, 1.0, node);
        EXPECT_FALSE(pinger->isInterfaceUp());
        PingOutcome outcome;
        pinger->testPing(outcome.success(), outcome.failure());
        ASSERT_TRUE(waitFor([&] { return outcome.reports() == 1; }));
        std::lock_guard lock(outcome.mutex);
        ASSERT_EQ(outcome.failures.size(), 1u);
        ASSERT_TRUE(outcome.failures[0]);
        EXPECT_EQ(outcome.failures[0]->code, 1);  // code 4 reaches callers wrapped
        EXPECT_EQ(outcome.failures[0]->localizedDescription(),
                  type == 1 ? "wifi interface is not up, do not bind."
                            : "wwan interface(pdp_ip0) is not up, do not bind.");
    }
    EXPECT_EQ(server->requestsReceived(), 0u);

    // Loopback standing in for both radios: Wi-Fi binds without naming an interface, cellular
    // binds to the named interface's address.
    for (long type : {1L, 2L}) {
        InterfaceNaming loopback = none;
        (type == 1 ? loopback.wifiPrefixes : loopback.cellularPrefixes) = {"lo"};
        loopback.kindNames[3] = "lo";
        monitor.setInterfaceNaming(loopback);
        auto pinger = SimplePinger::create(type, 2.0, node);
        EXPECT_TRUE(pinger->isInterfaceUp());
        PingOutcome outcome;
        pinger->testPing(outcome.success(), outcome.failure());
        ASSERT_TRUE(waitFor([&] { return outcome.reports() == 1; }));
        std::lock_guard lock(outcome.mutex);
        EXPECT_EQ(outcome.delays.size(), 1u) << "type " << type;
    }
}

TEST(SimplePinger, SocketEventsEndAPendingMeasurement) {
    log::Capture capture;
    auto silent = ScriptedPeer::start(
        [](const std::vector<uint8_t>&) { return std::vector<std::vector<uint8_t>>{}; });
    SimplePingNode node("127.0.0.1", silent->port());

    struct Case {
        std::optional<Error> closeError;
        std::optional<long> code;
        std::string description;
    };
    std::vector<Case> cases = {
        {std::nullopt, std::nullopt, ""},
        {Error::withDescription("UdpSocketErrorDomain", 9, "boom"), 3, "boom"},
        {Error("UdpSocketErrorDomain", 9), 3, "udp did closed."},
    };
    for (const auto& c : cases) {
        auto pinger = SimplePinger::create(0, 5.0, node);
        PingOutcome outcome;
        auto sent = silent->receivedCount();
        pinger->testPing(outcome.success(), outcome.failure());
        // Closed once the datagram is out, that is once the socket is bound and receiving.
        ASSERT_TRUE(waitFor([&] { return silent->receivedCount() == sent + 1; }));
        if (c.closeError)
            pinger->udpSocket()->closeWithError(*c.closeError);
        else
            pinger->udpSocket()->close();
        ASSERT_TRUE(waitFor([&] { return outcome.reports() == 1; }));
        ASSERT_TRUE(waitFor([&] { return pinger->udpSocket() == nullptr; }));
        std::lock_guard guard(outcome.mutex);
        ASSERT_EQ(outcome.failures.size(), 1u);
        if (!c.code) {
            EXPECT_FALSE(outcome.failures[0]);  // a plain close fails with an absent error
        } else {
            ASSERT_TRUE(outcome.failures[0]);
            EXPECT_EQ(outcome.failures[0]->code, *c.code);
            EXPECT_EQ(outcome.failures[0]->localizedDescription(), c.description);
        }
    }
    EXPECT_EQ(capture.count("udp did close, bindedInterfaceType:0, err:"), 3u);

    // A datagram the system refuses closes the socket quietly; the timer reports the loss.
    auto pinger = SimplePinger::create(0, 0.2, node);
    PingOutcome first;
    pinger->testPing(first.success(), first.failure());
    ASSERT_TRUE(waitFor([&] { return first.reports() == 1; }));
    pinger->udpSocket()->failNextSendsForTesting(1, ENOBUFS);
    PingOutcome second;
    pinger->testPing(second.success(), second.failure());
    ASSERT_TRUE(waitFor([&] { return second.reports() == 1; }));
    EXPECT_EQ(capture.count("didNotSendDataWithTag, bindedInterfaceType:0, error:"), 1u);
    EXPECT_EQ(pinger->udpSocket(), nullptr);
    std::lock_guard guard(second.mutex);
    ASSERT_EQ(second.failures.size(), 1u);
    EXPECT_EQ(second.failures[0]->code, 2);
}

TEST(SimplePinger, StopAndReleaseInTheMiddleReportNothing) {
    // Echoes and time-outs far enough out that a loaded machine still stops before them.
    auto server = echoServer(delayed(400));
    ASSERT_TRUE(server);
    SimplePingNode node("127.0.0.1", server->endpoints()[0].port);

    PingOutcome stopped;
    auto pinger = SimplePinger::create(0, 0.5, node);
    pinger->testPing(stopped.success(), stopped.failure());
    ASSERT_TRUE(waitFor([&] { return server->requestsReceived() == 1; }));
    pinger->stop();
    ASSERT_TRUE(waitFor([&] { return pinger->udpSocket() == nullptr; }));

    PingOutcome released;
    {
        auto doomed = SimplePinger::create(0, 0.5, node);
        doomed->testPing(released.success(), released.failure());
        ASSERT_TRUE(waitFor([&] { return server->requestsReceived() == 2; }));
    }
    PingOutcome releasedAtOnce;
    SimplePinger::create(0, 0.5, node)
        ->testPing(releasedAtOnce.success(), releasedAtOnce.failure());

    // Past every echo and every time-out.
    ASSERT_TRUE(waitFor([&] { return server->repliesSent() >= 2; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    EXPECT_EQ(stopped.reports(), 0u);
    EXPECT_EQ(released.reports(), 0u);
    EXPECT_EQ(releasedAtOnce.reports(), 0u);
}

// test-labels: concurrency
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <mutex>
#include <thread>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/nodes/ProxySpeedTest.hpp"
#include "lmkit/platform/Clock.hpp"
#include "lmkit/platform/Localized.hpp"
#include "lmkit/testbed/EchoServer.hpp"
#include "lmkit/testbed/Socks5Relay.hpp"
#include "nodes/ScriptedPeer.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::bytes;
using lmkit::testing::ScriptedPeer;
using lmkit::testing::text;
using lmkit::testing::waitFor;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr uint32_t kToken = 305419896;  // 0x12345678

struct SpeedTestOutcome {
    mutable std::mutex mutex;
    std::vector<std::pair<double, double>> results;
    std::vector<std::optional<Error>> failures;

    std::size_t reports() const {
        std::lock_guard guard(mutex);
        return results.size() + failures.size();
    }
    ProxySpeedTest::SuccessBlock success() {
        return [this](double delay, double loss) {
            std::lock_guard guard(mutex);
            results.emplace_back(delay, loss);
        };
    }
    ProxySpeedTest::FailureBlock failure() {
        return [this](const std::optional<Error>& error) {
            std::lock_guard guard(mutex);
            failures.push_back(error);
        };
    }
};

// An echo endpoint behind a relay, both on loopback.
struct Path {
    std::unique_ptr<EchoServer> echo;
    std::unique_ptr<Socks5Relay> relay;
    uint16_t echoPort = 0;
    uint16_t relayPort = 0;

    explicit Path(EchoFaults echoFaults = {}, Socks5RelayFaults relayFaults = {}) {
        echo = EchoServer::start({EchoEndpointConfig{"127.0.0.1", 0, echoFaults}}, 5);
        Socks5RelayConfig config;
        config.token = kToken;
        config.faults = relayFaults;
        relay = Socks5Relay::start(config, 5);
        if (echo && relay) {
            echoPort = echo->endpoints()[0].port;
            relayPort = relay->endpoint().port;
        }
    }
    std::shared_ptr<ProxySpeedTest> makeTest(std::int64_t count, double interval = 0,
                                             const std::string& token = std::to_string(kToken)) {
        return ProxySpeedTest::create(interval, count, 0, "127.0.0.1", relayPort, token);
    }
};

// Runs one test to its report. The receive deadline is a fixed 200 ms after the last send, and
// a heavily loaded machine (sanitizers, parallel builds) can stall even a loopback echo past it;
// such a run fails with code 2 and is tried again, up to `attempts` times.
template <class Start>
void runToReport(SpeedTestOutcome& outcome, Start start, int attempts = 3) {
    for (int attempt = 0; attempt < attempts; ++attempt) {
        {
            std::lock_guard guard(outcome.mutex);
            outcome.results.clear();
            outcome.failures.clear();
        }
        start();
        ASSERT_TRUE(waitFor([&] { return outcome.reports() == 1; }));
        std::lock_guard guard(outcome.mutex);
        if (!outcome.results.empty() || !outcome.failures[0] || outcome.failures[0]->code != 2)
            return;
    }
}

// A reply as a proxy wraps it: two ignored bytes, FRAG, ATYP, address, port, four ignored.
Bytes reply(const std::string& payload, uint8_t frag = 0, uint8_t atyp = 1) {
    Bytes out = {0, 0, frag, atyp, 127, 0, 0, 1, 0x27, 0x0f, 0, 0, 0, 0};
    // Appended byte by byte: GCC 12 misreads a range insert here as out of bounds.
    for (char c : payload)
        out.push_back(static_cast<uint8_t>(c));
    return out;
}

std::string payloadOf(const Bytes& request) {
    return text(Bytes(request.begin() + ProxySpeedTest::kRequestHeaderSize, request.end()));
}

struct FixedClock {
    explicit FixedClock(std::int64_t ms) { set(ms); }
    void set(std::int64_t ms) {
        Clock::setNowForTesting([ms] { return ms; });
    }
    ~FixedClock() { Clock::setNowForTesting(nullptr); }
};

}  // namespace

TEST(ProxySpeedTest, CreationRefusesUnusableSettings) {
    EXPECT_FALSE(ProxySpeedTest::create(0, 0, 0, "127.0.0.1", 1080, "1"));
    EXPECT_FALSE(ProxySpeedTest::create(0, 5, 0, "127.0.0.1", 1080, ""));
    EXPECT_FALSE(ProxySpeedTest::create(0, 5, 0, "", 1080, "1"));
    EXPECT_FALSE(ProxySpeedTest::create(-0.1, 5, 0, "127.0.0.1", 1080, "1"));
    auto test = ProxySpeedTest::create(0, 5, 2, "127.0.0.1", 1080, "1");
    ASSERT_TRUE(test);
    EXPECT_EQ(test->bindedInterfaceType(), 0);  // the argument is accepted and ignored
}

TEST(ProxySpeedTest, RequestHeaderNamesTargetTokenAndLocalPort) {
    auto proxy = ScriptedPeer::start([](const Bytes&) { return std::vector<Bytes>{}; });
    // 2^32 + 0x12345678: only the low 32 bits travel.
    auto test = ProxySpeedTest::create(0, 2, 0, "127.0.0.1", 0x10000 + proxy->port(), "4600387192");
    ASSERT_TRUE(test);
    SpeedTestOutcome outcome;
    test->speedTestToTargetAddress("127.1.2.3", 0x11f90, outcome.success(), outcome.failure());
    ASSERT_TRUE(waitFor([&] { return proxy->receivedCount() == 2; }));
    auto request = proxy->received()[0];
    uint16_t localPort = test->udpSocket()->localPort();
    ASSERT_GT(request.size(), ProxySpeedTest::kRequestHeaderSize);
    Bytes header(request.begin(), request.begin() + ProxySpeedTest::kRequestHeaderSize);
    // Version 1, IPv4, the target, its port (0x11f90 cut to 16 bits), the token, our port.
    Bytes expected = {0, 1, 0, 1, 127, 1, 2, 3, 0x1f, 0x90, 0x12, 0x34, 0x56, 0x78};
    expected.push_back(static_cast<uint8_t>(localPort >> 8));
    expected.push_back(static_cast<uint8_t>(localPort & 0xff));
    EXPECT_EQ(header, expected);
    // The first datagram carries the few milliseconds since the test's origin.
    std::string payload = payloadOf(request);
    ASSERT_FALSE(payload.empty());
    EXPECT_EQ(payload.find_first_not_of("0123456789"), std::string::npos);
    EXPECT_LT(std::stoll(payload), 1000);
    EXPECT_GT(test->firstPacketTimeStamp(), 0);

    // Nothing to wrap gives nothing; a target that is no IPv4 literal is sent as zeros.
    EXPECT_FALSE(test->socksifyWithData(std::nullopt));
    ASSERT_TRUE(waitFor([&] { return outcome.reports() == 1; }));  // all lost: code 2
    test->speedTestToTargetAddress("relay.invalid", 7, outcome.success(), outcome.failure());
    ASSERT_TRUE(waitFor([&] { return proxy->receivedCount() == 4; }));
    auto zeroed = proxy->received()[2];
    EXPECT_EQ(Bytes(zeroed.begin() + 4, zeroed.begin() + 10), (Bytes{0, 0, 0, 0, 0, 7}));
    test->stop();
}

TEST(ProxySpeedTest, UnwrapChecksFragThenTypeThenLengthAndLogsEach) {
    log::Capture capture;
    std::string host;
    uint16_t port = 0;
    auto unwrap = [&](const Bytes& data) {
        return ProxySpeedTest::unsocksifyWithData(data, &host, &port);
    };
    // FRAG is checked before ATYP and before the length; ATYP before the length.
    EXPECT_FALSE(unwrap({0, 0, 1, 3}));
    EXPECT_EQ(capture.count("socks5 udp:unexpected frag"), 1u);
    EXPECT_FALSE(unwrap({0, 0, 0, 3}));
    EXPECT_EQ(capture.count("socks address type is not ipv4"), 1u);
    for (std::size_t size : {4u, 9u, 10u, 13u}) {
        Bytes shortReply(size, 0);
        shortReply[3] = 1;
        EXPECT_FALSE(unwrap(shortReply)) << size;
    }
    EXPECT_FALSE(unwrap({0, 0}));
    EXPECT_EQ(capture.count("socks5 udp:missing ipv4 address"), 5u);
    EXPECT_EQ(host, "");

    auto payload = unwrap(reply("1234"));
    ASSERT_TRUE(payload);
    EXPECT_EQ(text(*payload), "1234");
    EXPECT_EQ(host, "127.0.0.1");
    EXPECT_EQ(port, 9999);
    auto empty = unwrap(reply(""));
    ASSERT_TRUE(empty);
    EXPECT_TRUE(empty->empty());
    EXPECT_EQ(capture.texts().size(), 7u);
}

TEST(ProxySpeedTest, MeasuresThroughARealRelay) {
    EchoFaults faults;
    faults.delaySeconds = 0.02;
    Path path(faults);
    ASSERT_TRUE(path.echo && path.relay);
    for (double interval : {0.0, 0.02}) {
        auto test = path.makeTest(5, interval);
        SpeedTestOutcome outcome;
        runToReport(outcome, [&] {
            test->speedTestToTargetAddress("127.0.0.1", path.echoPort, outcome.success(),
                                           outcome.failure());
        });
        std::lock_guard guard(outcome.mutex);
        ASSERT_EQ(outcome.results.size(), 1u) << interval;
        EXPECT_GE(outcome.results[0].first, 20);
        EXPECT_LT(outcome.results[0].first, 1500);
        EXPECT_EQ(outcome.results[0].second, 0);
        EXPECT_EQ(test->sentPacketNumber(), 5);
        EXPECT_EQ(test->computingStatus(), ProxySpeedTest::kStatusFinished);
        EXPECT_EQ(test->delays().size(), 5u);
        test->stop();
    }
    EXPECT_EQ(path.relay->requestsForwarded() % 5, 0u);
    // The relay counts a reply once its send returns, which can be after the test has it.
    EXPECT_TRUE(waitFor([&] { return path.relay->repliesRelayed() >= 10u; }));
    EXPECT_EQ(path.relay->requestsRejected(), 0u);
}

TEST(ProxySpeedTest, MalformedRepliesAreDroppedAndTheDeadlineDecides) {
    struct Case {
        std::string name;
        std::function<void(Socks5RelayFaults&)> fault;
        std::string logged;
        std::string token = std::to_string(kToken);
    };
    const std::string missing = "socks5 udp:missing ipv4 address";
    const Case cases[] = {
        {"frag 1", [](auto& f) { f.replyFrag = 1; }, "socks5 udp:unexpected frag"},
        {"atyp 3", [](auto& f) { f.replyAddressType = 3; }, "socks address type is not ipv4"},
        // Shorter replies are refused the same way (see the unwrap test).
        {"13 bytes", [](auto& f) { f.truncateReplyTo = 13; }, missing},
        {"garbage", [](auto& f) { f.garbageReplies = true; }, ""},
        {"wrong token", [](auto&) {}, "recv timeout, all udp packets lost.", "1"},
    };
    for (const auto& c : cases) {
        Socks5RelayFaults faults;
        c.fault(faults);
        Path path({}, faults);
        ASSERT_TRUE(path.echo && path.relay);
        log::Capture capture;
        // Paced, so that the first replies have several hundred milliseconds to come back
        // before the deadline even on a loaded machine.
        auto test = path.makeTest(3, 0.15, c.token);
        SpeedTestOutcome outcome;
        test->speedTestToTargetAddress("127.0.0.1", path.echoPort, outcome.success(),
                                       outcome.failure());
        ASSERT_TRUE(waitFor([&] { return outcome.reports() == 1; })) << c.name;
        std::lock_guard guard(outcome.mutex);
        ASSERT_EQ(outcome.failures.size(), 1u) << c.name;
        ASSERT_TRUE(outcome.failures[0]);
        EXPECT_EQ(outcome.failures[0]->domain, "ProxySpeedTestErrorDomain");
        EXPECT_EQ(outcome.failures[0]->code, 2) << c.name;
        EXPECT_EQ(outcome.failures[0]->localizedDescription(), "all udp packets lost");
        EXPECT_TRUE(capture.contains("recv timeout, all udp packets lost.")) << c.name;
        if (c.name == "wrong token") {
            EXPECT_EQ(path.relay->requestsRejected(), 3u);
            EXPECT_EQ(path.echo->requestsReceived(), 0u);
        } else if (!c.logged.empty()) {
            // Each reply that came back before the deadline was refused with its reason.
            EXPECT_GE(capture.count(c.logged), 1u) << c.name;
            EXPECT_LE(capture.count(c.logged), 3u) << c.name;
            EXPECT_EQ(capture.count("socks"), capture.count(c.logged)) << c.name;
        }
        // The time-out closed the socket.
        EXPECT_EQ(test->udpSocket(), nullptr);
    }
}

TEST(ProxySpeedTest, StatisticsUseATrimmedMeanAndSinglePrecisionLoss) {
    // The measured cases below go through it too.
    EXPECT_EQ(ProxySpeedTest::computeAvgOfNumbers({}), 0);
    EXPECT_EQ(ProxySpeedTest::computeAvgOfNumbers({7, 7, 7, 7, 7, 7, 7}), 7);
    EXPECT_EQ(ProxySpeedTest::computeAvgOfNumbers({1, 100}), 50.5);
    EXPECT_EQ(ProxySpeedTest::calculateAverageOfNumbers({}), 0);

    // Echo stamps chosen so that the delays are exact under a fixed clock.
    constexpr std::int64_t kStart = 1731637946000;
    struct Case {
        std::int64_t count;
        std::vector<std::int64_t> delays;  // one reply per delay, in order
        double average;
        double loss;
    };
    std::vector<Case> cases = {
        {5, {10, 20, 30, 40, 50}, 30, 0},
        {6, {10, 10, 20, 30, 40, 40}, 25, 0},
        {4, {10, 10, 10}, 10, 0.25},
        {3, {1}, 1, static_cast<double>(2.0f / 3.0f)},
    };
    for (const auto& c : cases) {
        FixedClock clock(kStart);
        SpeedTestOutcome outcome;
        std::shared_ptr<ProxySpeedTest> test;
        runToReport(outcome, [&] {
            clock.set(kStart);
            auto proxy = ScriptedPeer::start([](const Bytes&) { return std::vector<Bytes>{}; });
            test = ProxySpeedTest::create(0, c.count, 0, "127.0.0.1", proxy->port(), "1");
            test->speedTestToTargetAddress("127.0.0.1", 9, outcome.success(), outcome.failure());
            ASSERT_TRUE(waitFor([&] { return proxy->receivedCount() == std::size_t(c.count); }));
            EXPECT_EQ(payloadOf(proxy->received()[0]), "0");
            clock.set(kStart + 100);
            for (auto delay : c.delays)
                proxy->sendToLastSender(reply(std::to_string(100 - delay)));
        });
        std::lock_guard guard(outcome.mutex);
        ASSERT_EQ(outcome.results.size(), 1u);
        EXPECT_EQ(outcome.results[0].first, c.average);
        EXPECT_EQ(outcome.results[0].second, c.loss);
    }

    // Every echo back at the instant it left: an average of exactly 0 is a failure.
    setLocalizedStringTable({{"NodeSelectorErrorEmptyNodes", "No usable measurement"}});
    FixedClock clock(kStart);
    auto proxy = ScriptedPeer::start(
        [](const Bytes& request) { return std::vector<Bytes>{reply(payloadOf(request))}; });
    auto test = ProxySpeedTest::create(0, 2, 0, "127.0.0.1", proxy->port(), "1");
    SpeedTestOutcome outcome;
    test->speedTestToTargetAddress("127.0.0.1", 9, outcome.success(), outcome.failure());
    ASSERT_TRUE(waitFor([&] { return outcome.reports() == 1; }));
    setLocalizedStringTable({});
    std::lock_guard guard(outcome.mutex);
    ASSERT_EQ(outcome.failures.size(), 1u);
    ASSERT_TRUE(outcome.failures[0]);
    EXPECT_EQ(outcome.failures[0]->code, 5);
    EXPECT_EQ(outcome.failures[0]->localizedDescription(), "No usable measurement");
}

TEST(ProxySpeedTest, BadTokenAndBadEchoesFailByTheDeadline) {
    log::Capture capture;
    auto proxy = ScriptedPeer::start([](const Bytes&) {
        return std::vector<Bytes>{reply("12x"), reply(""), Bytes{0, 0, 0, 1}};
    });
    // A token with trailing text: nothing can be wrapped, yet every datagram is counted.
    auto unbuildable = ProxySpeedTest::create(0, 3, 0, "127.0.0.1", proxy->port(), "12a");
    SpeedTestOutcome first;
    unbuildable->speedTestToTargetAddress("127.0.0.1", 9, first.success(), first.failure());
    ASSERT_TRUE(waitFor([&] { return first.reports() == 1; }));
    EXPECT_EQ(unbuildable->sentPacketNumber(), 3);
    EXPECT_EQ(proxy->receivedCount(), 0u);
    {
        std::lock_guard guard(first.mutex);
        EXPECT_EQ(first.failures.at(0)->code, 2);
    }

    // Paced, so that the replies have time to come back before the deadline.
    auto test = ProxySpeedTest::create(0.15, 2, 0, "127.0.0.1", proxy->port(), "1");
    SpeedTestOutcome second;
    test->speedTestToTargetAddress("127.0.0.1", 9, second.success(), second.failure());
    ASSERT_TRUE(waitFor([&] { return second.reports() == 1; }));
    std::lock_guard guard(second.mutex);
    EXPECT_EQ(second.failures.at(0)->code, 2);
    EXPECT_GE(capture.count("time from server:12x is not all digits"), 1u);
    EXPECT_GE(capture.count("socks5 udp:missing ipv4 address"), 1u);
    EXPECT_FALSE(capture.contains("invalid time("));
}

TEST(ProxySpeedTest, SocketClosesEndATest) {
    auto silent = ScriptedPeer::start([](const Bytes&) { return std::vector<Bytes>{}; });
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
        auto test = ProxySpeedTest::create(0.5, 10, 0, "127.0.0.1", silent->port(), "1");
        SpeedTestOutcome outcome;
        test->speedTestToTargetAddress("127.0.0.1", 9, outcome.success(), outcome.failure());
        auto socket = test->udpSocket();
        ASSERT_TRUE(socket);
        // The callbacks are in place once the start task has run on the data queue.
        ASSERT_TRUE(waitFor([&] { return test->targetAddress() == "127.0.0.1"; }));
        if (c.closeError)
            socket->closeWithError(*c.closeError);
        else
            socket->close();
        ASSERT_TRUE(waitFor([&] { return outcome.reports() == 1; }));
        EXPECT_EQ(test->udpSocket(), nullptr);
        test->stop();
        std::lock_guard guard(outcome.mutex);
        ASSERT_EQ(outcome.failures.size(), 1u);
        if (!c.code) {
            EXPECT_FALSE(outcome.failures[0]);
        } else {
            ASSERT_TRUE(outcome.failures[0]);
            EXPECT_EQ(outcome.failures[0]->code, *c.code);
            EXPECT_EQ(outcome.failures[0]->localizedDescription(), c.description);
        }
    }
    EXPECT_TRUE(ProxySpeedTest::isNoBufferSpaceAvailbaleError(Error("AnyDomain", ENOBUFS)));
    EXPECT_FALSE(ProxySpeedTest::isNoBufferSpaceAvailbaleError(std::nullopt));
}

TEST(ProxySpeedTest, StopAndReleaseInTheMiddleReportNothing) {
    EchoFaults faults;
    faults.delaySeconds = 0.03;
    Path path(faults);
    ASSERT_TRUE(path.echo && path.relay);

    // Stopped while pacing, after the first echoes are in.
    auto stopped = path.makeTest(20, 0.05);
    SpeedTestOutcome stoppedOutcome;
    stopped->speedTestToTargetAddress("127.0.0.1", path.echoPort, stoppedOutcome.success(),
                                      stoppedOutcome.failure());
    ASSERT_TRUE(waitFor([&] { return path.relay->repliesRelayed() >= 2; }));
    stopped->stop();
    EXPECT_EQ(stopped->udpSocket(), nullptr);
    auto sentAtStop = stopped->sentPacketNumber();

    // Stopped before its start task ran.
    auto early = path.makeTest(3);
    SpeedTestOutcome earlyOutcome;
    early->speedTestToTargetAddress("127.0.0.1", path.echoPort, earlyOutcome.success(),
                                    earlyOutcome.failure());
    early->stop();

    // Released in the middle of a burst and of a paced test.
    SpeedTestOutcome releasedOutcome;
    for (double interval : {0.0, 0.01}) {
        auto released = path.makeTest(5, interval);
        released->speedTestToTargetAddress("127.0.0.1", path.echoPort, releasedOutcome.success(),
                                           releasedOutcome.failure());
        std::this_thread::sleep_for(std::chrono::milliseconds(15));
    }

    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(stoppedOutcome.reports(), 0u);
    EXPECT_EQ(earlyOutcome.reports(), 0u);
    EXPECT_EQ(releasedOutcome.reports(), 0u);
    EXPECT_LE(stopped->sentPacketNumber(), sentAtStop + 1);
    EXPECT_LT(stopped->sentPacketNumber(), 20);
}

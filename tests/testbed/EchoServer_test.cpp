// test-labels: concurrency
#include "lmkit/testbed/EchoServer.hpp"

#include <netinet/in.h>

#include <chrono>
#include <map>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "lmkit/platform/Clock.hpp"
#include "support/DatagramRecorder.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::udpEndpoint;
using lmkit::testing::waitFor;

namespace {

std::unique_ptr<EchoServer> startOne(const std::string& spec, uint64_t seed = 1) {
    Error error;
    auto endpoints = EchoServer::parseEndpoints(spec, &error);
    EXPECT_TRUE(endpoints) << error.localizedDescription();
    if (!endpoints)
        return nullptr;
    auto server = EchoServer::start(*endpoints, seed, &error);
    EXPECT_TRUE(server) << error.localizedDescription();
    return server;
}

}  // namespace

TEST(EchoServer, AnswersFromEachProbedAddressOnOnePort) {
    auto first = startOne("127.0.0.2:0");
    ASSERT_TRUE(first);
    uint16_t port = first->endpoints()[0].port;
    std::vector<EchoEndpointConfig> more{
        {"127.0.0.3", port, {}}, {"127.0.0.4", port, {}}, {"::1", 0, {}}};
    Error error;
    auto second = EchoServer::start(more, 1, &error);
    ASSERT_TRUE(second) << error.localizedDescription();

    auto prober = udpEndpoint("test.echo.prober");
    std::vector<SocketAddress> targets = first->endpoints();
    for (const auto& endpoint : second->endpoints())
        targets.push_back(endpoint);
    for (const auto& target : targets)
        prober.send("probe " + target.host, target);
    ASSERT_TRUE(waitFor([&] { return prober.recorder->count() == targets.size(); }));
    for (const auto& reply : prober.recorder->received()) {
        EXPECT_EQ(reply.text, "probe " + reply.from.host);
        bool matched = false;
        for (const auto& target : targets) {
            matched |= target.host == reply.from.host && target.port == reply.from.port;
        }
        EXPECT_TRUE(matched) << reply.from.host << ":" << reply.from.port;
    }
    EXPECT_EQ(first->requestsReceived() + second->requestsReceived(), targets.size());
}

TEST(EchoServer, ManyAddressesOnOnePortShareASocketAndStillAnswerFromEach) {
    // Seventy endpoints on one port are served by one socket: every reply, a held one or one cut
    // from a joined message, still leaves from the address it was sent to, and a datagram to an
    // address with no endpoint is neither answered nor counted.
    uint16_t port = 0;
    auto server = EchoServer::startOnOnePort(
        [](uint16_t on) {
            std::vector<EchoEndpointConfig> endpoints;
            for (int i = 1; i <= 70; ++i) {
                EchoFaults faults;
                faults.delaySeconds = i % 2 ? 0 : 0.005;
                endpoints.push_back({"127.3.0." + std::to_string(i), on, faults});
            }
            return endpoints;
        },
        1, port);
    ASSERT_TRUE(server);
    auto prober = udpEndpoint("test.echo.prober");
    const auto targets = server->endpoints();
    for (const auto& target : targets)
        prober.send("probe " + target.host, target);
    std::vector<OutgoingDatagram> joined(3, {"probe 127.3.0.2", "127.3.0.2", port, 0});
    ASSERT_TRUE(prober.socket->sendDatagrams(joined));
    prober.send("probe 127.3.1.1", {"127.3.1.1", port, AF_INET});
    const std::size_t expected = targets.size() + joined.size();
    ASSERT_TRUE(waitFor([&] { return prober.recorder->count() == expected; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(prober.recorder->count(), expected);
    for (const auto& reply : prober.recorder->received()) {
        EXPECT_EQ(reply.text, "probe " + reply.from.host);
        EXPECT_EQ(reply.from.port, port);
    }
    EXPECT_EQ(server->requestsReceived(), expected);
}

TEST(EchoServer, LossIsSeededAndRepeatable) {
    auto run = [](uint64_t seed) {
        auto server = startOne("127.0.0.1:0/loss=0.5", seed);
        auto prober = udpEndpoint("test.echo.prober");
        // Sent one at a time so the server sees the same order in every run.
        for (int i = 0; i < 200; ++i) {
            prober.send(std::to_string(i), server->endpoints()[0]);
            waitFor([&] { return server->requestsReceived() == static_cast<uint64_t>(i + 1); });
        }
        waitFor([&] { return prober.recorder->count() == server->repliesSent(); });
        std::set<std::string> echoed;
        for (const auto& reply : prober.recorder->received())
            echoed.insert(reply.text);
        return echoed;
    };
    auto a = run(7);
    auto b = run(7);
    EXPECT_EQ(a, b);
    EXPECT_GT(a.size(), 50u);
    EXPECT_LT(a.size(), 150u);
}

TEST(EchoServer, FaultModesShapeTheReplies) {
    auto server = startOne("127.0.0.1:0/duplicate");
    auto garbage = startOne("127.0.0.1:0/garbage");
    auto otherPort = startOne("127.0.0.1:0/other-port");
    auto junk = startOne("127.0.0.1:0/junk=3");

    auto prober = udpEndpoint("test.echo.prober");
    prober.send("dup", server->endpoints()[0]);
    prober.send("12345", garbage->endpoints()[0]);
    prober.send("moved", otherPort->endpoints()[0]);
    prober.send("real", junk->endpoints()[0]);
    ASSERT_TRUE(waitFor([&] { return prober.recorder->count() == 2 + 1 + 1 + 4; }));
    int dups = 0, junkCount = 0, real = 0;
    for (const auto& reply : prober.recorder->received()) {
        if (reply.from.port == server->endpoints()[0].port) {
            dups += reply.text == "dup";
        }
        if (reply.from.port == garbage->endpoints()[0].port) {
            EXPECT_NE(reply.text, "12345");
        }
        if (reply.text == "moved") {
            EXPECT_NE(reply.from.port, otherPort->endpoints()[0].port);
        }
        if (reply.from.port == junk->endpoints()[0].port) {
            reply.text == "real" ? ++real : ++junkCount;
        }
    }
    EXPECT_EQ(dups, 2);
    EXPECT_EQ(real, 1);
    EXPECT_EQ(junkCount, 3);
}

TEST(EchoServer, ReorderSwapsPairsAndDelayHoldsReplies) {
    auto reorder = startOne("127.0.0.1:0/reorder");
    auto prober = udpEndpoint("test.echo.prober");
    prober.send("first", reorder->endpoints()[0]);
    ASSERT_TRUE(waitFor([&] { return reorder->requestsReceived() == 1; }));
    prober.send("second", reorder->endpoints()[0]);
    ASSERT_TRUE(waitFor([&] { return prober.recorder->count() == 2; }));
    EXPECT_EQ(prober.recorder->received()[0].text, "second");
    EXPECT_EQ(prober.recorder->received()[1].text, "first");
}

TEST(EchoServer, EachReplyKeepsItsOwnDeadlineUnderLoad) {
    // 500 requests held 50 ms over 100 endpoints, then requests to an endpoint without delay:
    // no delayed reply leaves early, and none of the others waits behind them. (Reading the 500
    // takes a sanitizer build on a busy machine tens of milliseconds: the hold is longer still.)
    std::vector<EchoEndpointConfig> endpoints(100);
    for (auto& endpoint : endpoints)
        endpoint.faults.delaySeconds = 0.050;
    endpoints.push_back({});
    Error error;
    auto server = EchoServer::start(endpoints, 1, &error);
    ASSERT_TRUE(server) << error.localizedDescription();
    const auto targets = server->endpoints();

    auto prober = udpEndpoint("test.echo.prober");
    std::map<std::string, double> sentAt;
    for (int i = 0; i < 500; ++i) {
        const std::string text = "d" + std::to_string(i);
        sentAt[text] = Clock::nowMilliseconds();
        prober.send(text, targets[static_cast<size_t>(i % 100)]);
    }
    for (int i = 0; i < 20; ++i) {
        const std::string text = "p" + std::to_string(i);
        sentAt[text] = Clock::nowMilliseconds();
        prober.send(text, targets.back());
    }
    ASSERT_TRUE(waitFor([&] { return prober.recorder->count() == sentAt.size(); }));
    for (const auto& reply : prober.recorder->received()) {
        const double took = reply.receivedAt - sentAt.at(reply.text);
        if (reply.text[0] == 'd')
            EXPECT_GE(took, 49.99) << reply.text;
        else
            EXPECT_LT(took, 40.0) << reply.text;
    }
}

TEST(EchoServer, ProbesSentAsOneSegmentedMessageComeBackOneByOne) {
    // The kit joins a server's back-to-back probes into one segmented message, which the server
    // reads whole: answered at once, held, or with faults drawn per datagram, every probe still
    // comes back as a datagram of its own, the shorter last one included.
    auto plain = startOne("127.0.0.1:0");
    auto held = startOne("127.0.0.1:0/delay=5");
    auto duplicated = startOne("127.0.0.1:0/duplicate");
    auto prober = udpEndpoint("test.echo.prober");
    const std::vector<std::string> texts{"seg-0", "seg-1", "seg-2", "seg-3", "s4"};
    std::vector<OutgoingDatagram> batch;
    for (const auto* server : {plain.get(), held.get(), duplicated.get()})
        for (const auto& text : texts)
            batch.push_back({text, "127.0.0.1", server->endpoints()[0].port, 0});
    ASSERT_TRUE(prober.socket->sendDatagrams(batch));
    ASSERT_TRUE(waitFor([&] { return prober.recorder->count() == 4 * texts.size(); }));
    std::map<uint16_t, std::multiset<std::string>> byServer;
    for (const auto& reply : prober.recorder->received())
        byServer[reply.from.port].insert(reply.text);
    const std::multiset<std::string> once(texts.begin(), texts.end());
    std::multiset<std::string> twice = once;
    twice.insert(texts.begin(), texts.end());
    EXPECT_EQ(byServer[plain->endpoints()[0].port], once);
    EXPECT_EQ(byServer[held->endpoints()[0].port], once);
    EXPECT_EQ(byServer[duplicated->endpoints()[0].port], twice);
    EXPECT_EQ(plain->requestsReceived() + held->requestsReceived(), 2 * texts.size());
    // A server counts a reply once its send returns, which may be after the reply arrived.
    EXPECT_TRUE(
        waitFor([&] { return plain->repliesSent() + held->repliesSent() == 2 * texts.size(); }));
}

TEST(EchoServer, EndpointTextIsCheckedBeforeAnythingOpens) {
    auto range = EchoServer::parseEndpoints("127.0.0.1:20000-20002/delay=5,loss=0.25,other-port");
    ASSERT_TRUE(range);
    ASSERT_EQ(range->size(), 3u);
    EXPECT_EQ((*range)[2].port, 20002);
    EXPECT_DOUBLE_EQ((*range)[0].faults.delaySeconds, 0.005);
    EXPECT_DOUBLE_EQ((*range)[0].faults.loss, 0.25);
    EXPECT_TRUE((*range)[0].faults.otherPort);

    auto v6 = EchoServer::parseEndpoints("[::1]:9999");
    ASSERT_TRUE(v6);
    EXPECT_EQ((*v6)[0].host, "::1");

    for (const char* bad : {"127.0.0.1", "localhost:9", "127.0.0.1:70000", "127.0.0.1:9-5",
                            "127.0.0.1:9/loss=2", "127.0.0.1:9/bogus", "[::1:9"}) {
        Error error;
        EXPECT_FALSE(EchoServer::parseEndpoints(bad, &error)) << bad;
        EXPECT_NE(error.localizedDescription().find(bad), std::string::npos);
    }
    Error error;
    EXPECT_FALSE(EchoServer::start({}, 1, &error));
    EXPECT_FALSE(error.localizedDescription().empty());
}

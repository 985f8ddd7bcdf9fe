// test-labels: concurrency
#include "lmkit/tunnel/BoostEffectGameResultItem.hpp"

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/netinfo/NetworkInfoProvider.hpp"
#include "lmkit/testbed/EchoServer.hpp"
#include "support/TestSupport.hpp"

namespace lmkit {
namespace {

using Item = BoostEffectGameResultItem;
using StringRef = Item::StringRef;

StringRef text(const std::string& value) {
    return std::make_shared<const std::string>(value);
}

std::shared_ptr<BridgeGame> makeGame(const std::string& gid = "g-1") {
    auto game = std::make_shared<BridgeGame>();
    game->gid = gid;
    game->name = "Arena";
    return game;
}

// Everything the item would ask the device, answered by the test.
struct FakeSurroundings {
    std::atomic<bool> wifiAvailable{true};
    std::atomic<bool> cellularAvailable{true};
    std::atomic<int> networkChangeMessages{0};
    NotificationCenter center;

    Item::Environment environment() {
        Item::Environment env;
        env.isNetworkAvailable = [this](int kind) {
            return kind == 1 ? wifiAvailable.load() : cellularAvailable.load();
        };
        env.isDualChannelEnabled = [] { return false; };
        env.currentNetworkInterface = [] { return std::string("WIFI"); };
        env.dualChannelInterfaces = [] {
            return std::make_pair(std::string("en0"), std::string("pdp_ip0"));
        };
        env.passMessageForNetworkChange = [this] { ++networkChangeMessages; };
        env.notificationCenter = &center;
        return env;
    }
};

class BoostEffectItemTest : public ::testing::Test {
  protected:
    // The relay measured alone: the same string object as speed-test and proxy address.
    std::shared_ptr<Item> singleLine(double rearDelay = 20) {
        auto relay = text("10.0.0.1");
        return Item::create(makeGame(), false, Number(1700000000.9), 60, relay, 443, relay, 443,
                            Number(rearDelay), nullptr, fake_.environment());
    }
    std::shared_ptr<Item> doubleLine(double rearDelay = 30) {
        return Item::create(makeGame(), false, Number(1700000000), 60, text("203.0.113.9"), 7000,
                            text("10.0.0.1"), 443, Number(rearDelay), nullptr, fake_.environment());
    }

    FakeSurroundings fake_;
};

TEST_F(BoostEffectItemTest, InitialiserRefusesIncompleteArgumentsAndPicksModeByIdentity) {
    auto env = fake_.environment();
    auto proxy = text("10.0.0.1");
    EXPECT_FALSE(
        Item::create(nullptr, false, Number(1), 1, proxy, 1, proxy, 443, Number(0), nullptr, env));
    EXPECT_FALSE(Item::create(makeGame(), false, Number(1), 1, proxy, 1, nullptr, 443, Number(0),
                              nullptr, env));
    EXPECT_FALSE(Item::create(makeGame(), false, Number(1), 1, proxy, 1, text(""), 443, Number(0),
                              nullptr, env));
    EXPECT_FALSE(
        Item::create(makeGame(), false, Number(1), 1, proxy, 1, proxy, 0, Number(0), nullptr, env));

    auto single = singleLine();
    ASSERT_TRUE(single);
    EXPECT_EQ(single->mode(), Item::SingleLine);
    EXPECT_EQ(single->modeName(), "Single Line");
    EXPECT_EQ(single->storeKey(), "g-1_1700000000");  // the start time's whole seconds
    EXPECT_FALSE(single->directDelay());

    // No round is ever started without a positive interval between rounds.
    log::Capture capture;
    auto busy = Item::create(makeGame(), false, Number(1), 0, proxy, 443, proxy, 443, Number(0),
                             nullptr, env);
    busy->speedTest();
    EXPECT_TRUE(capture.contains("[Speed test] Not started"));

    // Equal texts in two objects are two paths to measure.
    auto twin = Item::create(makeGame(), false, Number(1), 1, text("10.0.0.1"), 443,
                             text("10.0.0.1"), 443, Number(0), nullptr, env);
    ASSERT_TRUE(twin);
    EXPECT_EQ(twin->mode(), Item::DoubleLine);
    EXPECT_EQ(twin->modeName(), "Double Line");
}

TEST_F(BoostEffectItemTest, SingleLineHandlersAddTheRearDelayAndCapAt400) {
    auto item = singleLine(20);
    item->directSpeedTestDidSucceed(100, {100});
    EXPECT_EQ(item->directDelay(), 120.0);
    item->directSpeedTestDidSucceed(503, {503});
    EXPECT_EQ(item->directDelay(), 400.0);
    item->directSpeedTestDidFail(Error("test", 1));
    EXPECT_EQ(item->directDelay(), 400.0);
    DualChannelOutcome dual;
    dual.wifiDelay = 90;
    dual.cellularDelay = 50;
    item->dualChannelSpeedTestDidComplete(dual);
    EXPECT_EQ(item->directDelay(), 70.0);  // the better side plus the relay's own delay
    EXPECT_EQ(item->wifiDelay(), 90.0);
    EXPECT_EQ(item->cellularDelay(), 50.0);
    EXPECT_EQ(item->directDelays().immutableArray(), (std::vector<double>{120, 400, 400, 70}));
    EXPECT_TRUE(item->proxyDelays().immutableArray().empty());
    EXPECT_FALSE(item->cacheInfo());
}

TEST_F(BoostEffectItemTest, DelayListsKeepTheNewest120) {
    ThreadSafeMutableArray<double> delays;
    for (int i = 1; i <= 121; ++i)
        Item::addDelay(i, delays);
    Item::addDelay(std::nullopt, delays);
    auto all = delays.immutableArray();
    ASSERT_EQ(all.size(), 120u);
    EXPECT_EQ(all.front(), 2.0);
    EXPECT_EQ(all.back(), 121.0);
}

TEST_F(BoostEffectItemTest, PeriodStatisticsCapAt400AndKeepARunningAverage) {
    auto item = singleLine();
    item->updateDelaysWithDelay(std::nullopt);
    EXPECT_EQ(item->periodCount(), 0);
    item->updateDelaysWithDelay(400);
    EXPECT_EQ(item->periodMaxDelay(), 400.0);
    item->updateDelaysWithDelay(401);  // counts as 400
    item->updateDelaysWithDelay(523);  // counts as 400
    item->updateDelaysWithDelay(100);
    EXPECT_EQ(item->periodCount(), 4);
    EXPECT_EQ(item->periodMaxDelay(), 400.0);
    EXPECT_EQ(item->periodMinDelay(), 100.0);
    EXPECT_DOUBLE_EQ(item->periodAvgDelay(), 325.0);
}

TEST(BoostEffectSummary, SummariesAndEncoding) {
    // Maximum, minimum, average, deviation and loss of the answered samples.
    auto summary = [](const std::vector<double>& delays) {
        auto s = Item::calculateWithDelays(delays);
        return std::vector<double>{s.maximum, s.minimum, s.average, s.deviation, s.loss};
    };
    EXPECT_EQ(summary({-1, -1}), (std::vector<double>{-1, -1, -1, 0, 1}));
    EXPECT_EQ(summary({100, 200, -1}), (std::vector<double>{200, 100, 150, 50, 1.0 / 3}));
    EXPECT_EQ(summary({}), (std::vector<double>{-1, -1, -1, 0, 0}));

    EXPECT_EQ(Item::encodeDelaysAsIntegerStringWithDelays({}), "[]");
    EXPECT_EQ(Item::encodeDelaysAsIntegerStringWithDelays({12.7, -1, 300}), "[12, -1, 300]");
}

TEST_F(BoostEffectItemTest, StatisticsLinesEverySixthRoundWithExactText) {
    auto item = singleLine(20);
    std::vector<int> logged;
    for (int round = 1; round <= 13; ++round) {
        if (item->shouldRecordDirectSpeedTestLog())
            logged.push_back(round);
    }
    EXPECT_EQ(logged, (std::vector<int>{1, 7, 13}));

    // The proxy counter is separate: its rounds come from the relay answers.
    log::Capture capture;
    item->directSpeedTestDidSucceed(20, {10, 30, -1});
    EXPECT_TRUE(capture.contains(
        "[Network Statistics] Single Line/proxy(gid:g-1), proxy IP: 10.0.0.1, proxy port: 443, "
        "dual-channel: false, current network interface: WIFI, max/min/avg: 30/10/20, "
        "deviation: 10.000000, loss: 0.3, rear_delay: 20, final delay: 40, all delays: "
        "[10, 30, -1]"))
        << ::testing::PrintToString(capture.texts());
    for (int round = 2; round <= 6; ++round)
        item->directSpeedTestDidSucceed(20, {20});
    item->directSpeedTestDidFail(Error("test", 1));  // the 7th relay answer logs again
    EXPECT_EQ(capture.count("[Network Statistics] Single Line/proxy(gid:g-1)"), 2u);
    EXPECT_TRUE(capture.contains(
        "[Network Statistics] Single Line/proxy(gid:g-1), proxy IP: 10.0.0.1, proxy port: 443, "
        "dual-channel: false, current network interface: WIFI, max/min/avg: -1/-1/-1, "
        "deviation: 0, loss: 1.0, rear_delay: 20"));
}

// The two halves of a double-line round (rear delay 30) in every order of arrival: the first
// half waits in the cache, the second one settles both delays (failures and direct delays over
// 400 count as 400; the relay's delay adds the rear delay).
TEST_F(BoostEffectItemTest, DoubleLineHalvesMeetInEitherOrder) {
    using Step = std::function<void(Item&)>;
    const Step direct80 = [](Item& i) { i.directSpeedTestDidSucceed(80, {80}); };
    const Step direct523 = [](Item& i) { i.directSpeedTestDidSucceed(523, {523}); };
    const Step directFails = [](Item& i) { i.directSpeedTestDidFail(Error("test", 1)); };
    const Step relay40 = [](Item& i) { i.proxySpeedTestDidSucceed(40, {40}); };
    const Step relayFails = [](Item& i) { i.proxySpeedTestDidFail(Error("test", 1)); };
    const Step dual = [](Item& i) {
        DualChannelOutcome outcome;
        outcome.wifiDelays = std::vector<double>{60};
        outcome.wifiDelay = 60;
        outcome.cellularDelays = std::vector<double>{30};
        outcome.cellularDelay = 30;
        i.dualChannelSpeedTestDidComplete(outcome);
    };
    using Cached = Item::CacheInfo;
    const struct {
        const char* name;
        Step first, second;
        Cached::Type cached;
        double direct, proxy;
    } cases[] = {
        {"direct, relay", direct80, relay40, Cached::DirectSucceeded, 80, 70},
        {"relay, capped direct", relay40, direct523, Cached::ProxySucceeded, 400, 70},
        {"direct, failed relay", direct80, relayFails, Cached::DirectSucceeded, 400, 400},
        {"failed relay, direct", relayFails, direct80, Cached::ProxyFailed, 80, 400},
        {"failed direct, relay", directFails, relay40, Cached::DirectFailed, 400, 70},
        {"relay, failed direct", relay40, directFails, Cached::ProxySucceeded, 400, 70},
        {"dual channel, direct", dual, direct80, Cached::DualChannelCompleted, 80, 60},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto item = doubleLine();
        c.first(*item);
        ASSERT_TRUE(item->cacheInfo());
        EXPECT_EQ(item->cacheInfo()->type, c.cached);
        EXPECT_FALSE(item->directDelay());
        EXPECT_FALSE(item->proxyDelay());
        c.second(*item);
        EXPECT_FALSE(item->cacheInfo());
        EXPECT_EQ(item->directDelay(), c.direct);
        EXPECT_EQ(item->proxyDelay(), c.proxy);
        EXPECT_EQ(item->proxyDelays().immutableArray(), std::vector<double>{c.proxy});
    }

    // A failed direct half is logged with the direct path's address.
    auto item = doubleLine();
    log::Capture capture;
    relay40(*item);
    directFails(*item);
    EXPECT_TRUE(capture.contains(
        "[Network Statistics] double line/direct(gid:g-1), direct IP: 203.0.113.9, direct "
        "port: 7000, current network interface: WIFI, max/min/avg: -1/-1/-1, deviation: 0, "
        "loss: 1.0"));
}

TEST_F(BoostEffectItemTest, TrafficPeriodsSumOneKeyAndReportTheClosedPeriod) {
    auto item = doubleLine();
    EXPECT_FALSE(item->updateGameServerWithRemoteIP("198.51.100.4", 9000, "10.0.0.2", 443,
                                                    "198.51.100.4", Number(25), 10, 1000));
    EXPECT_EQ(item->key(), "198.51.100.4:9000:10.0.0.2:443");
    EXPECT_TRUE(item->hasUpdatedProxyAddress());
    EXPECT_TRUE(item->needUpdateProxyAddress());
    EXPECT_EQ(*item->proxyAddress(), "10.0.0.2");
    EXPECT_EQ(*item->speedTestAddress(), "198.51.100.4");

    // The same pair again: counted into the open period.
    EXPECT_FALSE(item->updateGameServerWithRemoteIP("198.51.100.4", 9000, "10.0.0.2", 443,
                                                    std::nullopt, Number(35), 5, 500));
    EXPECT_EQ(item->periodPackets(), 15);
    EXPECT_EQ(item->periodBytes(), 1500);
    EXPECT_EQ(item->rearDelay(), Number(35));

    // Relay answers now feed the period with their front delay.
    item->proxySpeedTestDidSucceed(50, {50});
    item->directSpeedTestDidSucceed(90, {90});
    item->proxySpeedTestDidSucceed(30, {30});
    item->directSpeedTestDidSucceed(90, {90});
    EXPECT_EQ(item->periodCount(), 2);

    log::Capture capture;
    auto record = item->updateGameServerWithRemoteIP("198.51.100.5", 9001, "10.0.0.3", 444, "",
                                                     Number(12), 1, 64);
    ASSERT_TRUE(record);
    // The closed period: its pair, its own round trip (from its opening), the relay answers'
    // front delays and the summed traffic.
    auto fields = nlohmann::json::parse(record->dump());
    EXPECT_LE(fields.at("start_timestamp"), fields.at("end_timestamp"));
    fields.erase("start_timestamp");
    fields.erase("end_timestamp");
    EXPECT_EQ(fields, nlohmann::json::parse(R"({"gid":"g-1","tproxy_ip":"10.0.0.2",
        "tproxy_port":443,"target_ip":"198.51.100.4","target_port":9000,"protocol":"UDP",
        "rear_delay":25,"total_avg_delay":40,"total_min_delay":30,"total_max_delay":50,
        "avg_packet_loss":0,"total_packets":15,"total_bytes":1500})"));
    // The new period starts clean; an empty direct IP leaves the tested address alone.
    EXPECT_EQ(item->periodCount(), 0);
    EXPECT_EQ(item->periodPackets(), 1);
    EXPECT_EQ(*item->speedTestAddress(), "198.51.100.4");
    EXPECT_TRUE(capture.contains("[TProxy] [Traffic Identify] Empty direct IP"));
}

TEST_F(BoostEffectItemTest, CellularToWiFiStopsTheTestersAndEveryChangeIsPassedOn) {
    auto item = doubleLine();
    auto post = [&](int current, int last) {
        nlohmann::ordered_json info = {{NetworkInfoProvider::kCurrentNetworkTypeKey, current},
                                       {NetworkInfoProvider::kLastNetworkTypeKey, last}};
        fake_.center.post(NetworkInfoProvider::kNetworkStatusDidChangeNotification, info);
    };
    // The subscription is made a little after creation: wait until a change gets through.
    ASSERT_TRUE(testing::waitFor(
        [&] {
            post(4, 1);
            return fake_.networkChangeMessages > 0;
        },
        10));
    log::Capture capture;
    const int before = fake_.networkChangeMessages;
    post(1, 4);
    EXPECT_EQ(capture.count("Network switched from Cellular to Wi-Fi, restart speed test tasks..."),
              1u);
    fake_.wifiAvailable = false;
    post(1, 4);
    post(1, 0);
    EXPECT_EQ(capture.count("Network switched from Cellular to Wi-Fi"), 1u);
    EXPECT_EQ(fake_.networkChangeMessages, before + 3);

    // A block of the item's own still in flight may hold it a moment longer: once it is gone,
    // no change reaches it.
    std::weak_ptr gone = item;
    item.reset();
    ASSERT_TRUE(testing::waitFor([&] { return gone.expired(); }, 5));
    post(1, 4);
    EXPECT_EQ(fake_.networkChangeMessages, before + 3);
}

// Real speed tests against two loopback echo endpoints: one stands for the game server, the
// other, slower, for the relay.
TEST_F(BoostEffectItemTest, MeasuresDirectAndRelayPathsAgainstEchoEndpoints) {
    constexpr double kDirectMs = 30;
    constexpr double kRelayMs = 90;
    constexpr double kRearMs = 20;
    EchoEndpointConfig direct;
    direct.faults.delaySeconds = kDirectMs / 1000;
    EchoEndpointConfig relay;
    relay.faults.delaySeconds = kRelayMs / 1000;
    Error error;
    auto server = EchoServer::start({direct, relay}, 1, &error);
    ASSERT_TRUE(server) << error.localizedDescription();
    auto endpoints = server->endpoints();

    log::Capture capture;
    auto item = Item::create(makeGame("g-live"), false, Number(1), 0.3, text("127.0.0.1"),
                             endpoints[0].port, text("127.0.0.1"), endpoints[1].port,
                             Number(kRearMs), nullptr, fake_.environment());
    ASSERT_TRUE(item);
    ASSERT_EQ(item->mode(), Item::DoubleLine);
    item->speedTest();
    ASSERT_TRUE(testing::waitFor(
        [&] { return item->directDelays().count() >= 2 && item->proxyDelays().count() >= 2; }, 20));
    item->stop();
    // Answers already being handled hold the item for a moment; let them finish before the
    // fake surroundings go away.
    ASSERT_TRUE(testing::waitFor([&] { return item.use_count() == 1; }));

    // Delays are at least what the endpoints add; loopback adds little on top.
    const double directDelay = *item->directDelay();
    const double proxyDelay = *item->proxyDelay();
    RecordProperty("directDelay", std::to_string(directDelay));
    RecordProperty("proxyDelay", std::to_string(proxyDelay));
    EXPECT_GE(directDelay, kDirectMs - 1);
    EXPECT_LT(directDelay, kDirectMs + 60);
    EXPECT_GE(proxyDelay, kRelayMs + kRearMs - 1);
    EXPECT_LT(proxyDelay, kRelayMs + kRearMs + 60);
    EXPECT_TRUE(capture.contains("[Speed test] Enable new speedometer."));
    EXPECT_TRUE(
        capture.contains("[Network Statistics] double line/direct(gid:g-live), direct IP: "
                         "127.0.0.1, direct port: " +
                         std::to_string(endpoints[0].port)));
    EXPECT_TRUE(capture.contains("[Network Statistics] Double Line/proxy(gid:g-live)"));
}

TEST_F(BoostEffectItemTest, LossyAndDeadPathsStillYieldSamplesAtTheDemosInterval) {
    // Every test is replaced by the next one half a second later: a round that waits past that
    // for a lost packet never reports, so the round must fit the interval.
    constexpr double kInterval = 0.5;
    EchoEndpointConfig lossy;
    lossy.faults.loss = 0.1;
    EchoEndpointConfig dead;
    dead.faults.loss = 1.0;
    Error error;
    auto server = EchoServer::start({lossy, dead}, 7, &error);
    ASSERT_TRUE(server) << error.localizedDescription();
    auto endpoints = server->endpoints();

    // One line at 10% loss: rounds report the answered packets' mean.
    auto address = text("127.0.0.1");
    auto single =
        Item::create(makeGame("g-lossy"), false, Number(1), kInterval, address, endpoints[0].port,
                     address, endpoints[0].port, Number(0), nullptr, fake_.environment());
    ASSERT_TRUE(single);
    single->speedTest();
    ASSERT_TRUE(testing::waitFor([&] { return single->directDelays().count() >= 4; }, 30));
    single->stop();
    auto samples = single->directDelays().immutableArray();
    EXPECT_TRUE(std::any_of(samples.begin(), samples.end(), [](double d) { return d < 400; }));

    // Two lines with a dead relay: the relay's rounds fail and both lists get 400 ms entries.
    auto both = Item::create(makeGame("g-dead"), false, Number(1), kInterval, text("127.0.0.1"),
                             endpoints[0].port, text("127.0.0.1"), endpoints[1].port, Number(0),
                             nullptr, fake_.environment());
    ASSERT_TRUE(both);
    both->speedTest();
    ASSERT_TRUE(testing::waitFor(
        [&] { return both->proxyDelays().count() >= 3 && both->directDelays().count() >= 3; }, 30));
    both->stop();
    for (double delay : both->proxyDelays().immutableArray())
        EXPECT_EQ(delay, 400.0);
    ASSERT_TRUE(testing::waitFor([&] { return single.use_count() == 1 && both.use_count() == 1; }));
}

}  // namespace
}  // namespace lmkit

#include "lmkit/tunnel/BoostEffectDataManager.hpp"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lmkit/foundation/Log.hpp"

namespace lmkit {
namespace {

using Item = BoostEffectGameResultItem;

std::shared_ptr<const VPNSimpleStartOptions> optionsFor(const std::string& gid) {
    auto options = std::make_shared<VPNSimpleStartOptions>();
    options->game = std::make_shared<BridgeGame>();
    options->game->gid = gid;
    options->techIconState = std::make_shared<BoostTechIconState>();
    return options;
}

// Items without a speed-test address run no speed tests: the lists hold only what a test
// puts there.
Item::Environment quietEnvironment() {
    Item::Environment env;
    env.isNetworkAvailable = [](int) { return false; };
    env.isDualChannelEnabled = [] { return false; };
    env.currentNetworkInterface = [] { return std::string("WIFI"); };
    env.dualChannelInterfaces = [] {
        return std::make_pair(std::string("en0"), std::string("pdp_ip0"));
    };
    env.passMessageForNetworkChange = [] {};
    return env;
}

class BoostEffectDataManagerTest : public ::testing::Test {
  protected:
    std::shared_ptr<Item> start(const std::string& gid) {
        return manager_.startSpeedTestWithOption(optionsFor(gid), false, Number(1700000000), 60,
                                                 std::make_shared<const std::string>("10.0.0.1"),
                                                 443, nullptr, 0, Number(20), quietEnvironment());
    }

    BoostEffectDataManager manager_;
};

TEST_F(BoostEffectDataManagerTest, TheOlderItemOfAGameAnswersUntilItIsStopped) {
    auto older = start("g-1");
    auto newer = start("g-1");
    ASSERT_TRUE(older);
    ASSERT_TRUE(newer);
    EXPECT_EQ(manager_.speedTestResults().size(), 2u);
    EXPECT_EQ(older->techIconState(), manager_.speedTestResults()[0]->techIconState());

    older->directSpeedTestDidFail(Error("test", 1));  // direct half stored at 400
    older->proxySpeedTestDidSucceed(40, {40});
    newer->proxySpeedTestDidSucceed(10, {10});
    newer->directSpeedTestDidSucceed(15, {15});
    EXPECT_EQ(manager_.directServerDelayWithGameId("g-1"), 400.0);
    EXPECT_EQ(manager_.proxyServerDelayWithGameId("g-1"), 60.0);
    EXPECT_EQ(manager_.directServerLossWithGameId("g-1"), 0.0);
    EXPECT_EQ(manager_.proxyServerLossWithGameId("g-1"), 0.0);
    EXPECT_EQ(manager_.proxyServerDelaysWithGameId("g-1"), std::vector<double>{60});

    EXPECT_FALSE(manager_.updateServerWithRemoteIP("198.51.100.4", 9000, "10.0.0.2", 443,
                                                   std::nullopt, Number(25), 1, 10, "g-1"));
    EXPECT_TRUE(older->key());
    EXPECT_FALSE(newer->key());
    auto record = manager_.updateServerWithRemoteIP("198.51.100.5", 9000, "10.0.0.2", 443,
                                                    std::nullopt, Number(25), 1, 10, "g-1");
    ASSERT_TRUE(record);
    EXPECT_EQ((*record)["target_ip"], "198.51.100.4");

    manager_.stopWithGameId("g-1");
    ASSERT_EQ(manager_.speedTestResults().size(), 1u);
    EXPECT_EQ(manager_.speedTestResults()[0], newer);
    EXPECT_EQ(manager_.directServerDelayWithGameId("g-1"), 15.0);
    manager_.stopWithGameId("g-1");
    EXPECT_TRUE(manager_.speedTestResults().empty());
    EXPECT_FALSE(manager_.directServerDelayWithGameId("g-1"));
}

TEST_F(BoostEffectDataManagerTest, NewestSamplesByLimit) {
    auto item = start("g-2");
    std::vector<double> stored;
    for (int i = 1; i <= 10; ++i) {
        Item::addDelay(i * 10.0, item->directDelays());
        stored.push_back(i * 10.0);
    }
    EXPECT_EQ(manager_.directServerDelaysWithGameId("g-2"), stored);
    EXPECT_EQ(manager_.directServerDelaysWithGameId("g-2", 3), (std::vector<double>{80, 90, 100}));
    EXPECT_EQ(manager_.directServerDelaysWithGameId("g-2", 50), stored);
    EXPECT_EQ(manager_.directServerDelaysWithGameId("g-2", 10), stored);
    EXPECT_EQ(manager_.directServerDelaysWithGameId("g-2", 1), std::vector<double>{100});
    EXPECT_EQ(manager_.directServerDelaysWithGameId("g-2", 0), std::vector<double>{});
    EXPECT_FALSE(manager_.directServerDelaysWithGameId("g-2", -1));
    // An item whose list is empty has no newest samples, but a copy of its (empty) list.
    EXPECT_FALSE(manager_.proxyServerDelaysWithGameId("g-2", 3));
    EXPECT_EQ(manager_.proxyServerDelaysWithGameId("g-2"), std::vector<double>{});
}

TEST_F(BoostEffectDataManagerTest, UnknownGamesAndRefusedStarts) {
    start("g-3");
    EXPECT_FALSE(manager_.directServerDelayWithGameId("nope"));
    EXPECT_FALSE(manager_.proxyServerDelayWithGameId("nope"));
    EXPECT_FALSE(manager_.directServerLossWithGameId("nope"));
    EXPECT_FALSE(manager_.proxyServerLossWithGameId("nope"));
    EXPECT_FALSE(manager_.directServerDelaysWithGameId("nope"));
    EXPECT_FALSE(manager_.proxyServerDelaysWithGameId("nope", 3));
    EXPECT_FALSE(manager_.updateServerWithRemoteIP("198.51.100.4", 9000, "10.0.0.2", 443,
                                                   std::nullopt, Number(25), 1, 10, "nope"));
    manager_.stopWithGameId("nope");
    EXPECT_EQ(manager_.speedTestResults().size(), 1u);

    // An item the initialiser refuses is never appended.
    log::Capture capture;
    auto proxy = std::make_shared<const std::string>("10.0.0.1");
    EXPECT_FALSE(manager_.startSpeedTestWithOption(optionsFor("g-4"), false, Number(1), 60, proxy,
                                                   0, proxy, 443, Number(0), quietEnvironment()));
    EXPECT_FALSE(manager_.startSpeedTestWithOption(std::make_shared<VPNSimpleStartOptions>(), false,
                                                   Number(1), 60, proxy, 443, proxy, 443, Number(0),
                                                   quietEnvironment()));
    EXPECT_FALSE(manager_.startSpeedTestWithOption(nullptr, false, Number(1), 60, proxy, 443, proxy,
                                                   443, Number(0), quietEnvironment()));
    EXPECT_EQ(manager_.speedTestResults().size(), 1u);
    EXPECT_EQ(capture.count("[BoostEffectDataManager] Speed test not started"), 3u);
}

}  // namespace
}  // namespace lmkit

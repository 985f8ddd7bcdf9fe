// test-labels: concurrency system
#include "lmkit/nodes/NetworkMonitor.hpp"

#include <atomic>
#include <cstdlib>
#include <mutex>

#include <gtest/gtest.h>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/foundation/UserDefaults.hpp"
#include "lmkit/models/StartupConfig.hpp"
#include "lmkit/settings/RecordArchiving.hpp"
#include "lmkit/testbed/EchoServer.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::waitFor;

namespace {

constexpr const char* kChildVariable = "LMKIT_MONITOR_TEST_CHILD";

// The other process of the app group: it reads the verdict from the shared suite and answers
// through its exit code (0 true, 1 false, 2 not stored). Runs before the test framework starts.
bool runChildIfAsked() {
    if (!std::getenv(kChildVariable))
        return false;
    auto defaults = UserDefaults::suite();
    auto value = defaults->objectForKey(NetworkMonitor::kLocalNetworkUnStableKey);
    if (!value)
        std::_Exit(2);
    std::_Exit(defaults->boolForKey(NetworkMonitor::kLocalNetworkUnStableKey) ? 0 : 1);
}
[[maybe_unused]] const bool kIsChild = runChildIfAsked();

int verdictSeenByAnotherProcess() {
    pid_t pid = lmkit::testing::spawnSelf(kChildVariable, "1");
    return pid < 0 ? -1 : lmkit::testing::waitExit(pid);
}

std::shared_ptr<UnstableNetworkConfig> thresholds(std::optional<double> interval,
                                                  std::optional<double> loss,
                                                  std::optional<double> deviation) {
    auto config = std::make_shared<UnstableNetworkConfig>();
    if (interval)
        config->interval = Number(*interval);
    if (loss)
        config->loss = Number(*loss);
    if (deviation)
        config->deviation = Number(*deviation);
    return config;
}

class NetworkMonitorTest : public ::testing::Test {
  protected:
    // Each test gets an app group of its own, which the spawned reader inherits.
    void SetUp() override {
        previous_ = std::getenv("LMKIT_APP_GROUP_DIR") ? std::getenv("LMKIT_APP_GROUP_DIR") : "";
        setenv("LMKIT_APP_GROUP_DIR", group_.path().c_str(), 1);
    }
    void TearDown() override {
        if (previous_.empty())
            unsetenv("LMKIT_APP_GROUP_DIR");
        else
            setenv("LMKIT_APP_GROUP_DIR", previous_.c_str(), 1);
    }

    lmkit::testing::TempDir group_;
    std::string previous_;
};

}  // namespace

TEST_F(NetworkMonitorTest, LossyEndpointIsFoundUnstableWithinOneBatchAndTheVerdictIsShared) {
    EchoFaults faults;
    faults.delaySeconds = 0.02;
    faults.loss = 0.4;
    auto server = EchoServer::start({EchoEndpointConfig{"127.0.0.1", 0, faults}}, 3);
    ASSERT_TRUE(server);
    UserDefaults::suite()->setBool(false, NetworkMonitor::kLocalNetworkUnStableKey);
    ASSERT_EQ(verdictSeenByAnotherProcess(), 1);

    log::Capture capture;
    auto monitor = NetworkMonitor::create();
    monitor->setPingPort(server->endpoints()[0].port);
    monitor->setNetworkValidCheck([] { return true; });
    monitor->setUnstableNetworkConfig(thresholds(0.15, std::nullopt, std::nullopt));
    std::mutex mutex;
    std::vector<NodeSelectorResult> outcomes;
    monitor->setOutcomeObserver([&](const NodeSelectorResult& outcome) {
        std::lock_guard guard(mutex);
        outcomes.push_back(outcome);
    });
    monitor->startMonitorWithTargetAddress("127.0.0.1");
    EXPECT_TRUE(monitor->isRunning());
    // The probe may take the whole interval; a lost one is still counted before the next.
    ASSERT_TRUE(waitFor([&] { return monitor->nodeSelector() != nullptr; }));
    EXPECT_EQ(monitor->nodeSelector()->testPingTimeout(), monitor->tickPeriod());

    ASSERT_TRUE(waitFor([&] { return !monitor->isRunning(); }, 20));
    EXPECT_EQ(monitor->result(), NetworkMonitor::kResultUnstable);
    EXPECT_EQ(monitor->nodeSelector(), nullptr);
    // The verdict stops the monitor first and then starts a fresh batch, on the probe's queue.
    EXPECT_TRUE(waitFor([&] { return monitor->resultCount() == 0 && monitor->lossCount() == 0; }));
    std::size_t judged;
    {
        std::lock_guard guard(mutex);
        judged = outcomes.size();
        ASSERT_LE(judged, 10u);
        long lost = 0;
        for (const auto& outcome : outcomes) {
            if (outcome.lossPercent == 1.0) {
                EXPECT_EQ(outcome.delay, NetworkMonitor::kLostProbeDelay);
                ++lost;
            } else {
                EXPECT_GE(outcome.delay, 19.0);
            }
        }
        // The third loss decided, before the batch was over.
        EXPECT_EQ(lost, 3);
        EXPECT_TRUE(capture.contains("Loss 0.30 >= 0.30, network unstable"));
    }
    // No probe follows the verdict: the endpoint saw exactly the judged probes.
    EXPECT_FALSE(waitFor([&] { return server->requestsReceived() > judged; }, 0.5));
    EXPECT_EQ(verdictSeenByAnotherProcess(), 0);

    // The verdict is final: a new start ticks but probes nothing.
    monitor->startMonitorWithTargetAddress("127.0.0.1");
    EXPECT_FALSE(waitFor([&] { return server->requestsReceived() > judged; }, 0.5));
    monitor->stopMonitor();
}

TEST_F(NetworkMonitorTest, LossesAreJudgedAfterEveryOutcomeDeviationAtTheEndOfABatch) {
    // Default thresholds: the third loss of a batch is enough (0.3f is a little above 0.3).
    auto lossy = NetworkMonitor::create();
    lossy->recordOutcome(20, 0);
    lossy->recordOutcome(NetworkMonitor::kLostProbeDelay, 1);
    lossy->recordOutcome(NetworkMonitor::kLostProbeDelay, 1);
    EXPECT_EQ(lossy->lossCount(), 2u);
    EXPECT_EQ(lossy->resultCount(), 3);
    EXPECT_EQ(lossy->result(), NetworkMonitor::kResultStable);
    lossy->recordOutcome(NetworkMonitor::kLostProbeDelay, 1);
    EXPECT_EQ(lossy->result(), NetworkMonitor::kResultUnstable);
    EXPECT_EQ(lossy->resultCount(), 0);
    EXPECT_TRUE(lossy->resultArray().empty());
    EXPECT_TRUE(UserDefaults::suite()->boolForKey(NetworkMonitor::kLocalNetworkUnStableKey));
    // Final: later outcomes are recorded but no longer judged.
    lossy->recordOutcome(20, 0);
    EXPECT_EQ(lossy->lossCount(), 0u);
    EXPECT_EQ(lossy->result(), NetworkMonitor::kResultUnstable);

    // Delays 20 x5 and 40 x5 deviate by exactly 10: unstable at the tenth outcome, not before.
    auto scattered = NetworkMonitor::create();
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(scattered->result(), NetworkMonitor::kResultStable) << i;
        scattered->recordOutcome(i < 5 ? 20 : 40, 0);
    }
    EXPECT_EQ(scattered->result(), NetworkMonitor::kResultUnstable);

    // 20 x5 and 30 x5 deviate by 5: the batch ends stable and a new one begins.
    auto steady = NetworkMonitor::create();
    for (int i = 0; i < 10; ++i)
        steady->recordOutcome(i < 5 ? 20 : 30, 0);
    EXPECT_EQ(steady->result(), NetworkMonitor::kResultStable);
    EXPECT_EQ(steady->resultCount(), 0);
    EXPECT_TRUE(steady->resultArray().empty());
    // Two losses in each of two batches never reach 0.3: the count restarts with the batch
    // (the deviation limit is raised so that the 460 ms stand-ins do not decide).
    steady->setUnstableNetworkConfig(thresholds(1.0, 0.3, 1000.0));
    for (int i = 0; i < 10; ++i)
        steady->recordOutcome(i < 2 ? NetworkMonitor::kLostProbeDelay : 20, i < 2 ? 1 : 0);
    EXPECT_EQ(steady->lossCount(), 0u);
    for (int i = 0; i < 2; ++i)
        steady->recordOutcome(NetworkMonitor::kLostProbeDelay, 1);
    EXPECT_EQ(steady->lossCount(), 2u);
    EXPECT_EQ(steady->result(), NetworkMonitor::kResultStable);

    // A delay of exactly 0 makes the deviation 9999.
    auto zero = NetworkMonitor::create();
    for (int i = 0; i < 10; ++i)
        zero->recordOutcome(i == 4 ? 0 : 20, 0);
    EXPECT_EQ(zero->result(), NetworkMonitor::kResultUnstable);

    // A loss limit of 0: the very first outcome, even a success, decides.
    auto strict = NetworkMonitor::create();
    strict->setUnstableNetworkConfig(thresholds(1.0, 0.0, std::nullopt));
    strict->recordOutcome(20, 0);
    EXPECT_EQ(strict->result(), NetworkMonitor::kResultUnstable);
}

TEST_F(NetworkMonitorTest, ThresholdsComeFromTheStoredStartUpConfiguration) {
    auto monitor = NetworkMonitor::create();
    EXPECT_EQ(monitor->unstableNetworkConfig(), nullptr);
    EXPECT_DOUBLE_EQ(monitor->speedTestInterval(), 1.0);
    EXPECT_DOUBLE_EQ(monitor->maxLoss(), 0.3);
    EXPECT_DOUBLE_EQ(monitor->maxDeviation(), 10.0);

    // Stored after the first read: the next read finds it.
    StartupConfig startup;
    startup.unstableNetworkConfig = thresholds(2.5, 0.5, 20.0);
    std::string error;
    auto archive = keyed_archiver::archive(startup, error);
    ASSERT_TRUE(archive) << error;
    ASSERT_TRUE(UserDefaults::suite()->setObject(UserDefaults::makeData(*archive),
                                                 NetworkMonitor::kStartUpConfigKey));
    EXPECT_DOUBLE_EQ(monitor->speedTestInterval(), 2.5);
    EXPECT_DOUBLE_EQ(monitor->maxLoss(), 0.5);
    EXPECT_DOUBLE_EQ(monitor->maxDeviation(), 20.0);

    // A configuration without an interval gives 0; the missing limits fall back.
    startup.unstableNetworkConfig = thresholds(std::nullopt, std::nullopt, std::nullopt);
    archive = keyed_archiver::archive(startup, error);
    ASSERT_TRUE(archive) << error;
    ASSERT_TRUE(UserDefaults::suite()->setObject(UserDefaults::makeData(*archive),
                                                 NetworkMonitor::kStartUpConfigKey));
    auto fresh = NetworkMonitor::create();
    EXPECT_DOUBLE_EQ(fresh->speedTestInterval(), 0.0);
    EXPECT_DOUBLE_EQ(fresh->maxLoss(), 0.3);
    EXPECT_DOUBLE_EQ(fresh->maxDeviation(), 10.0);

    // Data that is no archive of a start-up configuration reads as none.
    ASSERT_TRUE(UserDefaults::suite()->setObject(UserDefaults::makeData(std::string_view("junk")),
                                                 NetworkMonitor::kStartUpConfigKey));
    EXPECT_EQ(NetworkMonitor::create()->unstableNetworkConfig(), nullptr);
}

TEST_F(NetworkMonitorTest, StartingKeepsTheFirstEndpointAndAnInvalidNetworkSendsNothing) {
    auto server = EchoServer::start({EchoEndpointConfig{"127.0.0.1", 0, {}}}, 1);
    ASSERT_TRUE(server);
    auto monitor = NetworkMonitor::create();
    monitor->setPingPort(server->endpoints()[0].port);
    monitor->setUnstableNetworkConfig(thresholds(0.05, std::nullopt, std::nullopt));
    monitor->setNetworkValidCheck([] { return false; });

    monitor->startMonitorWithTargetAddress("");
    EXPECT_FALSE(monitor->isRunning());
    EXPECT_FALSE(monitor->pingNode());

    monitor->startMonitorWithTargetAddress("127.0.0.1");
    EXPECT_TRUE(monitor->isRunning());
    monitor->startMonitorWithTargetAddress("127.0.0.9");
    EXPECT_EQ(monitor->targetAddress(), "127.0.0.9");
    ASSERT_TRUE(monitor->pingNode());
    EXPECT_EQ(monitor->pingNode()->address, "127.0.0.1");
    EXPECT_EQ(monitor->pingNode()->port, server->endpoints()[0].port);
    EXPECT_FALSE(waitFor([&] { return server->requestsReceived() > 0; }, 0.4));

    // Once the network is usable, the ticks probe the first endpoint.
    monitor->setNetworkValidCheck([] { return true; });
    EXPECT_TRUE(waitFor([&] { return monitor->resultCount() >= 2; }));
    EXPECT_EQ(monitor->result(), NetworkMonitor::kResultStable);
    monitor->stopMonitor();
    monitor->stopMonitor();
    EXPECT_FALSE(monitor->isRunning());
    EXPECT_EQ(monitor->nodeSelector(), nullptr);
}

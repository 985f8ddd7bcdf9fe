// test-labels: concurrency
#include "lmkit/nodes/Speedometer.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>

#include "lmkit/nodes/NKSpeedometer.hpp"
#include "lmkit/testbed/EchoServer.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::waitFor;

namespace {

std::unique_ptr<EchoServer> echoWith(EchoFaults faults, std::uint64_t seed = 3) {
    auto server = EchoServer::start({EchoEndpointConfig{"127.0.0.1", 0, faults}}, seed);
    EXPECT_TRUE(server);
    return server;
}

SpeedometerTask taskFor(const EchoServer& server, int rounds, int packets, double interval,
                        double timeout) {
    SpeedometerTask task;
    task.host = "127.0.0.1";
    task.port = server.endpoints()[0].port;
    task.rounds = rounds;
    task.packets = packets;
    task.intervalTime = interval;
    task.timeout = timeout;
    return task;
}

struct Recorder : SpeedometerDelegate {
    std::mutex mutex;
    std::vector<std::vector<double>> rounds;
    std::vector<Error> errors;
    std::atomic<int> reports{0};

    void speedometerDidCompleteRound(Speedometer&, const std::vector<double>& delays) override {
        std::lock_guard guard(mutex);
        rounds.push_back(delays);
        ++reports;
    }
    void speedometerDidFail(Speedometer&, const Error& error) override {
        std::lock_guard guard(mutex);
        errors.push_back(error);
        ++reports;
    }
};

long lostCount(const std::vector<double>& delays) {
    return std::count(delays.begin(), delays.end(), -1.0);
}

}  // namespace

TEST(SpeedometerTest, RoundsReportEveryPacketWithLostOnesAsMinusOne) {
    EchoFaults faults;
    faults.delaySeconds = 0.03;
    faults.loss = 0.4;
    auto server = echoWith(faults);
    auto engine = Speedometer::create(taskFor(*server, 2, 15, 0.002, 0.4));
    auto recorder = std::make_shared<Recorder>();
    engine->setDelegate(recorder);
    engine->start();
    engine->start();  // a second start while running changes nothing

    ASSERT_TRUE(waitFor([&] { return recorder->reports == 2 && !engine->isRunning(); }, 10));
    std::lock_guard guard(recorder->mutex);
    ASSERT_TRUE(recorder->errors.empty());
    long lost = 0;
    for (const auto& delays : recorder->rounds) {
        ASSERT_EQ(delays.size(), 15u);
        for (double delay : delays) {
            if (delay == -1)
                continue;
            // The echo was held 30 ms and answered before the round's 400 ms deadline.
            EXPECT_GE(delay, 29.0);
            EXPECT_LT(delay, 2000.0);
        }
        lost += lostCount(delays);
    }
    // Exactly the unanswered requests are the lost entries: two rounds, nothing more sent.
    EXPECT_EQ(server->requestsReceived(), 30u);
    EXPECT_EQ(lost, static_cast<long>(server->requestsReceived() - server->repliesSent()));
    EXPECT_GT(lost, 0);
    EXPECT_LT(lost, 30);
}

TEST(SpeedometerTest, DuplicatesForeignBytesAndLateEchoesSetNoDelay) {
    EchoFaults duplicate;
    duplicate.duplicate = true;
    auto duplicating = echoWith(duplicate);
    EchoFaults garbage;
    garbage.garbage = true;
    auto garbling = echoWith(garbage);
    EchoFaults late;
    late.lateSeconds = 0.3;
    auto tardy = echoWith(late);

    auto one = Speedometer::create(taskFor(*duplicating, 1, 8, 0.001, 1.0));
    auto two = Speedometer::create(taskFor(*garbling, 1, 5, 0.001, 0.1));
    auto three = Speedometer::create(taskFor(*tardy, 2, 3, 0.001, 0.1));
    auto a = std::make_shared<Recorder>(), b = std::make_shared<Recorder>(),
         c = std::make_shared<Recorder>();
    one->setDelegate(a);
    two->setDelegate(b);
    three->setDelegate(c);
    one->start();
    two->start();
    three->start();
    ASSERT_TRUE(waitFor([&] { return a->reports == 1 && b->reports == 1 && c->reports == 2; }));

    std::lock_guard ga(a->mutex), gb(b->mutex), gc(c->mutex);
    ASSERT_EQ(a->rounds.size(), 1u);
    EXPECT_EQ(lostCount(a->rounds[0]), 0);
    EXPECT_EQ(a->rounds[0].size(), 8u);
    ASSERT_EQ(b->rounds.size(), 1u);
    EXPECT_EQ(lostCount(b->rounds[0]), 5);
    // The first round's echoes arrive during the second round and must not count for it.
    ASSERT_EQ(c->rounds.size(), 2u);
    EXPECT_EQ(lostCount(c->rounds[0]), 3);
    EXPECT_EQ(lostCount(c->rounds[1]), 3);
}

TEST(SpeedometerTest, BadTasksAndMissingInterfacesFailThroughTheDelegate) {
    SpeedometerTask noPort;
    noPort.host = "127.0.0.1";
    SpeedometerTask noCellular;
    noCellular.host = "127.0.0.1";
    noCellular.port = 9;
    noCellular.interfaceType = Speedometer::kInterfaceCellular;  // no "pdp_ip0" on a test host
    SpeedometerTask negativeInterval = noCellular;
    negativeInterval.interfaceType = Speedometer::kInterfaceAny;
    negativeInterval.intervalTime = -1;

    for (const auto& [task, code] : {std::pair{noPort, Speedometer::kErrorBadTask},
                                     std::pair{noCellular, Speedometer::kErrorInterfaceDown},
                                     std::pair{negativeInterval, Speedometer::kErrorBadTask}}) {
        auto engine = Speedometer::create(task);
        auto recorder = std::make_shared<Recorder>();
        engine->setDelegate(recorder);
        engine->start();
        ASSERT_TRUE(waitFor([&] { return recorder->reports == 1; }));
        std::lock_guard guard(recorder->mutex);
        ASSERT_EQ(recorder->errors.size(), 1u);
        EXPECT_EQ(recorder->errors[0].domain, Speedometer::kErrorDomain);
        EXPECT_EQ(recorder->errors[0].code, code);
        EXPECT_TRUE(waitFor([&] { return !engine->isRunning(); }));
    }
}

TEST(SpeedometerTest, StopAndDestructionMidRoundSilenceTheEngine) {
    EchoFaults faults;
    faults.delaySeconds = 0.01;
    auto server = echoWith(faults);
    auto stopped = Speedometer::create(taskFor(*server, 1, 400, 0.005, 0.2));
    auto destroyed = Speedometer::create(taskFor(*server, 1, 400, 0.005, 0.2));
    auto recorder = std::make_shared<Recorder>();
    stopped->setDelegate(recorder);
    destroyed->setDelegate(recorder);
    stopped->start();
    destroyed->start();
    ASSERT_TRUE(waitFor([&] { return server->repliesSent() >= 10; }));
    stopped->stop();
    stopped->stop();  // idempotent
    destroyed.reset();
    EXPECT_FALSE(stopped->isRunning());
    auto sentAtStop = server->requestsReceived();

    // Both rounds would have ended within 400 * 5 ms + 200 ms had they gone on.
    EXPECT_FALSE(waitFor([&] { return recorder->reports > 0; }, 2.5));
    EXPECT_LE(server->requestsReceived(), sentAtStop + 2);
    EXPECT_LT(server->requestsReceived(), 400u);

    // A stopped engine can run again, and then reports.
    auto rerun = Speedometer::create(taskFor(*server, 1, 2, 0.001, 0.5));
    rerun->setDelegate(recorder);
    rerun->start();
    EXPECT_TRUE(waitFor([&] { return recorder->reports == 1; }));
}

TEST(SpeedometerTest, AReleasedDelegateHearsNothingAndTheRunStillEnds) {
    auto server = echoWith({});
    auto engine = Speedometer::create(taskFor(*server, 1, 3, 0.001, 0.3));
    auto recorder = std::make_shared<Recorder>();
    std::weak_ptr<Recorder> watch = recorder;
    engine->setDelegate(recorder);
    recorder.reset();
    EXPECT_EQ(engine->delegate(), nullptr);
    engine->start();
    ASSERT_TRUE(waitFor([&] { return server->requestsReceived() == 3 && !engine->isRunning(); }));
    EXPECT_TRUE(watch.expired());
}

TEST(NKSpeedometerTest, AverageSkipsLostPacketsAndStandsIn400ForNoAnswer) {
    EXPECT_DOUBLE_EQ(NKSpeedometer::averageDelay({10, -1, 30}), 20.0);
    EXPECT_DOUBLE_EQ(NKSpeedometer::averageDelay({-1, -1}), 400.0);
    EXPECT_DOUBLE_EQ(NKSpeedometer::averageDelay({}), 400.0);
    // Each delay is added in single precision, then widened.
    EXPECT_DOUBLE_EQ(NKSpeedometer::averageDelay({0.1}),
                     static_cast<double>(static_cast<float>(0.1)));
}

TEST(NKSpeedometerTest, ReportsOneRoundOnceThenStops) {
    EchoFaults faults;
    faults.duplicate = true;
    faults.delaySeconds = 0.02;
    auto server = echoWith(faults);
    // Three rounds are asked for; only the first is reported, and no second round is sent.
    auto speedometer = NKSpeedometer::create(taskFor(*server, 3, 4, 0.25, 1.0));
    std::atomic<int> successes{0}, failures{0};
    std::mutex mutex;
    std::vector<double> delays;
    double average = 0;
    speedometer->startWithSuccessBlock(
        [&](const std::vector<double>& round, Number avg) {
            std::lock_guard guard(mutex);
            delays = round;
            average = avg.doubleValue();
            ++successes;
        },
        [&](const Error&) { ++failures; });
    ASSERT_TRUE(waitFor([&] { return successes == 1; }));
    EXPECT_TRUE(waitFor([&] { return !speedometer->isRunning(); }));
    std::lock_guard guard(mutex);
    ASSERT_EQ(delays.size(), 4u);
    EXPECT_EQ(lostCount(delays), 0);
    EXPECT_DOUBLE_EQ(average, NKSpeedometer::averageDelay(delays));
    EXPECT_GE(average, 19.0);
    EXPECT_EQ(server->requestsReceived(), 4u);
    EXPECT_EQ(successes + failures, 1);
}

TEST(NKSpeedometerTest, LateEchoesGive400AndCancelSilences) {
    EchoFaults late;
    late.lateSeconds = 0.5;
    auto server = echoWith(late);
    auto speedometer = NKSpeedometer::create(taskFor(*server, 1, 2, 0.001, 0.1));
    std::atomic<int> reports{0};
    std::atomic<double> average{0};
    speedometer->startWithSuccessBlock(
        [&](const std::vector<double>&, Number avg) {
            average = avg.doubleValue();
            ++reports;
        },
        [&](const Error&) { ++reports; });
    ASSERT_TRUE(waitFor([&] { return reports == 1; }));
    EXPECT_DOUBLE_EQ(average.load(), 400.0);

    auto cancelled = NKSpeedometer::create(taskFor(*server, 1, 2, 0.001, 0.1));
    std::atomic<int> cancelledReports{0};
    cancelled->startWithSuccessBlock(
        [&](const std::vector<double>&, Number) { ++cancelledReports; },
        [&](const Error&) { ++cancelledReports; });
    cancelled->cancel();
    EXPECT_EQ(cancelled->delegate(), nullptr);
    EXPECT_FALSE(waitFor([&] { return cancelledReports > 0; }, 0.5));
}

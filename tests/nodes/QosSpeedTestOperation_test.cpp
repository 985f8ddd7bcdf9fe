// test-labels: concurrency
#include "lmkit/nodes/QosSpeedTestOperation.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <tuple>

#include "lmkit/nodes/OperationQueue.hpp"
#include "lmkit/testbed/EchoServer.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;

namespace {

using Steady = std::chrono::steady_clock;

double secondsSince(Steady::time_point start) {
    return std::chrono::duration<double>(Steady::now() - start).count();
}

// Echo endpoints on 127.0.0.1, 127.0.0.2, ... with the given delays in ms (a negative delay: the
// endpoint never answers).
struct DelayedEchoes {
    std::unique_ptr<EchoServer> server;
    std::vector<std::string> addresses;

    explicit DelayedEchoes(const std::vector<double>& delays) {
        std::vector<EchoEndpointConfig> endpoints;
        for (std::size_t i = 0; i < delays.size(); ++i) {
            EchoFaults faults;
            if (delays[i] < 0)
                faults.loss = 1;
            else
                faults.delaySeconds = delays[i] / 1000;
            endpoints.push_back({"127.0.0." + std::to_string(i + 1), 0, faults});
        }
        server = EchoServer::start(endpoints, 5);
        EXPECT_TRUE(server);
        for (const auto& endpoint : server->endpoints())
            addresses.push_back(endpoint.host + ":" + std::to_string(endpoint.port));
    }
};

// Records every change notification of an operation, in order.
struct Notifications {
    std::mutex mutex;
    std::vector<std::string> events;

    void watch(Operation& operation) {
        operation.addObserver(
            [this](Operation&, const std::string& keyPath, Operation::Change change) {
                std::lock_guard guard(mutex);
                events.push_back((change == Operation::Change::Will ? "will " : "did ") + keyPath);
            });
    }
    std::vector<std::string> list() {
        std::lock_guard guard(mutex);
        return events;
    }
};

}  // namespace

TEST(QosSpeedTestOperationTest, CollectsEveryAnswerInArrivalOrderAndEndsWithTheLast) {
    DelayedEchoes echoes({60, 5, 30});
    auto operation = QosSpeedTestOperation::create(echoes.addresses);
    Notifications notifications;
    notifications.watch(*operation);
    OperationQueue queue;
    auto start = Steady::now();
    queue.addOperation(operation);
    ASSERT_TRUE(queue.waitUntilAllOperationsAreFinished(10));
    double elapsed = secondsSince(start);

    EXPECT_TRUE(operation->isFinished());
    EXPECT_FALSE(operation->isExecuting());
    EXPECT_EQ(queue.operationCount(), 0u);
    // Done when the slowest answered, well before the 3.01 s budget.
    EXPECT_LT(elapsed, operation->timeBudget());
    EXPECT_DOUBLE_EQ(operation->timeBudget(), 3.01);

    auto results = operation->results();
    ASSERT_EQ(results.size(), 3u);
    EXPECT_EQ(results[0]->ip, echoes.addresses[1]);
    EXPECT_EQ(results[1]->ip, echoes.addresses[2]);
    EXPECT_EQ(results[2]->ip, echoes.addresses[0]);
    const double injected[] = {5, 30, 60};
    for (std::size_t i = 0; i < results.size(); ++i) {
        EXPECT_GE(results[i]->delay().doubleValue(), injected[i] - 1) << i;
        EXPECT_DOUBLE_EQ(results[i]->loss().doubleValue(), 0.0) << i;
    }
    EXPECT_EQ(operation->nodeSelectors().size(), 3u);
    EXPECT_EQ(notifications.list(),
              (std::vector<std::string>{"will isExecuting", "did isExecuting", "will isFinished",
                                        "will isExecuting", "did isExecuting", "did isFinished"}));
}

TEST(QosSpeedTestOperationTest, SilentAddressesEndAtTheBudgetWithoutAResult) {
    DelayedEchoes echoes({10, -1});
    std::vector<std::string> addresses = echoes.addresses;
    addresses.push_back("not:an:address:");  // reported as nothing, at once
    auto operation = QosSpeedTestOperation::create(addresses);
    operation->setSendDataPrefix("qos-");
    auto start = Steady::now();
    operation->start();
    EXPECT_TRUE(operation->isExecuting());
    ASSERT_TRUE(operation->waitUntilFinished(15));
    double elapsed = secondsSince(start);

    // The silent endpoint keeps the operation waiting for its whole budget of 3.01 s.
    EXPECT_GE(elapsed, 3.0);
    auto results = operation->results();
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0]->ip, echoes.addresses[0]);
    // The prefix went out with every probe and came back unchanged.
    for (const auto& selector : operation->nodeSelectors())
        EXPECT_EQ(selector->sendDataPrefix(), "qos-");
}

TEST(QosSpeedTestOperationTest, ACancelledOperationFinishesWithoutProbing) {
    DelayedEchoes echoes({1});
    auto operation = QosSpeedTestOperation::create(echoes.addresses);
    Notifications notifications;
    notifications.watch(*operation);
    operation->cancel();
    OperationQueue queue;
    queue.addOperation(operation);
    ASSERT_TRUE(queue.waitUntilAllOperationsAreFinished(5));
    EXPECT_TRUE(operation->isCancelled());
    EXPECT_TRUE(operation->nodeSelectors().empty());
    EXPECT_TRUE(operation->results().empty());
    EXPECT_EQ(echoes.server->requestsReceived(), 0u);
    EXPECT_EQ(notifications.list(),
              (std::vector<std::string>{"will isCancelled", "did isCancelled", "will isFinished",
                                        "did isFinished"}));
    // A finished operation neither starts again nor enters a queue.
    operation->start();
    queue.addOperation(operation);
    EXPECT_EQ(queue.operationCount(), 0u);
}

TEST(QosSpeedTestOperationTest, AddressesSplitIntoHostAndPort) {
    std::string host;
    long port = -1;
    for (auto [address, expectedHost, expectedPort] : {std::tuple{"10.0.0.1", "10.0.0.1", 0L},
                                                       {"echo.example:7", "echo.example", 7L},
                                                       {"[2001:db8::1]:9999", "2001:db8::1", 9999L},
                                                       {"2001:db8::1", "2001:db8::1", 0L}}) {
        EXPECT_TRUE(QosSpeedTestOperation::splitAddress(address, host, port)) << address;
        EXPECT_EQ(host, expectedHost);
        EXPECT_EQ(port, expectedPort);
    }
    for (const char* bad :
         {"", ":80", "host:", "host:0", "host:65536", "host:8x", "[::1]x", "[::1", "[]:5"})
        EXPECT_FALSE(QosSpeedTestOperation::splitAddress(bad, host, port)) << bad;
}

TEST(OperationQueueTest, RunsSynchronousOperationsAndForgetsThemWhenFinished) {
    struct Counting : Operation {
        std::atomic<int>* runs;
        explicit Counting(std::atomic<int>* counter) : runs(counter) {}
        void main() override {
            EXPECT_TRUE(isExecuting());
            ++*runs;
        }
    };
    std::atomic<int> runs{0};
    OperationQueue queue;
    std::vector<std::shared_ptr<Operation>> operations;
    for (int i = 0; i < 50; ++i) {
        operations.push_back(std::make_shared<Counting>(&runs));
        queue.addOperation(operations.back());
        queue.addOperation(operations.back());  // the same operation runs once
    }
    ASSERT_TRUE(queue.waitUntilAllOperationsAreFinished(10));
    EXPECT_EQ(runs.load(), 50);
    EXPECT_TRUE(queue.operations().empty());
    for (const auto& operation : operations)
        EXPECT_TRUE(operation->isFinished());
}

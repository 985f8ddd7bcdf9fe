// test-labels: concurrency
#include "lmkit/platform/WeakTimer.hpp"

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::waitFor;

namespace {
struct Target {
    std::atomic<int> fired{0};
};
}  // namespace

TEST(WeakTimer, OneShotFiresOnceOnItsQueue) {
    auto target = std::make_shared<Target>();
    auto queue = DispatchQueue::serial("test.weak.oneshot");
    auto timer = WeakTimer::scheduledTimer<Target>(
        0.01, target,
        [&](Target& t, WeakTimer&) {
            EXPECT_TRUE(queue.isCurrent());
            ++t.fired;
        },
        false, queue);
    ASSERT_TRUE(waitFor([&] { return target->fired == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(target->fired, 1);
    EXPECT_FALSE(timer->isValid());
}

TEST(WeakTimer, RepeatingStopsWhenTheTargetIsReleased) {
    auto target = std::make_shared<Target>();
    std::weak_ptr<Target> weak = target;
    auto timer = WeakTimer::scheduledTimer<Target>(
        0.002, target, [](Target& t, WeakTimer&) { ++t.fired; }, true,
        DispatchQueue::serial("test.weak.repeat"));
    ASSERT_TRUE(waitFor([&] { return target->fired >= 3; }));
    target.reset();
    EXPECT_TRUE(waitFor([&] { return !timer->isValid(); }));
    EXPECT_TRUE(weak.expired());
}

TEST(WeakTimer, InvalidateFromManyThreadsIsIdempotentAndStopsFiring) {
    auto target = std::make_shared<Target>();
    auto queue = DispatchQueue::serial("test.weak.invalidate");
    auto timer = WeakTimer::scheduledTimer<Target>(
        0.001, target, [](Target& t, WeakTimer&) { ++t.fired; }, true, queue);
    ASSERT_TRUE(waitFor([&] { return target->fired >= 2; }));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] { timer->invalidate(); });
    for (auto& t : threads)
        t.join();
    queue.sync([] {});
    int after = target->fired;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(target->fired, after);
}

TEST(WeakTimer, ReleasingTheTimerStopsIt) {
    auto target = std::make_shared<Target>();
    auto timer = WeakTimer::scheduledTimer<Target>(
        0.01, target, [](Target& t, WeakTimer&) { ++t.fired; }, false,
        DispatchQueue::serial("test.weak.release"));
    timer.reset();
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    EXPECT_EQ(target->fired, 0);
}

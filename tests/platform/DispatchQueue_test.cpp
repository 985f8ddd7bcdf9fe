// test-labels: concurrency
#include "lmkit/platform/DispatchQueue.hpp"
#include "lmkit/platform/DispatchGroup.hpp"
#include "lmkit/platform/DispatchTimerSource.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <vector>

#include <gtest/gtest.h>

#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::waitFor;

TEST(DispatchQueue, SerialQueueRunsBlocksOneAtATimeInOrderAndNamesItself) {
    auto queue = DispatchQueue::serial("test.serial.queue");
    std::vector<int> order;  // touched only on the queue
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    DispatchGroup group;
    for (int i = 0; i < 200; ++i) {
        group.enter();
        queue.async([&, i] {
            if (inside.fetch_add(1) != 0)
                overlapped = true;
            order.push_back(i);
            EXPECT_EQ(DispatchQueue::currentLabel(), "test.serial.queue");
            EXPECT_TRUE(queue.isCurrent());
            inside.fetch_sub(1);
            group.leave();
        });
    }
    ASSERT_TRUE(group.wait(5));
    EXPECT_FALSE(overlapped);
    std::vector<int> expected(200);
    for (int i = 0; i < 200; ++i)
        expected[i] = i;
    queue.sync([&] { EXPECT_EQ(order, expected); });
    EXPECT_EQ(DispatchQueue::currentLabel(), "");
}

TEST(DispatchQueue, SyncFromTheQueueItselfRunsInlineInsteadOfDeadlocking) {
    auto queue = DispatchQueue::serial("test.reentrant");
    bool ranInner = false;
    queue.sync([&] { queue.sync([&] { ranInner = true; }); });
    EXPECT_TRUE(ranInner);
}

TEST(DispatchQueue, HandOffKeepsTheQueuesOrderAndRunsFromAnyThread) {
    auto source = DispatchQueue::serial("test.handoff.source");
    auto target = DispatchQueue::serial("test.handoff.target");
    std::vector<int> order;  // touched only on the target queue
    DispatchGroup group;
    group.enter();
    source.async([&] {
        for (int i = 0; i < 100; ++i) {
            auto record = [&, i] { order.push_back(i); };
            // Hand-offs and plain blocks keep the serial queue's order.
            if (i % 2)
                target.asyncHandOff(record);
            else
                target.async(record);
        }
    });
    source.sync([] {});
    // From a thread outside the pool a hand-off is an ordinary async and still runs.
    std::atomic<bool> global{false};
    DispatchQueue::global().asyncHandOff([&] { global = true; });
    target.asyncHandOff([&] { group.leave(); });
    ASSERT_TRUE(group.wait(5));
    EXPECT_TRUE(waitFor([&] { return global.load(); }));
    target.sync([&] {
        ASSERT_EQ(order.size(), 100u);
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(order[i], i);
    });
}

TEST(DispatchQueue, ConcurrentQueueRunsBlocksSideBySideAndBarriersAlone) {
    auto queue = DispatchQueue::concurrent("test.concurrent");
    // Two blocks that each wait for the other can only finish when they run at once.
    std::atomic<int> arrived{0};
    std::atomic<int> met{0};
    std::atomic<int> inside{0};
    std::atomic<bool> barrierAlone{true};
    std::vector<int> order;  // written by barriers only, read after them
    auto meet = [&] {
        inside.fetch_add(1);
        arrived.fetch_add(1);
        if (waitFor([&] { return arrived.load() >= 2; }))
            met.fetch_add(1);
        inside.fetch_sub(1);
    };
    queue.async(meet);
    queue.async(meet);
    for (int i = 0; i < 3; ++i) {
        queue.asyncBarrier([&, i] {
            if (inside.load() != 0)
                barrierAlone = false;
            order.push_back(i);
        });
        queue.async([&] {
            inside.fetch_add(1);
            inside.fetch_sub(1);
        });
    }
    // A synchronous read issued after the barriers runs on this thread, after all of them.
    std::vector<int> seen;
    queue.sync([&] {
        EXPECT_EQ(DispatchQueue::currentLabel(), "test.concurrent");
        seen = order;
    });
    EXPECT_EQ(met.load(), 2);
    EXPECT_TRUE(barrierAlone);
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 2}));
}

// Pool blocks that each write to a concurrent queue and then read from it: every pool thread
// may be blocked in its read behind a write still waiting for a pool thread. The reader runs
// that write itself, so they all finish, and each read sees the write before it.
TEST(DispatchQueue, ReadsBehindAWriteNeedNoFreePoolThread) {
    auto queue = DispatchQueue::concurrent("test.writes-then-reads");
    constexpr int kBlocks = 64;  // more than the pool has threads
    std::vector<int> written;    // written by barriers only
    std::atomic<int> done{0};
    std::atomic<int> missed{0};
    for (int i = 0; i < kBlocks; ++i) {
        DispatchQueue::global().async([&, i] {
            queue.asyncBarrier([&, i] { written.push_back(i); });
            bool seen = false;
            queue.sync(
                [&] { seen = std::find(written.begin(), written.end(), i) != written.end(); });
            if (!seen)
                missed.fetch_add(1);
            done.fetch_add(1);
        });
    }
    ASSERT_TRUE(waitFor([&] { return done.load() == kBlocks; }, 20));
    EXPECT_EQ(missed.load(), 0);
    queue.sync([&] { EXPECT_EQ(written.size(), static_cast<std::size_t>(kBlocks)); });
}

TEST(DispatchQueue, AsyncAfterWaitsAtLeastTheDelay) {
    auto queue = DispatchQueue::serial("test.after");
    auto start = std::chrono::steady_clock::now();
    std::atomic<double> elapsed{-1};
    queue.asyncAfter(0.05, [&] {
        elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    });
    ASSERT_TRUE(waitFor([&] { return elapsed >= 0; }));
    EXPECT_GE(elapsed, 0.05);
}

TEST(DispatchQueue, MainQueueCanBeServedByTheApplicationsLoop) {
    std::atomic<int> handedOver{0};
    DispatchQueue::setMainExecutor([&](DispatchQueue::Block block) {
        ++handedOver;
        block();
    });
    std::atomic<bool> ran{false};
    DispatchQueue::main().async([&] {
        EXPECT_EQ(DispatchQueue::currentLabel(), DispatchQueue::main().label());
        ran = true;
    });
    DispatchQueue::setMainExecutor(nullptr);
    EXPECT_TRUE(ran);
    EXPECT_EQ(handedOver, 1);
}

TEST(DispatchGroup, WaitTimesOutUntilEveryEnterIsLeftAndNotifyRunsOnce) {
    DispatchGroup group;
    group.enter();
    group.enter();
    EXPECT_FALSE(group.wait(0.01));
    std::atomic<int> notified{0};
    group.notify(DispatchQueue::global(), [&] { ++notified; });
    group.leave();
    EXPECT_FALSE(group.wait(0.01));
    group.leave();
    group.leave();  // unmatched: ignored
    EXPECT_TRUE(group.wait(0.01));
    ASSERT_TRUE(waitFor([&] { return notified == 1; }));
    group.enter();
    group.leave();
    EXPECT_EQ(notified, 1);
}

TEST(DispatchTimerSource, TicksUntilCancelledAndNotAfter) {
    auto queue = DispatchQueue::serial("test.timer.source");
    std::atomic<int> ticks{0};
    auto source = DispatchTimerSource::create(queue, 0.005, [&] { ++ticks; });
    source->resume();
    ASSERT_TRUE(waitFor([&] { return ticks >= 3; }));
    source->cancel();
    queue.sync([] {});
    int afterCancel = ticks;
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(ticks, afterCancel);
    source->cancel();  // idempotent
}

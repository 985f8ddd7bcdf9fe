// test-labels: concurrency
#include "lmkit/foundation/UnfairLock.hpp"

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "lmkit/foundation/ThreadSafe.hpp"

using namespace lmkit;

TEST(UnfairLock, ExcludesOtherThreadsReturnsTheBodysResultAndTryLockReportsIt) {
    UnfairLock lock;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i)
                lock.execute([&] { ++counter; });
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(counter, 80000);
    EXPECT_EQ(lock.execute([] { return std::string("node"); }), "node");

    lock.lock();
    bool takenElsewhere = true;
    std::thread([&] { takenElsewhere = lock.tryLock(); }).join();
    EXPECT_FALSE(takenElsewhere);
    lock.unlock();
    std::thread([&] {
        takenElsewhere = lock.tryLock();
        if (takenElsewhere)
            lock.unlock();
    }).join();
    EXPECT_TRUE(takenElsewhere);
}

TEST(UnfairLock, TryExecuteRethrowsTheSameErrorAfterUnlocking) {
    struct ProbeError {
        int code;
    };
    UnfairLock lock;
    try {
        lock.tryExecute([]() -> int { throw ProbeError{42}; });
        FAIL() << "tryExecute swallowed the error";
    } catch (const ProbeError& error) {
        EXPECT_EQ(error.code, 42);
    }
    ASSERT_TRUE(lock.tryLock()) << "the lock stayed held after the body threw";
    lock.unlock();

    EXPECT_EQ(lock.tryExecute([] { return 7; }), 7);
    bool ran = false;
    lock.tryExecute([&] { ran = true; });
    EXPECT_TRUE(ran);
    EXPECT_THROW(lock.tryExecute([] { throw std::logic_error("void body"); }), std::logic_error);
    EXPECT_TRUE(lock.tryLock());
    lock.unlock();
}

TEST(ThreadSafe, CompoundUpdatesAreAtomic) {
    ThreadSafe<int> counter(0);
    ThreadSafe<std::vector<int>> list;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 5000; ++i) {
                ++*counter.modify();
                counter.write([](int& value) { value += 2; });
                list.modify()->push_back(t);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(counter.get(), 4 * 5000 * 3);
    EXPECT_EQ(list.read([](const std::vector<int>& v) { return v.size(); }), 20000u);
}

TEST(ThreadSafe, SetReleasesTheReplacedValueOutsideTheLock) {
    // The replaced value's destructor reads the wrapper: it would deadlock if set() destroyed it
    // with the lock still held.
    struct Guarded;
    static ThreadSafe<std::shared_ptr<Guarded>>* wrapper = nullptr;
    static bool sawNewValue = false;
    struct Guarded {
        int id;
        ~Guarded() {
            if (id == 1 && wrapper)
                sawNewValue = wrapper->get() && wrapper->get()->id == 2;
        }
    };
    ThreadSafe<std::shared_ptr<Guarded>> value(std::make_shared<Guarded>(Guarded{1}));
    wrapper = &value;
    value.set(std::make_shared<Guarded>(Guarded{2}));
    EXPECT_TRUE(sawNewValue);
    wrapper = nullptr;
}

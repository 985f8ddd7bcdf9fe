// test-labels: concurrency
#include "lmkit/platform/NotificationCenter.hpp"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

using namespace lmkit;

TEST(NotificationCenter, DeliversByNameOnThePostersThreadUntilRemoved) {
    NotificationCenter center;
    std::vector<std::string> seen;
    std::thread::id observedOn;
    auto token = center.addObserver("ObjectPropertyStoreDualChannelChangeNotification",
                                    [&](const Notification& n) {
                                        observedOn = std::this_thread::get_id();
                                        seen.push_back(n.userInfo ? n.userInfo->dump() : "nil");
                                    });
    auto other = center.addObserver("Other", [&](const Notification&) { seen.push_back("other"); });
    EXPECT_NE(token, other);

    center.post("ObjectPropertyStoreDualChannelChangeNotification");
    std::thread poster([&] {
        center.post("ObjectPropertyStoreDualChannelChangeNotification",
                    nlohmann::ordered_json{{"value", 1}});
        EXPECT_EQ(observedOn, std::this_thread::get_id());
    });
    poster.join();
    center.post("Nobody listens");
    EXPECT_EQ(seen, (std::vector<std::string>{"nil", R"({"value":1})"}));

    center.removeObserver(token);
    center.removeObserver(token);  // twice is harmless
    center.post("ObjectPropertyStoreDualChannelChangeNotification");
    center.post("Other");
    EXPECT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen.back(), "other");
}

TEST(NotificationCenter, ObserverMayRemoveItselfAndRemovalStopsConcurrentPosts) {
    NotificationCenter center;
    int selfRemoving = 0;
    NotificationCenter::Token token = 0;
    token = center.addObserver("once", [&](const Notification&) {
        ++selfRemoving;
        center.removeObserver(token);
    });
    center.post("once");
    center.post("once");
    EXPECT_EQ(selfRemoving, 1);

    // Posters race a removal: once removeObserver has returned, no call may start.
    std::atomic<bool> removed{false};
    std::atomic<int> lateCalls{0};
    std::atomic<int> calls{0};
    auto raced = center.addObserver("busy", [&](const Notification&) {
        if (removed)
            ++lateCalls;
        ++calls;
    });
    std::atomic<bool> stop{false};
    std::vector<std::thread> posters;
    for (int i = 0; i < 3; ++i)
        posters.emplace_back([&] {
            while (!stop)
                center.post("busy");
        });
    while (calls < 100)
        std::this_thread::yield();
    center.removeObserver(raced);
    removed = true;
    for (int i = 0; i < 1000; ++i)
        center.post("busy");
    stop = true;
    for (auto& t : posters)
        t.join();
    EXPECT_EQ(lateCalls, 0);
}

// test-labels: concurrency
#include "lmkit/foundation/ThreadSafeMutableDictionary.hpp"

#include <algorithm>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/TestSupport.hpp"

using namespace lmkit;

TEST(ThreadSafeMutableDictionary, NilObjectRemovesTheKey) {
    ThreadSafeMutableDictionary<std::string, std::shared_ptr<int>> dict;
    dict.setObject(std::make_shared<int>(1), "a");
    dict.setObjectForKeyedSubscript(std::make_shared<int>(2), "b");
    ASSERT_EQ(dict.count(), 2u);
    EXPECT_EQ(*dict.objectForKeyedSubscript("b"), 2);
    EXPECT_EQ(dict.objectForKey("missing"), nullptr);

    dict.setObject(nullptr, "a");
    EXPECT_EQ(dict.objectForKey("a"), nullptr);
    EXPECT_EQ(dict.count(), 1u);
    dict.setObject(nullptr, "never-there");
    EXPECT_EQ(dict.count(), 1u);

    ThreadSafeMutableDictionary<std::string, double> delays;
    delays.setObject(12.5, "node-1");
    delays.setObject(std::nullopt, "node-1");
    EXPECT_EQ(delays.objectForKey("node-1"), std::nullopt);
}

TEST(ThreadSafeMutableDictionary, PairsAreStoredInOrderAndSnapshotsStayPut) {
    std::optional<int> objects[] = {1, 2, std::nullopt, 4};
    std::string keys[] = {"x", "y", "x", "y"};
    ThreadSafeMutableDictionary<std::string, int> dict(objects, keys, 4);
    // "x" was set then removed by the nil that followed; "y" was overwritten by 4.
    EXPECT_EQ(dict.count(), 1u);
    EXPECT_EQ(dict.objectForKey("y"), 4);

    auto copy = dict.copy();
    dict.setObject(5, "z");
    dict.removeObjectForKey("y");
    EXPECT_EQ(copy.size(), 1u);
    EXPECT_EQ(copy.at("y"), 4);
    EXPECT_EQ(dict.allValues(), std::vector<int>{5});

    dict.removeAllObjects();
    EXPECT_EQ(dict.count(), 0u);
}

TEST(ThreadSafeMutableDictionary, EnumerationVisitsEveryPairUntilStopped) {
    ThreadSafeMutableDictionary<int, std::string> dict{{1, "a"}, {2, "b"}, {3, "c"}};
    std::set<int> seen;
    dict.enumerateKeysAndObjects([&](int key, const std::string& value, bool&) {
        EXPECT_EQ(value, std::string(1, static_cast<char>('a' + key - 1)));
        seen.insert(key);
    });
    EXPECT_EQ(seen, (std::set<int>{1, 2, 3}));

    int visits = 0;
    dict.enumerateKeysAndObjects([&](int, const std::string&, bool& stop) {
        ++visits;
        stop = true;
    });
    EXPECT_EQ(visits, 1);

    auto keys = dict.keyEnumerator();
    std::set<int> enumerated;
    while (auto key = keys.nextObject())
        enumerated.insert(*key);
    EXPECT_EQ(enumerated, (std::set<int>{1, 2, 3}));
}

TEST(ThreadSafeMutableDictionary, ConcurrentWritersAndReadersAgree) {
    ThreadSafeMutableDictionary<int, int> dict;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i) {
                int key = t * 10000 + i;
                dict.setObject(i, key);
                EXPECT_EQ(dict.objectForKey(key), i);  // read-after-write on this thread
                if (i % 2 == 1)
                    dict.removeObjectForKey(key);
                dict.allValues();
                dict.enumerateKeysAndObjects([](int, int, bool& stop) { stop = true; });
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    auto copy = dict.copy();
    EXPECT_EQ(copy.size(), 4u * 1000u);
    for (const auto& [key, value] : copy)
        EXPECT_EQ(key % 10000, value);
}

TEST(ThreadSafeMutableDictionary, AWriteFromInsideAnEnumerationIsQueuedBehindIt) {
    ThreadSafeMutableDictionary<int, int> dict{{1, 1}, {2, 2}};
    dict.enumerateKeysAndObjects([&](int key, int value, bool&) {
        dict.setObject(value * 10, key + 10);
        EXPECT_EQ(dict.count(), 2u);  // a read from inside runs at once, before the writes
    });
    EXPECT_EQ(dict.count(), 4u);
    EXPECT_EQ(dict.objectForKey(12), 20);
}

TEST(ThreadSafeMutableDictionary, ContentsComeFromAFileOrAnArchive) {
    lmkit::testing::TempDir dir;
    std::ofstream(dir.path() / "delays.json") << R"({"a": 1.5, "b": 2})";
    ThreadSafeMutableDictionary<std::string, double> fromFile(
        ContentsOfFile{dir.path() / "delays.json"});
    EXPECT_EQ(fromFile.count(), 2u);
    EXPECT_EQ(fromFile.objectForKey("a"), 1.5);
    nlohmann::ordered_json archive = {{"c", 3}};
    using Delays = ThreadSafeMutableDictionary<std::string, double>;
    EXPECT_EQ(Delays(Coder{archive}).objectForKey("c"), 3.0);

    ThreadSafeMutableDictionary<std::string, double> unreadable(
        ContentsOfFile{dir.path() / "absent.json"});
    unreadable.setObject(1.0, "a");
    EXPECT_EQ(unreadable.count(), 0u);
    EXPECT_EQ(unreadable.objectForKey("a"), std::nullopt);
}

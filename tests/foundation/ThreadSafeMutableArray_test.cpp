// test-labels: concurrency
#include "lmkit/foundation/ThreadSafeMutableArray.hpp"

#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/TestSupport.hpp"

using namespace lmkit;

namespace {
struct Node {
    std::string host;
    bool operator==(const Node&) const = default;
};
using NodeRef = std::shared_ptr<Node>;
NodeRef node(std::string host) {
    return std::make_shared<Node>(Node{std::move(host)});
}
}  // namespace

TEST(ThreadSafeMutableArray, BadIndexesAreDroppedNotAppendedOrThrown) {
    ThreadSafeMutableArray<int> array;
    array.insertObject(1, 0);  // index 0 == count on an empty array: dropped
    EXPECT_EQ(array.count(), 0u);

    array.addObject(1);
    array.addObject(2);
    EXPECT_EQ(array.objectAtIndex(5), std::nullopt);
    array.addObject(3);
    array.insertObject(9, 3);  // index == count: dropped, not appended
    array.insertObject(9, 7);
    EXPECT_EQ(array.immutableArray(), (std::vector<int>{1, 2, 3}));
    array.insertObject(0, 0);
    array.insertObject(5, 3);
    EXPECT_EQ(array.immutableArray(), (std::vector<int>{0, 1, 2, 5, 3}));

    array.removeObjectAtIndex(5);
    array.replaceObjectAtIndex(5, 8);
    EXPECT_EQ(array.count(), 5u);
    array.replaceObjectAtIndex(4, 8);
    array.removeObjectAtIndex(0);
    EXPECT_EQ(array.immutableArray(), (std::vector<int>{1, 2, 5, 8}));

    array.removeLastObject();
    EXPECT_EQ(array.objectAtIndex(2), 5);
    array.removeAllObjects();
    array.removeLastObject();  // nothing to remove on an empty array
    EXPECT_EQ(array.count(), 0u);
}

TEST(ThreadSafeMutableArray, NilObjectsAreIgnored) {
    ThreadSafeMutableArray<NodeRef> array;
    array.addObject(nullptr);
    array.addObjectsFromArray(std::nullopt);
    EXPECT_EQ(array.count(), 0u);
    array.addObject(node("a"));
    array.insertObject(nullptr, 0);
    array.replaceObjectAtIndex(0, nullptr);
    array.removeObject(nullptr);
    ASSERT_EQ(array.count(), 1u);
    EXPECT_EQ(array.objectAtIndex(0)->host, "a");

    ThreadSafeMutableArray<int> numbers;
    numbers.addObject(std::nullopt);
    numbers.insertObject(std::nullopt, 0);
    EXPECT_EQ(numbers.count(), 0u);
    std::optional<int> objects[] = {1, std::nullopt, 3, 4};
    ThreadSafeMutableArray<int> constructed(objects, 3);
    EXPECT_EQ(constructed.immutableArray(), (std::vector<int>{1, 3}));
}

TEST(ThreadSafeMutableArray, LookupsCompareObjectsByValue) {
    NodeRef b1 = node("b");
    ThreadSafeMutableArray<NodeRef> array{node("a"), b1, node("c"), node("b")};
    EXPECT_EQ(array.indexOfObject(node("b")), 1u);  // an equal object, not the same one
    EXPECT_EQ(array.indexOfObject(node("z")), 0x7FFFFFFFFFFFFFFFu);
    EXPECT_EQ(array.indexOfObject(nullptr), kNotFound);
    array.removeObject(node("b"));  // every equal element goes
    ASSERT_EQ(array.count(), 2u);
    EXPECT_EQ(array.objectAtIndex(1)->host, "c");

    ThreadSafeMutableArray<int> numbers{4, 5, 4};
    EXPECT_EQ(numbers.indexOfObject(5), 1u);
    EXPECT_EQ(numbers.indexOfObject(6), kNotFound);
}

TEST(ThreadSafeMutableArray, SnapshotsAndRanges) {
    ThreadSafeMutableArray<int> array{1, 2, 3, 4};
    auto snapshot = array.immutableArray();
    array.addObject(5);
    EXPECT_EQ(snapshot.size(), 4u);

    EXPECT_EQ(array.subarrayWithRange(1, 3), (std::vector<int>{2, 3, 4}));
    EXPECT_EQ(array.subarrayWithRange(5, 0), std::vector<int>{});
    EXPECT_EQ(array.subarrayWithRange(4, 2), std::nullopt);
    EXPECT_EQ(array.subarrayWithRange(6, 0), std::nullopt);
    EXPECT_EQ(array.subarrayWithRange(1, SIZE_MAX), std::nullopt);  // no overflow past the end
}

TEST(ThreadSafeMutableArray, EnumerationOrderStopAndIndexes) {
    ThreadSafeMutableArray<int> array{10, 11, 12, 13};
    std::vector<std::pair<int, std::size_t>> seen;
    array.enumerateObjects([&](int v, std::size_t i, bool& stop) {
        seen.emplace_back(v, i);
        stop = i == 2;
    });
    EXPECT_EQ(seen, (std::vector<std::pair<int, std::size_t>>{{10, 0}, {11, 1}, {12, 2}}));

    std::vector<int> values;
    array.enumerateObjects(kEnumerationReverse,
                           [&](int v, std::size_t, bool&) { values.push_back(v); });
    EXPECT_EQ(values, (std::vector<int>{13, 12, 11, 10}));

    values.clear();
    array.enumerateObjects({0, 2, 9}, kEnumerationReverse,
                           [&](int v, std::size_t, bool&) { values.push_back(v); });
    EXPECT_EQ(values, (std::vector<int>{12, 10}));

    auto enumerator = array.objectEnumerator();
    EXPECT_EQ(enumerator.nextObject(), 10);
    array.removeObjectAtIndex(0);  // live: the enumerator sees the change
    EXPECT_EQ(enumerator.nextObject(), 12);
    EXPECT_EQ(enumerator.nextObject(), 13);
    EXPECT_EQ(enumerator.nextObject(), std::nullopt);
}

TEST(ThreadSafeMutableArray, WritesFromManyThreadsAreAllKeptAndSeenElsewhere) {
    ThreadSafeMutableArray<int> array;
    constexpr int kPerThread = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                array.addObject(t * kPerThread + i);
                if (i % 200 == 0) {
                    // A read on another thread right after the write sees it.
                    std::size_t seen = 0;
                    std::thread([&] { seen = array.count(); }).join();
                    EXPECT_GE(seen, static_cast<std::size_t>(i + 1));
                }
                array.objectAtIndex(static_cast<std::size_t>(i));
                array.enumerateObjects([](int, std::size_t, bool& stop) { stop = true; });
                if (i % 3 == 0)
                    array.insertObject(-1, 0);
                if (i % 3 == 0)
                    array.removeObject(-1);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    auto all = array.immutableArray();
    ASSERT_EQ(all.size(), 4u * kPerThread);
    std::sort(all.begin(), all.end());
    for (int i = 0; i < 4 * kPerThread; ++i)
        ASSERT_EQ(all[static_cast<std::size_t>(i)], i);
}

TEST(ThreadSafeMutableArray, AWriteFromInsideAnEnumerationIsQueuedBehindIt) {
    ThreadSafeMutableArray<int> array{1, 2, 3};
    std::vector<std::size_t> countsInside;
    array.enumerateObjects([&](int value, std::size_t, bool&) {
        EXPECT_TRUE(array.queue().isCurrent());
        array.addObject(value * 10);
        countsInside.push_back(array.count());  // a read from inside runs at once
    });
    EXPECT_EQ(countsInside, (std::vector<std::size_t>{3, 3, 3}));
    EXPECT_EQ(array.immutableArray(), (std::vector<int>{1, 2, 3, 10, 20, 30}));

    // Writes still queued when the array goes away do nothing.
    auto doomed = std::make_unique<ThreadSafeMutableArray<int>>();
    for (int i = 0; i < 1000; ++i)
        doomed->addObject(i);
    doomed.reset();
}

TEST(ThreadSafeMutableArray, ContentsComeFromAFileOrAnArchive) {
    lmkit::testing::TempDir dir;
    std::ofstream(dir.path() / "numbers.json") << "[1, 2, 3]";
    std::ofstream(dir.path() / "words.json") << R"(["a"])";
    ThreadSafeMutableArray<int> fromFile(ContentsOfFile{dir.path() / "numbers.json"});
    EXPECT_EQ(fromFile.immutableArray(), (std::vector<int>{1, 2, 3}));
    fromFile.addObject(4);
    EXPECT_EQ(fromFile.count(), 4u);
    nlohmann::ordered_json archive = {5, 6};
    EXPECT_EQ(ThreadSafeMutableArray<int>(Coder{archive}).immutableArray(),
              (std::vector<int>{5, 6}));

    // A file that cannot be read as the array gives an empty array that ignores writes.
    for (const char* name : {"absent.json", "words.json", "."}) {
        ThreadSafeMutableArray<int> unreadable(ContentsOfFile{dir.path() / name});
        unreadable.addObject(1);
        unreadable.insertObject(2, 0);
        EXPECT_EQ(unreadable.count(), 0u) << name;
        EXPECT_EQ(unreadable.objectAtIndex(0), std::nullopt) << name;
    }
}

// Throughput of the thread-safe array and dictionary against a plain std::shared_mutex over a
// std::vector / std::unordered_map, measured in the same run with the same operations from two
// threads. Prints operations per second and the ratio (kit / baseline). No goal: every write is
// an asynchronous barrier, handed to a pool thread so that the writer never waits, and the reads
// that follow wait behind it, so a mix with writes runs at a small fraction of the lock's
// throughput (0.01-0.06x here). The figure shows that price.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "lmkit/foundation/ThreadSafeMutableArray.hpp"
#include "lmkit/foundation/ThreadSafeMutableDictionary.hpp"

namespace {

constexpr int kThreads = 2;
constexpr int kOpsPerThread = 50'000;
constexpr int kRounds = 3;  // best of three: the machine is shared
constexpr int kKeys = 1024;

struct BaselineArray {
    mutable std::shared_mutex mutex;
    std::vector<int> array;
    std::optional<int> objectAtIndex(std::size_t index) const {
        std::shared_lock lock(mutex);
        if (index >= array.size())
            return std::nullopt;
        return array[index];
    }
    std::size_t count() const {
        std::shared_lock lock(mutex);
        return array.size();
    }
    void addObject(int value) {
        std::unique_lock lock(mutex);
        array.push_back(value);
    }
    void removeLastObject() {
        std::unique_lock lock(mutex);
        if (!array.empty())
            array.pop_back();
    }
};

struct BaselineDictionary {
    mutable std::shared_mutex mutex;
    std::unordered_map<int, int> dict;
    std::optional<int> objectForKey(int key) const {
        std::shared_lock lock(mutex);
        auto found = dict.find(key);
        if (found == dict.end())
            return std::nullopt;
        return found->second;
    }
    void setObject(int value, int key) {
        std::unique_lock lock(mutex);
        dict.insert_or_assign(key, value);
    }
};

// Runs `body(thread, op)` kOpsPerThread times on each of kThreads threads; operations per second.
template <class Body>
double throughput(Body body) {
    double best = 0;
    for (int round = 0; round < kRounds; ++round) {
        auto start = std::chrono::steady_clock::now();
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                for (int op = 0; op < kOpsPerThread; ++op)
                    body(t, op);
            });
        }
        for (auto& thread : threads)
            thread.join();
        std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        best = std::max(best, kThreads * kOpsPerThread / elapsed.count());
    }
    return best;
}

// One write in `writeEvery` operations, the rest reads.
template <class Array>
double arrayMix(Array& array, int writeEvery) {
    for (int i = 0; i < kKeys; ++i)
        array.addObject(i);
    return throughput([&](int t, int op) {
        if (op % writeEvery == 0) {
            if (t == 0) {
                array.addObject(op);
            } else {
                array.removeLastObject();
            }
        } else {
            benchmark::DoNotOptimize(array.objectAtIndex(static_cast<std::size_t>(op % kKeys)));
        }
    });
}

template <class Dictionary>
double dictionaryMix(Dictionary& dict, int writeEvery) {
    for (int i = 0; i < kKeys; ++i)
        dict.setObject(i, i);
    return throughput([&](int t, int op) {
        int key = (op * 7 + t) % kKeys;
        if (op % writeEvery == 0) {
            dict.setObject(op, key);
        } else {
            benchmark::DoNotOptimize(dict.objectForKey(key));
        }
    });
}

void report(const char* name, double kit, double baseline) {
    std::printf("%-34s kit %8.2f Mops/s   baseline %8.2f Mops/s   ratio %.2fx\n", name, kit / 1e6,
                baseline / 1e6, kit / baseline);
}

}  // namespace

int main() {
    std::printf("%d threads, %d operations each, best of %d rounds\n", kThreads, kOpsPerThread,
                kRounds);
    for (int writeEvery : {10, 2}) {
        char name[64];
        {
            lmkit::ThreadSafeMutableArray<int> kit;
            BaselineArray baseline;
            double b = arrayMix(baseline, writeEvery);
            double k = arrayMix(kit, writeEvery);
            std::snprintf(name, sizeof name, "array, 1 write in %d ops", writeEvery);
            report(name, k, b);
        }
        {
            lmkit::ThreadSafeMutableDictionary<int, int> kit;
            BaselineDictionary baseline;
            double b = dictionaryMix(baseline, writeEvery);
            double k = dictionaryMix(kit, writeEvery);
            std::snprintf(name, sizeof name, "dictionary, 1 write in %d ops", writeEvery);
            report(name, k, b);
        }
    }
    return 0;
}

// test-labels: concurrency slow
// Many short selector runs at once against misbehaving echo endpoints, with stops and releases
// at random moments. Every run that is left alone reports exactly once; a run that is stopped or
// released reports at most once, and never after a stop made on its callback queue.
//
// LMKIT_RELIABILITY_RUNS sets the number of runs, LMKIT_RELIABILITY_SEED repeats a seed.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <random>
#include <thread>

#include "lmkit/nodes/NodeSelector.hpp"
#include "lmkit/testbed/EchoServer.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using lmkit::testing::waitFor;
using Nodes = NodeSelector::Nodes;

namespace {

// About 15 s in a Debug build and 25 s under ThreadSanitizer.
constexpr long kDefaultRuns = 1000;
constexpr int kWorkers = 6;

long runCount() {
    if (const char* text = std::getenv("LMKIT_RELIABILITY_RUNS")) {
        long value = std::strtol(text, nullptr, 10);
        if (value > 0)
            return value;
    }
    return kDefaultRuns;
}

uint64_t seed() {
    if (const char* text = std::getenv("LMKIT_RELIABILITY_SEED"))
        return std::strtoull(text, nullptr, 10);
    return static_cast<uint64_t>(std::random_device{}()) << 32 | std::random_device{}();
}

// One endpoint per way of misbehaving, all on one port (a selector probes every server on the
// same port), at 127.0.0.1, 127.0.0.2, ...
std::vector<EchoFaults> faultKinds() {
    std::vector<EchoFaults> kinds(11);
    kinds[0].delaySeconds = 0.002;
    kinds[1].delaySeconds = 0.005;
    kinds[1].jitterSeconds = 0.02;
    kinds[2].duplicate = true;
    kinds[3].reorder = true;
    kinds[4].garbage = true;
    kinds[5].otherPort = true;
    kinds[6].lateSeconds = 0.4;  // past every run's time-out
    kinds[7].loss = 0.5;
    kinds[8].loss = 1;
    kinds[9].junkFlood = 4;
    kinds[9].delaySeconds = 0.003;
    kinds[10].duplicate = kinds[10].reorder = true;
    kinds[10].junkFlood = 2;
    kinds[10].loss = 0.2;
    return kinds;
}

std::string host(std::size_t i) {
    return "127.0.0." + std::to_string(i + 1);
}

enum class Action {
    LeaveAlone,         // must report exactly once
    StopOnCallbacks,    // stop() on the callback queue: nothing may follow it
    StopFromElsewhere,  // stop() from another thread: at most one report
    Release,            // last reference dropped mid-run: at most one report, no leak
    StopAndRunAgain,    // the second run on the same selector reports exactly once
    ReleaseInCallback,  // the callback drops the last reference: exactly once
};
constexpr int kActionCount = 6;

constexpr const char* kActionNames[kActionCount] = {
    "leave alone", "stop on callback queue", "stop from another thread",
    "release",     "stop and run again",     "release in callback"};

// What one run heard.
struct Reports {
    std::atomic<int> successes{0};
    std::atomic<int> failures{0};
    std::atomic<bool> stopped{false};
    std::atomic<int> afterStop{0};
    std::atomic<int> badSuccess{0};  // a success without nodes or with an impossible figure
    int count() const { return successes + failures; }
};

struct SelectorRun {
    long index = 0;
    Action action = Action::LeaveAlone;
    std::string fleet;
    Reports first;
    Reports second;  // StopAndRunAgain only
    std::weak_ptr<NodeSelector> weak;
};

void launch(const std::shared_ptr<NodeSelector>& selector, std::mt19937_64& random,
            const Nodes& nodes, Reports& reports, std::function<void()> onReport = nullptr) {
    auto note = [&reports, onReport](bool success) {
        if (reports.stopped)
            ++reports.afterStop;
        ++(success ? reports.successes : reports.failures);
        if (onReport)
            onReport();
    };
    auto failure = [note](const Error& error) {
        (void)error;
        note(false);
    };
    auto config = AccConfig::defaultConfig();
    long delayMode = static_cast<long>(random() % 2);
    switch (random() % 3) {
        case 0:
            selector->pickBestNodeFromNodes(
                nodes, config, delayMode,
                [note, &reports](const Nodes& chosen, double delay, double loss, double) {
                    if (chosen.empty() || !(delay > 0) || loss < 0 || loss > 1)
                        ++reports.badSuccess;
                    note(true);
                },
                failure);
            break;
        case 1:
            selector->testMultipathNodeFromNodes(
                nodes, config, delayMode,
                [note, &reports, size = nodes.size()](const Nodes& chosen, double delay,
                                                      double loss, double) {
                    // Multipath hands every node back.
                    if (chosen.size() != size || !(delay > 0) || loss < 0 || loss > 1)
                        ++reports.badSuccess;
                    note(true);
                },
                failure);
            break;
        default:
            selector->testPingFromNode(
                nodes.front(), config,
                [note, &reports](const std::shared_ptr<AccNode>& node, double delay, double loss,
                                 double) {
                    if (!node || !(delay > 0) || loss < 0 || loss > 1)
                        ++reports.badSuccess;
                    note(true);
                },
                failure);
            break;
    }
}

}  // namespace

TEST(NodeSelectorReliability, EveryRunReportsOnceWhateverTheEchoesAndTheCallerDo) {
    const uint64_t baseSeed = seed();
    const long runs = runCount();
    std::cout << "[ reliability ] seed " << baseSeed << " (LMKIT_RELIABILITY_SEED), " << runs
              << " runs" << std::endl;
    RecordProperty("seed", std::to_string(baseSeed));

    const auto kinds = faultKinds();
    uint16_t port = 0;
    auto echoes = lmkit::testing::echoesOnOnePort(kinds, baseSeed, port);
    ASSERT_TRUE(echoes);

    std::vector<std::unique_ptr<SelectorRun>> all(static_cast<std::size_t>(runs));
    std::mutex keptMutex;
    std::vector<std::shared_ptr<NodeSelector>> kept;  // finished runs stay alive for late echoes
    std::atomic<long> next{0};
    std::atomic<int> stuck{0};

    auto work = [&] {
        for (long index = next++; index < runs; index = next++) {
            auto run = std::make_unique<SelectorRun>();
            SelectorRun& r = *run;
            r.index = index;
            std::mt19937_64 random(baseSeed + static_cast<uint64_t>(index) * 7919);
            r.action = static_cast<Action>(random() % kActionCount);

            Nodes nodes;
            std::size_t fleet = 1 + random() % 4;
            for (std::size_t i = 0; i < fleet; ++i) {
                auto node = std::make_shared<AccNode>();
                std::size_t kind = random() % kinds.size();
                node->ip = host(kind);
                node->port = Number(443);
                // A light load gives every node a score, so a run always has a node to report.
                node->totalCount = Number(100);
                node->onlineCount = Number(static_cast<int>(random() % 50));
                nodes.push_back(node);
                r.fleet += std::to_string(kind) + " ";
            }
            double timeout = 0.04 + 0.01 * static_cast<double>(random() % 11);
            long probes = 1 + static_cast<long>(random() % 5);
            auto callbacks =
                DispatchQueue::serial("reliability.callbacks." + std::to_string(index));
            auto selector =
                NodeSelector::create(NodeSelector::kInterfaceAny, timeout, probes, callbacks);
            selector->setPort(port);
            if (random() % 5 == 0)
                selector->setSendDataPrefix("LM");
            r.weak = selector;
            auto pause =
                std::chrono::microseconds(random() % static_cast<uint64_t>(timeout * 1.3e6));

            switch (r.action) {
                case Action::LeaveAlone:
                    launch(selector, random, nodes, r.first);
                    if (!waitFor([&] { return r.first.count() > 0; }, 15))
                        ++stuck;
                    break;
                case Action::StopOnCallbacks:
                    launch(selector, random, nodes, r.first);
                    std::this_thread::sleep_for(pause);
                    callbacks.sync([&] {
                        selector->stop();
                        r.first.stopped = true;
                    });
                    break;
                case Action::StopFromElsewhere:
                    launch(selector, random, nodes, r.first);
                    std::this_thread::sleep_for(pause);
                    selector->stop();
                    break;
                case Action::Release:
                    launch(selector, random, nodes, r.first);
                    std::this_thread::sleep_for(pause);
                    selector.reset();
                    break;
                case Action::StopAndRunAgain:
                    launch(selector, random, nodes, r.first);
                    std::this_thread::sleep_for(pause);
                    callbacks.sync([&] {
                        selector->stop();
                        r.first.stopped = true;
                    });
                    launch(selector, random, nodes, r.second);
                    if (!waitFor([&] { return r.second.count() > 0; }, 15))
                        ++stuck;
                    break;
                case Action::ReleaseInCallback: {
                    auto holder = std::make_shared<std::shared_ptr<NodeSelector>>(selector);
                    // The callback queue owns the holder, so the callback and this thread never
                    // touch it at once.
                    launch(selector, random, nodes, r.first, [holder] { holder->reset(); });
                    selector.reset();
                    if (!waitFor([&] { return r.first.count() > 0; }, 15))
                        ++stuck;
                    break;
                }
            }
            if (selector) {
                std::lock_guard guard(keptMutex);
                kept.push_back(std::move(selector));
            }
            all[static_cast<std::size_t>(index)] = std::move(run);
        }
    };
    std::vector<std::thread> workers;
    for (int i = 0; i < kWorkers; ++i)
        workers.emplace_back(work);
    for (auto& worker : workers)
        worker.join();

    // Late echoes (0.4 s) and anything still queued get their chance to misbehave.
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    EXPECT_EQ(stuck, 0) << "seed " << baseSeed;

    int checked = 0;
    for (const auto& run : all) {
        ASSERT_TRUE(run);
        const SelectorRun& r = *run;
        SCOPED_TRACE(::testing::Message()
                     << "seed " << baseSeed << ", run " << r.index << " ("
                     << kActionNames[static_cast<int>(r.action)] << ", fleet " << r.fleet << ")");
        EXPECT_EQ(r.first.badSuccess + r.second.badSuccess, 0);
        switch (r.action) {
            case Action::LeaveAlone:
            case Action::ReleaseInCallback:
                EXPECT_EQ(r.first.count(), 1);
                break;
            case Action::StopOnCallbacks:
                EXPECT_LE(r.first.count(), 1);
                EXPECT_EQ(r.first.afterStop, 0);
                break;
            case Action::StopFromElsewhere:
            case Action::Release:
                EXPECT_LE(r.first.count(), 1);
                break;
            case Action::StopAndRunAgain:
                EXPECT_LE(r.first.count(), 1);
                EXPECT_EQ(r.first.afterStop, 0);
                EXPECT_EQ(r.second.count(), 1);
                break;
        }
        ++checked;
    }
    EXPECT_EQ(checked, runs);

    // Nothing keeps a selector alive once its owners let go: no cycle through timers, socket
    // delegates or queued blocks.
    {
        std::lock_guard guard(keptMutex);
        kept.clear();
    }
    auto everyRunReleased = [&all] {
        return std::all_of(all.begin(), all.end(), [](const std::unique_ptr<SelectorRun>& run) {
            return run->weak.expired();
        });
    };
    EXPECT_TRUE(waitFor(everyRunReleased, 10)) << "seed " << baseSeed;
    echoes->stop();
}

// lmkit speedometer: rounds of UDP echo packets to one endpoint, and the stored results.
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include <nlohmann/json.hpp>

#include "Command.hpp"
#include "lmkit/models/SpeedometerResult.hpp"
#include "lmkit/nodes/QosSpeedTestOperation.hpp"
#include "lmkit/nodes/Speedometer.hpp"
#include "lmkit/platform/Clock.hpp"

namespace lmkit::tool {
namespace {

struct SpeedometerOptions {
    std::string target;
    int rounds = 3;
    int packets = 10;
    double interval = 0.05;
    double timeout = 1.0;
    std::string interface = "any";
    bool save = false;
    long prefix = -1;
};

// Collects every round (or the failure) and wakes the command when the run is over.
struct RoundCollector : SpeedometerDelegate {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::vector<double>> rounds;
    std::optional<Error> error;
    bool json = false;

    void speedometerDidCompleteRound(Speedometer&, const std::vector<double>& delays) override {
        std::lock_guard guard(mutex);
        rounds.push_back(delays);
        if (!json) {
            std::string line = "round " + std::to_string(rounds.size()) + ":";
            for (double delay : delays)
                line += delay < 0 ? " lost" : " " + fmtDelay(delay);
            std::printf("%s\n", line.c_str());
            std::fflush(stdout);
        }
        changed.notify_all();
    }
    void speedometerDidFail(Speedometer&, const Error& failure) override {
        std::lock_guard guard(mutex);
        error = failure;
        changed.notify_all();
    }
    static std::string fmtDelay(double delay) {
        char text[32];
        std::snprintf(text, sizeof text, "%.2f", delay);
        return text;
    }
};

SpeedometerResult summarize(const SpeedometerTask& task, const std::string& interface,
                            const std::vector<std::vector<double>>& rounds, std::uint32_t seq) {
    std::vector<double> all, answered;
    for (const auto& round : rounds) {
        for (double delay : round) {
            all.push_back(delay);
            if (delay >= 0)
                answered.push_back(delay);
        }
    }
    double minimum = 0, maximum = 0, average = 0, jitter = 0;
    if (!answered.empty()) {
        minimum = *std::min_element(answered.begin(), answered.end());
        maximum = *std::max_element(answered.begin(), answered.end());
        for (double delay : answered)
            average += delay;
        average /= static_cast<double>(answered.size());
        for (double delay : answered)
            jitter += (delay - average) * (delay - average);
        jitter = std::sqrt(jitter / static_cast<double>(answered.size()));
    }
    double lossRate = all.empty() ? 1.0
                                  : static_cast<double>(all.size() - answered.size()) /
                                        static_cast<double>(all.size());
    return SpeedometerResult(seq, task.host, task.host, std::nullopt, std::nullopt, std::nullopt,
                             minimum, maximum, average, all, lossRate, jitter, interface,
                             static_cast<std::uint64_t>(Clock::nowMilliseconds()), std::nullopt,
                             !answered.empty());
}

void printResult(const SpeedometerResult& result, bool json) {
    if (json) {
        Error error;
        auto value = result.toJson(&error);
        if (!value)
            throw Failure(describe(error));
        std::printf("%s\n", value->dump().c_str());
        return;
    }
    if (!result.isReachable) {
        std::printf("%s: no packet answered (%zu sent)\n", result.host.c_str(),
                    result.latencies.size());
        return;
    }
    std::printf("%s: min %.2f ms, avg %.2f ms, max %.2f ms, jitter %.2f ms, loss %.1f%% of %zu\n",
                result.host.c_str(), result.minLatency, result.avgLatency, result.maxLatency,
                result.jitter, result.lossRate * 100, result.latencies.size());
}

int runMeasurement(const SpeedometerOptions& options, const Common& common) {
    SpeedometerTask task;
    long port = 0;
    if (!QosSpeedTestOperation::splitAddress(options.target, task.host, port) || port == 0)
        throw Failure("expected HOST:PORT, got \"" + options.target + "\"");
    task.port = static_cast<std::uint16_t>(port);
    task.rounds = options.rounds;
    task.packets = options.packets;
    task.intervalTime = options.interval;
    task.timeout = options.timeout;
    task.interfaceType = options.interface == "wifi"       ? Speedometer::kInterfaceWiFi
                         : options.interface == "cellular" ? Speedometer::kInterfaceCellular
                                                           : Speedometer::kInterfaceAny;
    if (auto invalid = Speedometer::validateTask(task))
        throw Failure(describe(*invalid));

    auto collector = std::make_shared<RoundCollector>();
    collector->json = common.json;
    auto engine = Speedometer::create(task);
    engine->setDelegate(collector);
    engine->start();
    {
        std::unique_lock lock(collector->mutex);
        collector->changed.wait(lock, [&] {
            return collector->error ||
                   collector->rounds.size() >= static_cast<std::size_t>(task.rounds);
        });
        if (collector->error)
            throw Failure(describe(*collector->error));
    }
    engine->stop();

    auto stored = SpeedometerResult::results();
    auto result = summarize(task, options.interface, collector->rounds,
                            static_cast<std::uint32_t>(stored.size() + 1));
    printResult(result, common.json);
    if (options.save) {
        if (!SpeedometerResult::append(result))
            throw Failure("cannot write " + SpeedometerResult::url().string());
        if (!common.json)
            std::printf("saved as result %u in %s\n", result.seq,
                        SpeedometerResult::url().string().c_str());
    }
    return 0;
}

int listResults(long prefix, const Common& common) {
    auto results = prefix >= 0 ? SpeedometerResult::results(static_cast<std::size_t>(prefix))
                               : SpeedometerResult::results();
    if (common.json) {
        auto list = nlohmann::ordered_json::array();
        for (const auto& result : results) {
            if (auto value = result.toJson())
                list.push_back(*value);
        }
        std::printf("%s\n", list.dump().c_str());
        return 0;
    }
    if (results.empty()) {
        std::printf("no stored results in %s\n", SpeedometerResult::url().string().c_str());
        return 0;
    }
    std::printf("%-6s %-24s %10s %10s %8s %s\n", "seq", "host", "avg ms", "jitter ms", "loss",
                "interface");
    for (const auto& result : results) {
        std::printf("%-6u %-24s %10.2f %10.2f %7.1f%% %s\n", result.seq, result.host.c_str(),
                    result.avgLatency, result.jitter, result.lossRate * 100,
                    result.networkInterface.c_str());
    }
    return 0;
}

Command speedometer(
    "speedometer", "Measure UDP echo delays in rounds; list the stored results",
    [](CLI::App& app, Common& common) {
        auto options = std::make_shared<SpeedometerOptions>();
        app.add_flag("--json", common.json, "Print data as JSON");
        app.add_option("TARGET", options->target, "Echo endpoint as HOST:PORT");
        app.add_option("--rounds", options->rounds, "Rounds to run")->check(CLI::Range(1, 1000));
        app.add_option("--packets", options->packets, "Packets per round")
            ->check(CLI::Range(1, Speedometer::kMaxPacketsPerRound));
        app.add_option("--interval", options->interval, "Seconds between packets and rounds")
            ->check(CLI::Range(0.0, 60.0));
        app.add_option("--timeout", options->timeout, "Seconds a round waits after its last packet")
            ->check(CLI::Range(0.001, 60.0));
        app.add_option("--interface", options->interface, "any, wifi or cellular")
            ->check(CLI::IsMember({"any", "wifi", "cellular"}));
        app.add_flag("--save", options->save, "Append the result to the stored results");
        auto* results = app.add_subcommand("results", "List the stored results, oldest first");
        results->add_option("--prefix", options->prefix, "Only the first N results")
            ->check(CLI::Range(0, 1000000000));
        results->add_flag("--json", common.json, "Print data as JSON");
        return [options, &common, results]() -> int {
            if (results->parsed())
                return listResults(options->prefix, common);
            if (options->target.empty())
                throw Failure("give HOST:PORT to measure, or \"results\"");
            return runMeasurement(*options, common);
        };
    });

}  // namespace
}  // namespace lmkit::tool

// lmkit watch: a selection every few seconds, with a history, a sticky choice, metrics for
// Prometheus and a latency chart. The selection is the kit's own; watch keeps what it says.
#include <cstdio>
#include <filesystem>
#include <map>
#include <optional>
#include <thread>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Command.hpp"
#include "InterruptWatch.hpp"
#include "LatencyChart.hpp"
#include "MetricsExporter.hpp"
#include "NodeRun.hpp"
#include "StickyChoice.hpp"
#include "WatchHistory.hpp"
#include "lmkit/nodes/ShareStorer.hpp"
#include "lmkit/platform/Clock.hpp"

namespace lmkit::tool {
namespace {

struct WatchOptions {
    std::vector<std::string> targets;
    double every = 10;
    long rounds = 0;  // 0: until stopped
    double keepDays = 7;
    long switchAfter = 3;
    std::optional<double> scoreGap;
    std::string metricsListen;
    std::size_t maxSeries = 100;
    std::string history;
    std::string chart;
    long count = 5;
    double timeout = 0;
    long port = 9999;
};

// The nodes to probe, by destination port: one selection per port and round.
std::map<long, NodeSelector::Nodes> targetsOf(const WatchOptions& options,
                                              std::shared_ptr<AccConfig>& config) {
    std::map<long, NodeSelector::Nodes> byPort;
    config = AccConfig::defaultConfig();
    std::error_code ec;
    if (options.targets.size() == 1 && std::filesystem::is_regular_file(options.targets[0], ec)) {
        readNodeDocument(options.targets[0], byPort[options.port], config);
        if (byPort[options.port].empty())
            throw Failure(options.targets[0] + ": the document lists no nodes");
        return byPort;
    }
    for (const auto& target : options.targets) {
        auto colon = target.rfind(':');
        std::string host = target.substr(0, colon);
        if (host.size() > 2 && host.front() == '[' && host.back() == ']')
            host = host.substr(1, host.size() - 2);
        long port = 0;
        if (colon == std::string::npos || host.empty() ||
            std::sscanf(target.c_str() + colon + 1, "%ld", &port) != 1 || port < 1 ||
            port > 65535 || target.find_first_not_of("0123456789", colon + 1) != std::string::npos)
            throw Failure("not a node document nor HOST:PORT: " + target);
        auto node = std::make_shared<AccNode>();
        node->ip = host;
        node->identifier = target;
        byPort[port].push_back(node);
    }
    return byPort;
}

// One round: every port's selection, condensed into the samples of the round.
WatchRound measure(const std::map<long, NodeSelector::Nodes>& byPort,
                   const std::shared_ptr<AccConfig>& config, const WatchOptions& options,
                   std::string& best) {
    WatchRound round;
    round.at = Clock::nowSeconds();
    double bestScore = -1;
    for (const auto& [port, nodes] : byPort) {
        NodeRunOptions run;
        run.count = options.count;
        run.timeout = options.timeout;
        run.port = port;
        NodeRunResult result;
        bool answered = true;
        try {
            result = runSelection(nodes, config, run);
        } catch (const Failure&) {
            answered = false;  // nothing answered at all: every node lost everything
        }
        round.late += result.late;
        round.duplicates += result.duplicates;
        for (const auto& node : nodes) {
            NodeSample sample;
            sample.node = NodeSelector::constructKeyWithHost(node->safePingServer(), port);
            if (answered) {
                sample.delayMs = node->delay;
                sample.minMs = node->minDelay;
                sample.maxMs = node->maxDelay;
                sample.loss = node->loss;
                sample.score = node->score();
                sample.deviationMs = node->deviation;
            } else {
                sample.loss = 1;
            }
            round.samples.push_back(sample);
        }
        if (!result.chosen.empty() && result.chosen.front()->score() > bestScore) {
            bestScore = result.chosen.front()->score();
            best =
                NodeSelector::constructKeyWithHost(result.chosen.front()->safePingServer(), port);
        }
    }
    return round;
}

std::string clockText(double at) {
    std::time_t seconds = static_cast<std::time_t>(at);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[16];
    std::strftime(text, sizeof text, "%H:%M:%S", &local);
    return text;
}

// What changed since the previous round: nodes that died, recovered or began to lose.
std::string changes(const WatchRound& round, std::map<std::string, double>& lastLoss) {
    std::string text;
    for (const auto& sample : round.samples) {
        auto previous = lastLoss.find(sample.node);
        const double before = previous == lastLoss.end() ? 0 : previous->second;
        lastLoss[sample.node] = sample.loss;
        if (sample.loss >= 1 && before < 1)
            text += "; " + sample.node + " stopped answering";
        else if (sample.loss < 1 && before >= 1)
            text += "; " + sample.node + " answers again";
        else if (sample.loss > 0 && sample.loss < 1 && before == 0)
            text += fmt::format("; {} lost {:.0f}%", sample.node, sample.loss * 100);
    }
    return text;
}

void printRound(const WatchRound& round, long number, const std::string& changed, bool json) {
    const NodeSample* chosen = nullptr;
    for (const auto& sample : round.samples)
        if (sample.node == round.chosen)
            chosen = &sample;
    if (json) {
        nlohmann::ordered_json line{{"round", number}, {"at", round.at}, {"chosen", round.chosen}};
        if (chosen) {
            line["delay_ms"] = chosen->delayMs;
            line["loss"] = chosen->loss;
        }
        line["switched"] = round.switched;
        if (round.switched)
            line["reason"] = round.reason;
        line["late"] = round.late;
        line["duplicates"] = round.duplicates;
        std::printf("%s\n", line.dump().c_str());
    } else if (!chosen) {
        std::printf("%s round %ld: nothing chosen (no node scored above 0)%s\n",
                    clockText(round.at).c_str(), number, changed.c_str());
    } else {
        std::printf("%s round %ld: %s delay %.3f ms loss %.0f%%%s%s\n", clockText(round.at).c_str(),
                    number, round.chosen.c_str(), chosen->delayMs, chosen->loss * 100,
                    round.switched ? (" — chose it: " + round.reason).c_str() : "",
                    changed.c_str());
    }
    std::fflush(stdout);
}

int runWatch(const WatchOptions& options, const Common& common) {
    std::shared_ptr<AccConfig> config;
    const auto byPort = targetsOf(options, config);

    std::unique_ptr<MetricsExporter> metrics;
    if (!options.metricsListen.empty()) {
        std::string error;
        metrics = MetricsExporter::start(options.metricsListen, options.maxSeries, error);
        if (!metrics)
            throw Failure(error);
    }
    const std::filesystem::path historyPath = options.history.empty()
                                                  ? defaultWatchHistoryPath()
                                                  : std::filesystem::path(options.history);
    std::string error;
    auto history = WatchHistory::open(historyPath, error, options.keepDays * 86400.0);
    if (!history)
        throw Failure(error);
    if (history->setAside())
        std::fprintf(stderr,
                     "lmkit watch: the history %s was damaged (%s); it is kept as %s and a new "
                     "one starts\n",
                     historyPath.c_str(), history->damage().c_str(), history->setAside()->c_str());

    const double gap = options.scoreGap.value_or(
        ShareStorer::sharedInstance().scoreRangeGap().value_or(Number(0)).doubleValue());
    StickyChoice choice(options.switchAfter, gap);
    if (auto last = history->lastChosen())
        choice.restore(*last);

    InterruptWatch interrupts;
    if (!common.json) {
        std::printf(
            "watching %zu nodes every %gs (switch after %ld rounds beyond a gap of %g); "
            "history %s%s\n",
            [&] {
                std::size_t n = 0;
                for (const auto& [port, nodes] : byPort)
                    n += nodes.size();
                return n;
            }(),
            options.every, options.switchAfter, gap, historyPath.c_str(),
            options.metricsListen.empty()
                ? ""
                : (", metrics on http://" + options.metricsListen + "/metrics").c_str());
        std::fflush(stdout);
    }

    std::map<std::string, double> lastLoss;
    long number = 0;
    auto next = std::chrono::steady_clock::now();
    while (!InterruptWatch::interrupted() && (options.rounds == 0 || number < options.rounds)) {
        std::string best;
        WatchRound round = measure(byPort, config, options, best);
        std::map<std::string, double> scores;
        for (const auto& sample : round.samples)
            scores[sample.node] = sample.score;
        auto decision = choice.update(best, scores);
        round.chosen = decision.chosen;
        round.switched = decision.switched;
        round.reason = decision.reason;
        ++number;
        if (!history->append(round, error))
            throw Failure("cannot write the history " + historyPath.string() + ": " + error);
        if (metrics)
            metrics->record(round, options.count);
        if (!options.chart.empty() &&
            !LatencyChart::draw(history->rounds(round.at - options.keepDays * 86400.0),
                                options.chart, error))
            throw Failure(error);
        printRound(round, number, changes(round, lastLoss), common.json);

        next += std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(options.every));
        while (!InterruptWatch::interrupted() && (options.rounds == 0 || number < options.rounds) &&
               std::chrono::steady_clock::now() < next)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!common.json)
        std::printf("stopped after %ld rounds; %lld rounds in the history\n", number,
                    static_cast<long long>(history->roundCount()));
    return 0;
}

Command watch(
    "watch", "Run a selection every few seconds and keep its history, with metrics and charts",
    [](CLI::App& app, Common& common) {
        auto options = std::make_shared<WatchOptions>();
        app.add_option("targets", options->targets,
                       "A service document (as select takes), or HOST:PORT of each node")
            ->required();
        app.add_option("--every", options->every, "Seconds from one round to the next")
            ->check(CLI::Range(0.05, 86400.0));
        app.add_option("--rounds", options->rounds, "Stop after this many rounds (0: never)")
            ->check(CLI::Range(0, 1000000000));
        app.add_option("--keep", options->keepDays, "Days of history to keep")
            ->check(CLI::Range(0.001, 3650.0));
        app.add_option("--switch-after", options->switchAfter,
                       "Rounds in a row another node must beat the chosen one before the choice "
                       "moves (1: follow every round's selection)")
            ->check(CLI::Range(1, 1000));
        app.add_option("--score-gap", options->scoreGap,
                       "Points by which another node must beat the chosen one (default: the "
                       "stored score gap, else 0)")
            ->check(CLI::Range(0.0, 100000.0));
        app.add_option("--metrics-listen", options->metricsListen,
                       "Serve Prometheus metrics at http://ADDRESS:PORT/metrics "
                       "(e.g. 127.0.0.1:9464)");
        app.add_option("--max-series", options->maxSeries,
                       "Nodes with series of their own; the others share the node label "
                       "\"other\"")
            ->check(CLI::Range(1, 100000));
        app.add_option("--history", options->history,
                       "History database (default: Watch/history.sqlite in the app group)");
        app.add_option("--chart", options->chart,
                       "Draw the latency chart into this .svg or .png after every round");
        app.add_option("--count", options->count, "Probes per node and round")
            ->check(CLI::Range(1, 100));
        app.add_option("--timeout", options->timeout,
                       "Receive time-out in seconds (0: the selector's own)")
            ->check(CLI::Range(0.0, 60.0));
        app.add_option("--port", options->port, "Probe port of a document's nodes")
            ->check(CLI::Range(1, 65535));
        app.add_flag("--json", common.json, "One JSON object per round");
        return [options, &common]() -> int { return runWatch(*options, common); };
    });

}  // namespace
}  // namespace lmkit::tool

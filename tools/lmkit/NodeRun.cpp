#include "NodeRun.hpp"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include "Command.hpp"
#include "DataFiles.hpp"
#include "lmkit/models/AccAPIResponseObject.hpp"
#include "lmkit/platform/DispatchQueue.hpp"

namespace lmkit::tool {

namespace {

// After a run has finished without a report (every node scored 0) nothing more will come.
constexpr double kQuietAfterFinishSeconds = 0.5;

std::string text(const std::optional<std::string>& value) {
    return value ? *value : "-";
}

}  // namespace

// The nodes of an acceleration answer ("acc"), or of a plain array of nodes; the scoring limits
// from "acc_config" when the document has them.
void readNodeDocument(const std::string& path, NodeSelector::Nodes& nodes,
                      std::shared_ptr<AccConfig>& config) {
    auto json = Json::parse(readInput(path, kDefaultMaxInputBytes), nullptr, false);
    if (json.is_discarded())
        throw Failure(path + ": not a JSON document");
    Error error;
    config = AccConfig::defaultConfig();
    if (json.is_array()) {
        auto parsed = JSONAdapter::modelsOfClass<AccNode>(json, &error);
        if (!parsed)
            throw Failure(path + ": " + describe(error));
        nodes = *parsed;
        return;
    }
    auto answer = JSONAdapter::modelOfClass<AccAPIResponseObject>(json, &error);
    if (!answer)
        throw Failure(path + ": " + describe(error));
    if (answer->accNodes)
        nodes = *answer->accNodes;
    if (json.is_object() && json.contains("acc_config")) {
        auto parsed = JSONAdapter::modelOfClass<AccConfig>(json["acc_config"], &error);
        if (!parsed)
            throw Failure(path + ": acc_config: " + describe(error));
        config = parsed;
    }
}

NodeRunResult runSelection(const NodeSelector::Nodes& nodes, std::shared_ptr<AccConfig> config,
                           const NodeRunOptions& options) {
    if (nodes.empty())
        throw Failure("the document lists no nodes");
    // The plain selector computes its own time-outs and pacing; one bound to an interface or
    // with another probe count takes a fixed time-out (2.5 s unless one is given).
    std::shared_ptr<NodeSelector> selector;
    if (options.timeout > 0 || options.interfaceType != NodeSelector::kInterfaceAny ||
        options.count != 5) {
        selector = NodeSelector::create(options.interfaceType, options.timeout, options.count,
                                        DispatchQueue::serial("lmkit.select.callbacks"));
    } else {
        selector = NodeSelector::create();
    }
    selector->setPort(options.port);
    selector->setSendDataPrefix(options.prefix);
    selector->setRandomSeed(options.seed);
    std::optional<Error> bindError;
    if (!selector->createUdpSocketIfHasError(&bindError))
        throw Failure(bindError ? describe(*bindError) : "the probe socket could not be opened");

    std::mutex mutex;
    std::condition_variable done;
    bool reported = false;
    NodeRunResult result;
    result.nodes = nodes;
    result.config = config;
    result.port = selector->port();
    std::optional<Error> failure;
    auto onSuccess = [&](const NodeSelector::Nodes& chosen, double d, double l, double dev) {
        std::lock_guard guard(mutex);
        result.chosen = chosen;
        result.delay = d;
        result.loss = l;
        result.deviation = dev;
        reported = true;
        done.notify_all();
    };
    auto onFailure = [&](const Error& error) {
        std::lock_guard guard(mutex);
        failure = error;
        reported = true;
        done.notify_all();
    };
    if (options.mode == NodeSelector::kModeTestMultipath) {
        selector->testMultipathNodeFromNodes(nodes, config, options.delayMode, onSuccess,
                                             onFailure);
    } else if (options.mode == NodeSelector::kModeTestPing) {
        selector->setDelayMode(options.delayMode);
        selector->testPingFromNode(
            nodes.front(), config,
            [&](const std::shared_ptr<AccNode>& node, double d, double l, double dev) {
                onSuccess(node ? NodeSelector::Nodes{node} : NodeSelector::Nodes{}, d, l, dev);
            },
            onFailure);
        result.nodes = {nodes.front()};
    } else {
        selector->pickBestNodeFromNodes(nodes, config, options.delayMode, onSuccess, onFailure);
    }

    std::unique_lock lock(mutex);
    double quiet = 0;
    while (!reported) {
        done.wait_for(lock, std::chrono::milliseconds(100));
        if (options.progress) {
            std::fprintf(stderr, "\rprobing %zu nodes: %ld probes sent, %s   ", nodes.size(),
                         selector->sendedPacketNumber(),
                         selector->computingStatus() >= NodeSelector::kStatusTimedOut
                             ? "scoring"
                             : "waiting for echoes");
        }
        if (selector->computingStatus() == NodeSelector::kStatusFinished) {
            quiet += 0.1;
            if (quiet >= kQuietAfterFinishSeconds)
                break;
        }
    }
    if (options.progress)
        std::fprintf(stderr, "\r\033[K");
    lock.unlock();
    result.late = selector->lateReplyCount();
    result.duplicates = selector->duplicateReplyCount();
    result.trace = selector->lastChoiceTrace();
    selector->stop();
    std::lock_guard guard(mutex);
    if (failure)
        throw Failure(describe(*failure));
    return result;
}

void printNodeTable(const NodeRunResult& result) {
    auto ranked = result.nodes;
    std::stable_sort(ranked.begin(), ranked.end(),
                     [](const auto& a, const auto& b) { return a->score() > b->score(); });
    std::printf("%4s  %-12s %-16s %8s %8s %8s %6s %7s %6s %6s %5s %8s\n", "rank", "node",
                "ping server", "avg ms", "min ms", "max ms", "loss", "delay", "loss", "load", "isp",
                "total");
    int rank = 1;
    for (const auto& node : ranked) {
        std::printf("%4d  %-12s %-16s %8.3f %8.3f %8.3f %5.0f%% %7.1f %6.1f %6.1f %5.1f %8.1f\n",
                    rank++, text(node->identifier).c_str(), node->safePingServer().c_str(),
                    node->avgDelay, node->minDelay, node->maxDelay, node->loss * 100,
                    node->delayScore, node->lossScore, node->loadScore, node->ispScore,
                    node->score());
    }
    if (result.chosen.empty()) {
        std::printf("\nno node chosen: every node scored 0\n");
        return;
    }
    std::printf("\nchosen: ");
    for (std::size_t i = 0; i < result.chosen.size(); ++i)
        std::printf("%s%s", i ? ", " : "", text(result.chosen[i]->identifier).c_str());
    std::printf("\nbest: %s (%s)  delay %.3f ms  loss %.0f%%  deviation %.2f ms\n",
                text(result.chosen[0]->identifier).c_str(),
                result.chosen[0]->safePingServer().c_str(), result.delay, result.loss * 100,
                result.deviation);
    if (result.late > 0 || result.duplicates > 0)
        std::printf("replies: %ld late (counted lost), +%ld duplicates\n", result.late,
                    result.duplicates);
}

namespace {

nlohmann::ordered_json nodeJson(const AccNode& node) {
    nlohmann::ordered_json j;
    j["id"] = node.identifier ? nlohmann::ordered_json(*node.identifier) : nullptr;
    j["ping_server"] = node.safePingServer();
    j["delay"] = node.delay;
    j["avg_delay"] = node.avgDelay;
    j["min_delay"] = node.minDelay;
    j["max_delay"] = node.maxDelay;
    j["loss"] = node.loss;
    j["delay_score"] = node.delayScore;
    j["loss_score"] = node.lossScore;
    j["load_score"] = node.loadScore;
    j["isp_score"] = node.ispScore;
    j["score"] = node.score();
    return j;
}

NodeSelector::Nodes rankedNodes(const NodeRunResult& result) {
    auto ranked = result.nodes;
    std::stable_sort(ranked.begin(), ranked.end(),
                     [](const auto& a, const auto& b) { return a->score() > b->score(); });
    return ranked;
}

// Everything of the result but the node list.
nlohmann::ordered_json summaryJson(const NodeRunResult& result) {
    nlohmann::ordered_json out;
    out["chosen"] = nlohmann::ordered_json::array();
    for (const auto& node : result.chosen)
        out["chosen"].push_back(node->identifier ? nlohmann::ordered_json(*node->identifier)
                                                 : nlohmann::ordered_json(node->safePingServer()));
    if (!result.chosen.empty()) {
        out["delay"] = result.delay;
        out["loss"] = result.loss;
        out["deviation"] = result.deviation;
    }
    out["late"] = result.late;
    out["duplicates"] = result.duplicates;
    return out;
}

nlohmann::ordered_json numberJson(const std::optional<Number>& value) {
    return value ? nlohmann::ordered_json(value->doubleValue()) : nlohmann::ordered_json();
}

nlohmann::ordered_json explanationJson(const NodeRunResult& result) {
    nlohmann::ordered_json out;
    const auto& config = result.config;
    out["weights"] = {{"ping", config ? numberJson(config->ping) : nullptr},
                      {"loss", config ? numberJson(config->loss) : nullptr},
                      {"loss2", config ? numberJson(config->loss2) : nullptr},
                      {"loss_scale", config ? numberJson(config->lossScale) : nullptr},
                      {"load", config ? numberJson(config->load) : nullptr},
                      {"load_threshold", config ? numberJson(config->loadThreshold) : nullptr},
                      {"isp", config ? numberJson(config->isp) : nullptr}};
    out["score_gap"] = numberJson(result.trace->scoreRangeGap);
    out["draws"] = result.trace->draws;
    return out;
}

}  // namespace

nlohmann::ordered_json nodeResultJson(const NodeRunResult& result) {
    nlohmann::ordered_json out;
    out["nodes"] = nlohmann::ordered_json::array();
    for (const auto& node : rankedNodes(result))
        out["nodes"].push_back(nodeJson(*node));
    auto summary = summaryJson(result);
    for (auto& [key, value] : summary.items())
        out[key] = value;
    return out;
}

void printNodeResultJson(const NodeRunResult& result, bool explain) {
    // Node by node: a document of ten thousand nodes is not built in memory first.
    std::fputs("{\n  \"nodes\": [", stdout);
    bool first = true;
    for (const auto& node : rankedNodes(result)) {
        std::fputs(first ? "\n    " : ",\n    ", stdout);
        auto json = nodeJson(*node);
        if (explain)
            json["deviation"] = node->deviation;
        std::fputs(json.dump().c_str(), stdout);
        first = false;
    }
    std::fputs(first ? "]" : "\n  ]", stdout);
    auto summary = summaryJson(result);
    if (explain)
        summary["explain"] = explanationJson(result);
    for (const auto& [key, value] : summary.items())
        std::printf(",\n  \"%s\": %s", key.c_str(), value.dump().c_str());
    std::fputs("\n}\n", stdout);
}

void printExplanation(const NodeRunResult& result) {
    std::printf("\nwhy: each node's score is delay + loss + load + isp points\n");
    std::printf("%-22s %9s %6s %9s %8s %8s %8s %8s %8s\n", "node", "delay ms", "loss", "dev ms",
                "delay", "loss", "load", "isp", "total");
    for (const auto& node : rankedNodes(result)) {
        std::printf("%-22s %9.3f %5.0f%% %9.2f %8.2f %8.2f %8.2f %8.2f %8.2f\n",
                    NodeSelector::constructKeyWithHost(node->safePingServer(), result.port).c_str(),
                    node->delay, node->loss * 100, node->deviation, node->delayScore,
                    node->lossScore, node->loadScore, node->ispScore, node->score());
    }
    auto weights = explanationJson(result)["weights"];
    std::printf("weights:");
    for (const auto& [name, value] : weights.items())
        std::printf(" %s %s", name.c_str(), value.dump().c_str());
    std::printf("\nscore gap: %s\n", result.trace->scoreRangeGap
                                         ? result.trace->scoreRangeGap->description().c_str()
                                         : "none (no shuffling within a gap)");
    if (result.trace->draws.empty())
        std::printf("random draws: none\n");
    for (const auto& draw : result.trace->draws)
        std::printf("random draw: %s\n", draw.c_str());
}

}  // namespace lmkit::tool

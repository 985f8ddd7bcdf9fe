#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "lmkit/nodes/NodeSelector.hpp"

namespace lmkit::tool {

/// What one selection run gave back.
struct NodeRunResult {
    NodeSelector::Nodes nodes;   // every probed node
    NodeSelector::Nodes chosen;  // the run's answer, best first (empty: nothing chosen)
    double delay = 0;
    double loss = 0;
    double deviation = 0;
    long late = 0;                      // replies after the receive time-out: lost for the run
    long duplicates = 0;                // replies beyond a node's probe count
    std::shared_ptr<AccConfig> config;  // the weights the nodes were scored with
    long port = 0;                      // the probes' destination port
    std::shared_ptr<const NodeSelector::ChoiceTrace> trace;  // the score gap and the draws
};

struct NodeRunOptions {
    long mode = NodeSelector::kModeBestNode;
    long delayMode = NodeSelector::kDelayModeAvg;
    long interfaceType = NodeSelector::kInterfaceAny;
    long count = 5;
    double timeout = 0;  // 0: the selector's computed time-outs
    long port = 9999;
    std::string prefix;
    bool progress = false;              // a live progress line on standard error
    std::optional<std::uint64_t> seed;  // repeatable draws of the choice
};

/// The nodes of a service document: an acceleration answer (nodes under "acc", its scoring
/// limits under "acc_config") or a plain array of nodes. Throws Failure with one line.
void readNodeDocument(const std::string& path, NodeSelector::Nodes& nodes,
                      std::shared_ptr<AccConfig>& config);

/// Runs one selection and waits for its report; throws Failure with the error's domain and code.
NodeRunResult runSelection(const NodeSelector::Nodes& nodes, std::shared_ptr<AccConfig> config,
                           const NodeRunOptions& options);

/// The ranked table (rank, node, ping server, delays, loss, partial and total scores).
void printNodeTable(const NodeRunResult& result);
nlohmann::ordered_json nodeResultJson(const NodeRunResult& result);
/// The same document, written to standard output node by node; with `explain`, the choice's
/// weights, score gap and draws and each node's deviation too.
void printNodeResultJson(const NodeRunResult& result, bool explain = false);
/// Why this node: every candidate's terms, the weights, the score gap and the random draws.
void printExplanation(const NodeRunResult& result);

}  // namespace lmkit::tool

// Choosing the nodes a run hands back, and the result logs.
#include <algorithm>
#include <bit>
#include <cmath>
#include <utility>

#include <fmt/format.h>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/nodes/NodeSelector.hpp"

namespace lmkit {

namespace {

using Nodes = NodeSelector::Nodes;

std::size_t draw(std::mt19937_64& random, std::size_t count) {
    return std::uniform_int_distribution<std::size_t>(0, count - 1)(random);
}

std::string nameOf(const std::shared_ptr<AccNode>& node) {
    return node->ip.value_or("(no address)");
}

// Fisher-Yates over the first `count` nodes: for i from count down to 2, swap i − 1 with a
// uniformly random position below i.
void shuffleFirst(Nodes& nodes, std::size_t count, std::mt19937_64& random,
                  NodeSelector::ChoiceTrace* trace, const char* why) {
    for (std::size_t i = count; i >= 2; --i) {
        std::size_t other = draw(random, i);
        if (trace)
            trace->draws.push_back(fmt::format("{}: position {} ({}) swapped with {} ({})", why,
                                               i - 1, nameOf(nodes[i - 1]), other,
                                               nameOf(nodes[other])));
        std::swap(nodes[i - 1], nodes[other]);
    }
}

// Keeps one node per address: the first one offered. A set, not a scan of the result, because
// a run over thousands of nodes has as many buckets; an open-addressing table of the nodes' own
// address strings, so that admitting thousands costs one allocation, not one each.
class OnePerAddress {
  public:
    explicit OnePerAddress(std::size_t candidates)
        : slots_(std::bit_ceil(std::max<std::size_t>(2 * candidates, 16)), nullptr) {}

    // `ip` must outlive this set; at most `candidates` distinct addresses are offered.
    bool admit(const std::optional<std::string>& ip) {
        if (!ip)
            return !std::exchange(sawNoAddress_, true);
        const std::size_t mask = slots_.size() - 1;
        for (std::size_t slot = std::hash<std::string>{}(*ip) & mask;; slot = (slot + 1) & mask) {
            if (!slots_[slot]) {
                slots_[slot] = &*ip;
                return true;
            }
            if (*slots_[slot] == *ip)
                return false;
        }
    }

  private:
    std::vector<const std::string*> slots_;
    bool sawNoAddress_ = false;
};

Nodes sortedByScore(const Nodes& nodes) {
    Nodes sorted;
    for (const auto& node : nodes)
        if (node)
            sorted.push_back(node);
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const auto& a, const auto& b) { return a->score() > b->score(); });
    return sorted;
}

}  // namespace

NodeSelector::Nodes NodeSelector::chooseBestNodes(const Nodes& nodes, long mode,
                                                  const std::optional<Number>& scoreRangeGap) {
    thread_local std::mt19937_64 random{std::random_device{}()};
    return chooseBestNodes(nodes, mode, scoreRangeGap, random, nullptr);
}

NodeSelector::Nodes NodeSelector::chooseBestNodes(const Nodes& nodes, long mode,
                                                  const std::optional<Number>& scoreRangeGap,
                                                  std::mt19937_64& random, ChoiceTrace* trace) {
    if (trace)
        *trace = ChoiceTrace{scoreRangeGap, {}};
    if (mode == kModeTestMultipath)
        return sortedByScore(nodes);

    // Equal scores share a bucket, in walk order; unscored nodes earned nothing and stay out.
    // Buckets are runs of one sorted list, best score first: no allocation per bucket.
    std::vector<const std::shared_ptr<AccNode>*> scored;
    scored.reserve(nodes.size());
    for (const auto& node : nodes) {
        if (!node)
            continue;
        double score = node->score();
        if (score == 0 || std::isnan(score))
            continue;
        scored.push_back(&node);
    }
    std::stable_sort(scored.begin(), scored.end(),
                     [](const auto* a, const auto* b) { return (*a)->score() > (*b)->score(); });
    auto bucketEnd = [&](std::size_t begin) {
        std::size_t end = begin + 1;
        while (end < scored.size() && (*scored[end])->score() == (*scored[begin])->score())
            ++end;
        return end;
    };

    Nodes result;
    result.reserve(scored.size());
    OnePerAddress addresses(scored.size());
    if (!scored.empty() && bucketEnd(0) == scored.size()) {
        Nodes bucket;
        bucket.reserve(scored.size());
        for (const auto* node : scored)
            bucket.push_back(*node);
        if (bucket.size() == 1) {
            result = bucket;
        } else {
            shuffleFirst(bucket, bucket.size(), random, trace, "equal scores");
            for (const auto& node : bucket)
                if (addresses.admit(node->ip))
                    result.push_back(node);
        }
    } else {
        for (std::size_t begin = 0; begin < scored.size();) {
            const std::size_t end = bucketEnd(begin), size = end - begin;
            const std::size_t picked = size == 1 ? 0 : draw(random, size);
            const auto& pick = *scored[begin + picked];
            if (trace && size > 1)
                trace->draws.push_back(fmt::format("score {:.2f}: picked {} ({}) of {}",
                                                   pick->score(), picked, nameOf(pick), size));
            if (addresses.admit(pick->ip))
                result.push_back(pick);
            begin = end;
        }
    }

    // Users spread over near-equal nodes instead of all landing on the single top one.
    if (result.size() >= 2 && scoreRangeGap) {
        double gap = scoreRangeGap->doubleValue();
        double first = result.front()->score();
        std::size_t end = result.size();
        for (std::size_t i = 1; i < result.size(); ++i) {
            double score = result[i]->score();
            if (first != 0 && score != 0 && score < first - gap) {
                end = i;
                break;
            }
        }
        shuffleFirst(result, end, random, trace, "within the score gap");
    }
    return result;
}

void NodeSelector::sortAndLogNodes(const Nodes& nodes) {
    // A line per node: a detail for debugging, and costly on runs of thousands of nodes.
    if (!log::isEnabled(log::kDebug))
        return;
    std::string text;
    for (const auto& node : sortedByScore(nodes)) {
        text += node->description();
        text += '\n';
    }
    log::debug("[NodeSelector] all nodes sorted by score(high->low):\n" + text);
}

void NodeSelector::logBestNodes(const Nodes& nodes, std::size_t logCount, bool markPrefix) {
    // A Best Node run over thousands of nodes chooses one per distinct score: a debug detail
    // (the run's summary line names the best node).
    if (!log::isEnabled(log::kDebug))
        return;
    std::string text;
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        if (i == 0 && markPrefix)
            text += "[best]";
        text += nodes[i] ? nodes[i]->description() : "(null)";
        text += '\n';
        if (i == logCount)
            break;
    }
    if (!nodes.empty())
        log::debug("[NodeSelector] final sorted and random node results:\n" + text);
}

}  // namespace lmkit

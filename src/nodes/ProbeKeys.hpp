#pragma once

// A run's probe keys ("host:port") and what each collects: its nodes, its delays, whether it is
// scored. Laid out flat, in a handful of arrays that a selector reuses run after run: a run over
// thousands of nodes used to cost several allocations per key, and every fresh page those touch
// is a page fault (on a virtual machine, tens of microseconds) before the first probe leaves.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "lmkit/models/AccNode.hpp"

namespace lmkit {

class ProbeKeys {
  public:
    using Index = std::uint32_t;
    static constexpr Index kNone = UINT32_MAX;

    /// Forgets the last run, keeping the room it used, and takes the run's nodes, to be counted
    /// under keys with add(), with `probesPerKey` delays per key.
    void reset(std::vector<std::shared_ptr<AccNode>> nodes, std::size_t probesPerKey);
    const std::vector<std::shared_ptr<AccNode>>& nodes() const { return nodes_; }
    /// Counts node `n` (an index into nodes()) under `key`. Returns the key's index and whether
    /// the key is new.
    std::pair<Index, bool> add(std::string_view key, Index n);

    std::size_t size() const { return keys_.size(); }
    /// The index of `key`; kNone for a key the run did not probe.
    Index find(std::string_view key) const;
    std::string_view key(Index k) const {
        return std::string_view(text_).substr(keys_[k].textOffset, keys_[k].textLength);
    }

    /// Calls `visit` with each node of key `k`, in the order they were added.
    template <typename Visit>
    void forEachNode(Index k, Visit&& visit) const {
        for (Index n = keys_[k].firstNode; n != kNone; n = nextNode_[n])
            visit(nodes_[n]);
    }
    /// Every node of every key, key by key.
    std::vector<std::shared_ptr<AccNode>> allNodes() const;

    /// Makes room for every key's delays, once the keys are all added. Until then a run's keys
    /// take no room for delays: that room is pages a run's first probes need not wait for.
    void makeRoomForDelays();
    /// Records one more delay for key `k`; returns how many it now has.
    std::size_t addDelay(Index k, double delay);
    /// The delays of key `k`, in arrival order.
    std::span<const double> delays(Index k) const;
    long receivedCount(Index k) const { return keys_[k].delayCount; }

    bool scored(Index k) const { return keys_[k].scored; }
    void setScored(Index k) { keys_[k].scored = true; }

  private:
    struct Key {
        std::uint32_t textOffset = 0;
        std::uint32_t textLength = 0;
        Index firstNode = kNone, lastNode = kNone;
        std::uint32_t delayCount = 0;
        bool scored = false;
    };
    std::size_t probesPerKey_ = 0;
    std::string text_;  // every key's text, back to back
    std::vector<Key> keys_;
    std::vector<std::shared_ptr<AccNode>> nodes_;
    std::vector<Index> nextNode_;  // per node: the next node of the same key, if counted
    std::vector<double> delays_;   // probesPerKey_ slots per key
    // A key that got more echoes than probes (duplicates) keeps all its delays here.
    std::unordered_map<Index, std::vector<double>> extraDelays_;
    // Open addressing, linear probing: key index + 1, 0 for an empty slot.
    std::vector<Index> slots_;
};

}  // namespace lmkit

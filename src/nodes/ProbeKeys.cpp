#include "nodes/ProbeKeys.hpp"

#include <bit>
#include <functional>

namespace lmkit {

namespace {
// Room for the usual "a.b.c.d:port" key without growing the text.
constexpr std::size_t kTypicalKeyBytes = 20;

std::size_t hashOf(std::string_view key) {
    return std::hash<std::string_view>{}(key);
}
}  // namespace

void ProbeKeys::reset(std::vector<std::shared_ptr<AccNode>> nodes, std::size_t probesPerKey) {
    const std::size_t count = nodes.size();
    probesPerKey_ = probesPerKey;
    nodes_ = std::move(nodes);
    text_.clear();
    keys_.clear();
    delays_.clear();
    extraDelays_.clear();
    text_.reserve(count * kTypicalKeyBytes);
    keys_.reserve(count);
    nextNode_.assign(count, kNone);
    // Never more keys than nodes: the table stays at most half full, so probes stay short.
    const std::size_t wanted = std::bit_ceil(std::max<std::size_t>(2 * count, 16));
    if (slots_.size() != wanted)
        slots_.assign(wanted, 0);
    else
        std::fill(slots_.begin(), slots_.end(), 0);
}

ProbeKeys::Index ProbeKeys::find(std::string_view key) const {
    if (slots_.empty())
        return kNone;
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t slot = hashOf(key) & mask;; slot = (slot + 1) & mask) {
        const Index entry = slots_[slot];
        if (entry == 0)
            return kNone;
        if (this->key(entry - 1) == key)
            return entry - 1;
    }
}

std::pair<ProbeKeys::Index, bool> ProbeKeys::add(std::string_view key, Index n) {
    Index k = find(key);
    const bool added = k == kNone;
    if (added) {
        k = static_cast<Index>(keys_.size());
        keys_.push_back({static_cast<std::uint32_t>(text_.size()),
                         static_cast<std::uint32_t>(key.size()), kNone, kNone, 0, false});
        text_.append(key);
        const std::size_t mask = slots_.size() - 1;
        std::size_t slot = hashOf(key) & mask;
        while (slots_[slot] != 0)
            slot = (slot + 1) & mask;
        slots_[slot] = k + 1;
    }
    Key& entry = keys_[k];
    if (entry.lastNode == kNone)
        entry.firstNode = n;
    else
        nextNode_[entry.lastNode] = n;
    entry.lastNode = n;
    return {k, added};
}

void ProbeKeys::makeRoomForDelays() {
    delays_.assign(keys_.size() * probesPerKey_, 0.0);
}

std::vector<std::shared_ptr<AccNode>> ProbeKeys::allNodes() const {
    std::vector<std::shared_ptr<AccNode>> all;
    all.reserve(nodes_.size());
    for (Index k = 0; k < keys_.size(); ++k)
        forEachNode(k, [&](const std::shared_ptr<AccNode>& node) { all.push_back(node); });
    return all;
}

std::size_t ProbeKeys::addDelay(Index k, double delay) {
    Key& entry = keys_[k];
    if (entry.delayCount < probesPerKey_) {
        delays_[k * probesPerKey_ + entry.delayCount] = delay;
    } else {
        auto& extra = extraDelays_[k];
        if (extra.empty()) {
            const auto first = delays_.begin() + static_cast<std::ptrdiff_t>(k * probesPerKey_);
            extra.assign(first, first + static_cast<std::ptrdiff_t>(probesPerKey_));
        }
        extra.push_back(delay);
    }
    return ++entry.delayCount;
}

std::span<const double> ProbeKeys::delays(Index k) const {
    const Key& entry = keys_[k];
    if (entry.delayCount > probesPerKey_)
        return extraDelays_.at(k);
    return std::span<const double>(delays_).subspan(k * probesPerKey_, entry.delayCount);
}

}  // namespace lmkit

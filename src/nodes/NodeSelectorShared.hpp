#pragma once

// What the parts of the node selector (creation and runs, sending, replies and scoring,
// completion) share.

#include <cstddef>
#include <optional>
#include <string>

#include "lmkit/nodes/NodeSelector.hpp"
#include "lmkit/platform/Error.hpp"
#include "lmkit/platform/Localized.hpp"
#include "lmkit/platform/Number.hpp"

namespace lmkit::node_selector {

// A fixed time-out given to the explicit initialiser that is not above 0 becomes this.
inline constexpr double kDefaultTestPingTimeout = 2.5;
inline constexpr long kDefaultSendPacketCount = 5;
// The delay of a key without any usable reply: far above every delay ceiling, so it scores 0.
inline constexpr double kFallbackDelay = 1000;
// The most probes a burst hands over in one call. Each call builds its headers and addresses
// afresh; 256 probes keep that to a few pages, where 1,024 touched some 45 fresh pages (each a
// fault, and costly on a virtual machine) before the first probe left. The kernel's cost per
// probe is the same either way.
inline constexpr std::size_t kProbesPerSendCall = 256;

inline Error emptyNodesError() {
    return Error::withDescription(NodeSelector::kErrorDomain, NodeSelector::kErrorEmptyNodes,
                                  localizedString(NodeSelector::kEmptyNodesKey));
}

inline std::string formatNumber(const std::optional<Number>& n) {
    return n ? n->description() : "null";
}

}  // namespace lmkit::node_selector

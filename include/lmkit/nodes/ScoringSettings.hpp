#pragma once

#include <optional>

#include "lmkit/platform/Number.hpp"

namespace lmkit {

/// The settings one selection run scores and chooses with, read once when the run starts: the
/// stored general configuration's loss rule and the shared score gap. Reading the settings store
/// per node would cost a query and a JSON decode for each of thousands of nodes, and a run
/// should not change its rules half-way because the app stored a new configuration.
struct ScoringSettings {
    /// The stored general configuration enables the quadratic loss rule.
    bool newLossScore = false;
    /// The gap within which the best nodes are put in random order; nil when none is set.
    std::optional<Number> scoreRangeGap;

    /// The settings as the app group's stores hold them now.
    static ScoringSettings current();
};

}  // namespace lmkit

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lmkit/models/AccConfig.hpp"

namespace lmkit {

/// The three-part network score (delay, loss, deviation) and its banding into network-condition
/// levels for display. Stateless.
class AccScoreCalculator {
  public:
    /// The config's `ping` − delay; 0 for no or a zero delay, no `ping`, or a delay above `ping`.
    static std::optional<Number> computeScoreOfDelay(const std::optional<Number>& delay,
                                                     const AccScoreConfig& config);
    /// The config's `loss` × (1 − loss) for a loss in [0, 1]; else 0.
    static std::optional<Number> computeScoreOfLoss(const std::optional<Number>& loss,
                                                    const AccScoreConfig& config);
    /// The config's `deviation` − deviation (a steady path earns full points); 0 for no deviation,
    /// no config value, or a deviation above it.
    static std::optional<Number> computeScoreOfDeviation(const std::optional<Number>& deviation,
                                                         const AccScoreConfig& config);
    /// The sum of the three scores.
    static std::optional<Number> computeScoreOfDelay(const std::optional<Number>& delay,
                                                     const std::optional<Number>& loss,
                                                     const std::optional<Number>& deviation,
                                                     const AccScoreConfig& config);

    /// The level of `score`: 3 above the config's full points (default config when nil);
    /// otherwise the `level` of the first band with min < score ≤ max, or 1 when none matches.
    static long resultOfScore(double score, const std::shared_ptr<AccScoreConfig>& config,
                              const std::vector<std::shared_ptr<NetworkConditionLevel>>& levels);

    /// The localised text of a level (0 low to 3 extremely high); "--" for other levels.
    static std::string scoreDescription(long level);
};

}  // namespace lmkit

#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// The maximum points of each node score component, as the service delivers them.
struct AccConfig : Model<AccConfig> {
    std::optional<Number> ping;           // full delay score, also the delay ceiling in ms
    std::optional<Number> loss;           // full loss score (classic rule)
    std::optional<Number> load;           // full load score
    std::optional<Number> loadThreshold;  // share of capacity above which the load score falls
    std::optional<Number> isp;            // full ISP score
    std::optional<Number> loss2;          // full loss score (quadratic rule)
    std::optional<Number> lossScale;      // coefficient of the quadratic loss rule

    /// The built-in configuration, mapped from its default dictionary like any delivered one.
    static std::shared_ptr<AccConfig> defaultConfig();

    static const std::vector<Property<AccConfig>>& properties();
};

/// Weights of the delay, loss and deviation scores of the score calculator.
struct AccScoreConfig : Model<AccScoreConfig> {
    std::optional<Number> ping;
    std::optional<Number> loss;
    std::optional<Number> deviation;

    static std::shared_ptr<AccScoreConfig> defaultConfig();

    static const std::vector<Property<AccScoreConfig>>& properties();
};

/// One band of a score scale.
struct NetworkConditionLevel : Model<NetworkConditionLevel> {
    std::optional<Number> level;
    std::optional<Number> max;
    std::optional<Number> min;

    static const std::vector<Property<NetworkConditionLevel>>& properties();
};

}  // namespace lmkit

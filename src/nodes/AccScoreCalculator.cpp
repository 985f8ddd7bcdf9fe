#include "lmkit/nodes/AccScoreCalculator.hpp"

#include "lmkit/platform/Localized.hpp"

namespace lmkit {

namespace {
constexpr long kLevelAboveFullPoints = 3;
constexpr long kLevelWithoutBand = 1;

double valueOf(const std::optional<Number>& n) {
    return n ? n->doubleValue() : 0.0;
}
}  // namespace

std::optional<Number> AccScoreCalculator::computeScoreOfDelay(const std::optional<Number>& delay,
                                                              const AccScoreConfig& config) {
    if (!delay || delay->doubleValue() == 0 || !config.ping ||
        delay->doubleValue() > config.ping->doubleValue())
        return Number(0);
    return Number(config.ping->doubleValue() - delay->doubleValue());
}

std::optional<Number> AccScoreCalculator::computeScoreOfLoss(const std::optional<Number>& loss,
                                                             const AccScoreConfig& config) {
    double value = valueOf(loss);
    if (value < 0 || value > 1)
        return Number(0);
    return Number(valueOf(config.loss) * (1 - value));
}

std::optional<Number> AccScoreCalculator::computeScoreOfDeviation(
    const std::optional<Number>& deviation, const AccScoreConfig& config) {
    if (!deviation || !config.deviation ||
        deviation->doubleValue() > config.deviation->doubleValue())
        return Number(0);
    return Number(config.deviation->doubleValue() - deviation->doubleValue());
}

std::optional<Number> AccScoreCalculator::computeScoreOfDelay(
    const std::optional<Number>& delay, const std::optional<Number>& loss,
    const std::optional<Number>& deviation, const AccScoreConfig& config) {
    return Number(valueOf(computeScoreOfDelay(delay, config)) +
                  valueOf(computeScoreOfLoss(loss, config)) +
                  valueOf(computeScoreOfDeviation(deviation, config)));
}

long AccScoreCalculator::resultOfScore(
    double score, const std::shared_ptr<AccScoreConfig>& config,
    const std::vector<std::shared_ptr<NetworkConditionLevel>>& levels) {
    auto used = config ? config : AccScoreConfig::defaultConfig();
    double fullPoints = valueOf(used->ping) + valueOf(used->loss) + valueOf(used->deviation);
    if (score > fullPoints)
        return kLevelAboveFullPoints;
    for (const auto& band : levels) {
        if (!band)
            continue;
        if (valueOf(band->min) < score && score <= valueOf(band->max))
            return band->level ? static_cast<long>(band->level->intValue()) : 0;
    }
    return kLevelWithoutBand;
}

std::string AccScoreCalculator::scoreDescription(long level) {
    switch (level) {
        case 0:
            return localizedString("DelayScoreLow");
        case 1:
            return localizedString("DelayScoreMedium");
        case 2:
            return localizedString("DelayScoreHigh");
        case 3:
            return localizedString("DelayScoreExtremeHigh");
        default:
            return "--";
    }
}

}  // namespace lmkit

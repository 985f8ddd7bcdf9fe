#pragma once

#include <optional>
#include <span>

namespace lmkit {

/// The statistics that condense a probe key's delays (milliseconds, in arrival order) into one
/// delay and a deviation.
struct DelayStatistics {
    /// The smallest delay (the first of equal ones); nil for no delays.
    static std::optional<double> minOfNumbers(std::span<const double> numbers);
    /// The arithmetic mean; 0 for no delays.
    static double calculateAverageOfNumbers(std::span<const double> numbers);
    /// The "avg" of a run: the mean of up to 5 delays; from 6 on, the mean without one copy of the
    /// largest and one of the smallest delay, so that a single stray sample does not decide.
    static double computeAvgOfNumbers(std::span<const double> numbers);
    /// The population standard deviation cut to two decimals toward negative infinity; 0 for no
    /// delays, 9999 when any delay is 0 (a zero delay is an unusable sample).
    static double deviationOfNumbers(std::span<const double> numbers);
    static double computeDeviationOfDelay(std::span<const double> delays) {
        return deviationOfNumbers(delays);
    }
    /// Plain maximum and mean (no trimming), 0 for no delays.
    static double maxOfNumbers(std::span<const double> numbers);
};

}  // namespace lmkit

#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "lmkit/models/BaseModel.hpp"

namespace lmkit::collections {

/// Mean of the numbers in `values` (other elements are skipped); the integer 0 when there are
/// none, else a floating number.
Number averageOfNumbers(const Json& values);
Number averageOfNumbers(const std::vector<Number>& values);

/// Population standard deviation cut down to two decimals (through its shortest decimal text,
/// so 0.29 stays 0.29). The integer 0 for no values; the integer 9999 when any value equals 0:
/// a zero sample is a lost or failed measurement and marks the series as maximally unstable.
Number deviationOfNumbers(const std::vector<Number>& values);
/// As above over the numbers of a JSON array (other elements are skipped).
Number deviationOfNumbers(const Json& values);

/// `value` cut toward negative infinity at two decimals, through its shortest decimal text (as
/// a floor-rounding number formatter with two fraction digits does: 0.29 stays 0.29).
double floorToTwoDecimals(double value);

/// A uniformly chosen index below `count` (0 when count is 0).
std::size_t randomIndex(std::size_t count);

/// A uniformly chosen element; nil for an empty array.
template <class T>
std::optional<T> randomElement(const std::vector<T>& values) {
    if (values.empty())
        return std::nullopt;
    return values[randomIndex(values.size())];
}

}  // namespace lmkit::collections

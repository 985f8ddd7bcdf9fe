#include "lmkit/nodes/DelayStatistics.hpp"

#include "lmkit/models/CollectionHelpers.hpp"

namespace lmkit {

namespace {
// Up to this many delays every sample counts; beyond it the extremes are trimmed.
constexpr std::size_t kUntrimmedSamples = 5;
}  // namespace

std::optional<double> DelayStatistics::minOfNumbers(std::span<const double> numbers) {
    if (numbers.empty())
        return std::nullopt;
    double minimum = numbers.front();
    for (double n : numbers)
        if (n < minimum)
            minimum = n;
    return minimum;
}

double DelayStatistics::maxOfNumbers(std::span<const double> numbers) {
    if (numbers.empty())
        return 0;
    double maximum = numbers.front();
    for (double n : numbers)
        if (n > maximum)
            maximum = n;
    return maximum;
}

double DelayStatistics::calculateAverageOfNumbers(std::span<const double> numbers) {
    if (numbers.empty())
        return 0;
    double sum = 0;
    for (double n : numbers)
        sum += n;
    return sum / static_cast<double>(numbers.size());
}

double DelayStatistics::computeAvgOfNumbers(std::span<const double> numbers) {
    if (numbers.empty())
        return 0;
    if (numbers.size() <= kUntrimmedSamples)
        return calculateAverageOfNumbers(numbers);
    double sum = 0;
    double maximum = numbers.front();
    double minimum = numbers.front();
    for (double n : numbers) {
        sum += n;
        if (n > maximum)
            maximum = n;
        if (n < minimum)
            minimum = n;
    }
    auto count = numbers.size();
    if (count <= 2)
        return 0;
    return (sum - maximum - minimum) / static_cast<double>(count - 2);
}

double DelayStatistics::deviationOfNumbers(std::span<const double> numbers) {
    std::vector<Number> boxed(numbers.begin(), numbers.end());
    return collections::deviationOfNumbers(boxed).doubleValue();
}

}  // namespace lmkit

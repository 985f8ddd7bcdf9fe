#include "lmkit/models/CollectionHelpers.hpp"

#include <charconv>
#include <cmath>
#include <random>
#include <string>

namespace lmkit::collections {

namespace {

std::vector<Number> numbersIn(const Json& values) {
    std::vector<Number> numbers;
    if (!values.is_array())
        return numbers;
    for (const auto& element : values)
        if (auto n = Number::fromJson(element))
            numbers.push_back(*n);
    return numbers;
}

}  // namespace

// Through the shortest decimal text, the way a floor-rounding number formatter works (so 0.29,
// stored as 0.28999..., stays 0.29).
double floorToTwoDecimals(double value) {
    if (!std::isfinite(value))
        return value;
    char buffer[400];
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed);
    if (ec != std::errc())
        return std::floor(value * 100.0) / 100.0;
    std::string text(buffer, end);
    auto point = text.find('.');
    bool negative = value < 0;
    bool cut = false;
    if (point != std::string::npos && text.size() > point + 3) {
        cut = text.find_first_not_of('0', point + 3) != std::string::npos;
        text.resize(point + 3);
    }
    double result = std::strtod(text.c_str(), nullptr);
    // Toward negative infinity: a negative value that lost digits moves one step down.
    if (negative && cut)
        result -= 0.01;
    return result;
}

Number averageOfNumbers(const std::vector<Number>& values) {
    if (values.empty())
        return Number(0);
    double sum = 0;
    for (const auto& n : values)
        sum += n.doubleValue();
    return Number(sum / static_cast<double>(values.size()));
}

Number averageOfNumbers(const Json& values) {
    return averageOfNumbers(numbersIn(values));
}

Number deviationOfNumbers(const std::vector<Number>& values) {
    if (values.empty())
        return Number(0);
    for (const auto& n : values)
        if (n == Number(0))
            return Number(9999);
    double mean = averageOfNumbers(values).doubleValue();
    double squares = 0;
    for (const auto& n : values) {
        double d = n.doubleValue() - mean;
        squares += d * d;
    }
    return Number(floorToTwoDecimals(std::sqrt(squares / static_cast<double>(values.size()))));
}

Number deviationOfNumbers(const Json& values) {
    if (!values.is_array() || values.empty())
        return Number(0);
    return deviationOfNumbers(numbersIn(values));
}

std::size_t randomIndex(std::size_t count) {
    if (count == 0)
        return 0;
    thread_local std::mt19937_64 engine{std::random_device{}()};
    return std::uniform_int_distribution<std::size_t>(0, count - 1)(engine);
}

}  // namespace lmkit::collections

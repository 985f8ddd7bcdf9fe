#include "lmkit/platform/Number.hpp"

#include <cmath>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace lmkit {

Number::Kind Number::kind() const {
    return static_cast<Kind>(value_.index());
}

std::int64_t Number::intValue() const {
    return std::visit(
        [](auto v) -> std::int64_t {
            if constexpr (std::is_same_v<decltype(v), double>) {
                // Out-of-range and NaN conversions are undefined in C++; clamp them instead.
                if (std::isnan(v))
                    return 0;
                if (v >= 9.2233720368547758e18)
                    return INT64_MAX;
                if (v <= -9.2233720368547758e18)
                    return INT64_MIN;
            }
            return static_cast<std::int64_t>(v);
        },
        value_);
}

std::uint64_t Number::unsignedValue() const {
    if (kind() == Kind::Floating) {
        double v = std::get<double>(value_);
        if (std::isnan(v))
            return 0;
        if (v >= 1.8446744073709552e19)
            return UINT64_MAX;
        if (v < 0)
            return static_cast<std::uint64_t>(intValue());
        return static_cast<std::uint64_t>(v);
    }
    return std::visit([](auto v) { return static_cast<std::uint64_t>(v); }, value_);
}

double Number::doubleValue() const {
    return std::visit([](auto v) { return static_cast<double>(v); }, value_);
}

bool Number::boolValue() const {
    return std::visit([](auto v) { return v != decltype(v){}; }, value_);
}

nlohmann::ordered_json Number::toJson() const {
    return std::visit([](auto v) { return nlohmann::ordered_json(v); }, value_);
}

std::optional<Number> Number::fromJson(const nlohmann::ordered_json& json) {
    switch (json.type()) {
        case nlohmann::ordered_json::value_t::number_integer:
            return Number(json.get<std::int64_t>());
        case nlohmann::ordered_json::value_t::number_unsigned:
            return Number(json.get<std::uint64_t>());
        case nlohmann::ordered_json::value_t::number_float:
            return Number(json.get<double>());
        case nlohmann::ordered_json::value_t::boolean:
            return Number(json.get<bool>());
        default:
            return std::nullopt;
    }
}

std::string Number::description() const {
    switch (kind()) {
        case Kind::Integer:
            return std::to_string(std::get<std::int64_t>(value_));
        case Kind::Unsigned:
            return std::to_string(std::get<std::uint64_t>(value_));
        case Kind::Boolean:
            return std::get<bool>(value_) ? "1" : "0";
        case Kind::Floating: {
            double v = std::get<double>(value_);
            if (std::isfinite(v) && v == std::trunc(v) && std::fabs(v) < 1e15)
                return fmt::format("{}", static_cast<std::int64_t>(v));
            return fmt::format("{}", v);
        }
    }
    return {};
}

int Number::compare(const Number& other) const {
    if (kind() != Kind::Floating && other.kind() != Kind::Floating) {
        // Exact integer comparison, also across signed and unsigned.
        bool negA = kind() == Kind::Integer && std::get<std::int64_t>(value_) < 0;
        bool negB = other.kind() == Kind::Integer && std::get<std::int64_t>(other.value_) < 0;
        if (negA != negB)
            return negA ? -1 : 1;
        if (negA) {
            auto a = intValue(), b = other.intValue();
            return a < b ? -1 : (a > b ? 1 : 0);
        }
        auto a = unsignedValue(), b = other.unsignedValue();
        return a < b ? -1 : (a > b ? 1 : 0);
    }
    double a = doubleValue(), b = other.doubleValue();
    return a < b ? -1 : (a > b ? 1 : 0);
}

bool Number::operator==(const Number& other) const {
    return compare(other) == 0;
}

}  // namespace lmkit

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include <nlohmann/json_fwd.hpp>

namespace lmkit {

/// A boxed number that remembers what it was made from (signed or unsigned integer, floating
/// value or boolean), so that a JSON value read and written again keeps its kind: 443 stays 443,
/// 0.5 stays 0.5 and true stays true.
class Number {
  public:
    enum class Kind { Integer, Unsigned, Floating, Boolean };

    Number() : value_(std::int64_t{0}) {}
    Number(int v) : value_(std::int64_t{v}) {}
    Number(long v) : value_(std::int64_t{v}) {}
    Number(long long v) : value_(std::int64_t{v}) {}
    Number(unsigned v) : value_(std::uint64_t{v}) {}
    Number(unsigned long v) : value_(std::uint64_t{v}) {}
    Number(unsigned long long v) : value_(std::uint64_t{v}) {}
    Number(double v) : value_(v) {}
    Number(float v) : value_(static_cast<double>(v)) {}
    Number(bool v) : value_(v) {}

    Kind kind() const;
    bool isInteger() const { return kind() == Kind::Integer || kind() == Kind::Unsigned; }

    std::int64_t intValue() const;        // floating values truncate toward zero
    std::uint64_t unsignedValue() const;  // negative values wrap, as a C cast does
    double doubleValue() const;
    float floatValue() const { return static_cast<float>(doubleValue()); }
    bool boolValue() const;  // non-zero is true

    /// The number's JSON value, in its own kind.
    nlohmann::ordered_json toJson() const;
    /// The number held by a JSON number or boolean; nullopt for any other JSON value.
    static std::optional<Number> fromJson(const nlohmann::ordered_json& json);

    /// Decimal text as the platform prints a boxed number: integers without a fraction,
    /// booleans as 1 or 0, floating values in their shortest round-trip form.
    std::string description() const;

    /// Numeric equality across kinds (1 == 1.0 == true), as boxed numbers compare.
    bool operator==(const Number& other) const;
    bool operator<(const Number& other) const { return compare(other) < 0; }
    int compare(const Number& other) const;

  private:
    std::variant<std::int64_t, std::uint64_t, double, bool> value_;
};

}  // namespace lmkit

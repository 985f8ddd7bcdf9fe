#pragma once

// Reusable value converters for property tables. Each returns a Transformer for the member type
// it is declared with; numeric ones accept any arithmetic member, std::optional<Number> or
// std::optional of an arithmetic type.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

namespace models_detail {

template <class T>
std::optional<Number> numberOf(const T& value) {
    if constexpr (std::is_arithmetic_v<T>) {
        return Number(value);
    } else if constexpr (std::is_same_v<T, std::optional<Number>>) {
        return value;
    } else {
        static_assert(IsOptional<T>::value, "numeric transformer on a non-numeric member");
        if (!value)
            return std::nullopt;
        return Number(*value);
    }
}

template <class T>
void setNumber(T& out, const std::optional<Number>& n) {
    if constexpr (std::is_arithmetic_v<T>) {
        out = n ? numberAs<T>(*n) : T{};
    } else if constexpr (std::is_same_v<T, std::optional<Number>>) {
        out = n;
    } else {
        static_assert(IsOptional<T>::value, "numeric transformer on a non-numeric member");
        if (n)
            out = numberAs<typename T::value_type>(*n);
        else
            out.reset();
    }
}

/// Accepts of the converters that read a JSON number (or boolean): other kinds stay as they are.
inline bool acceptsNumber(const Json& in) {
    return in.is_number() || in.is_boolean();
}

Json timeStampForward(const Json& in);
bool timeStampAccepts(const Json& in);
Json timeStampReverse(const std::optional<Number>& seconds);
std::optional<std::uint32_t> ipAddressForward(const Json& in);
Json ipAddressReverse(const std::optional<Number>& address);

}  // namespace models_detail

/// A string-to-code table (the mapping library's value-mapping converter). Unknown strings (and
/// non-strings) give `defaultValue`, nil unless given; codes without a string give
/// `reverseDefaultValue` (nil unless given, "other" in the tables that name it).
template <class T>
Transformer<T> valueMappingTransformer(
    std::vector<std::pair<std::string, Number>> table,
    std::optional<Number> defaultValue = std::nullopt,
    std::optional<std::string> reverseDefaultValue = std::nullopt) {
    auto shared =
        std::make_shared<const std::vector<std::pair<std::string, Number>>>(std::move(table));
    Transformer<T> t;
    t.forward = [shared, defaultValue](const Json& in, T& out, Error&) {
        if (in.is_string()) {
            const auto& text = in.get_ref<const std::string&>();
            for (const auto& [key, code] : *shared) {
                if (key == text) {
                    models_detail::setNumber(out, code);
                    return true;
                }
            }
        }
        models_detail::setNumber(out, defaultValue);
        return true;
    };
    t.reverse = [shared, reverseDefaultValue](const T& value) -> Json {
        auto n = models_detail::numberOf(value);
        if (n) {
            for (const auto& [key, code] : *shared)
                if (code == *n)
                    return Json(key);
        }
        return reverseDefaultValue ? Json(*reverseDefaultValue) : Json();
    };
    t.sample = [shared](int) { return shared->empty() ? Json() : Json(shared->front().first); };
    return t;
}

/// Milliseconds to seconds through a 32-bit float (the single-precision step is part of the
/// contract: present-day stamps keep about 7 significant digits); reverse multiplies in float.
/// Takes a number or a text that is wholly a number (the platform reads a text's float value);
/// any other value is kept as it stands.
template <class T = std::optional<Number>>
Transformer<T> timeStampTransformer() {
    Transformer<T> t;
    t.forward = [](const Json& in, T& out, Error&) {
        models_detail::setNumber(out, Number::fromJson(models_detail::timeStampForward(in)));
        return true;
    };
    t.accepts = models_detail::timeStampAccepts;
    t.sample = [](int) { return Json(1500); };
    t.reverse = [](const T& value) {
        return models_detail::timeStampReverse(models_detail::numberOf(value));
    };
    return t;
}

/// Dotted IPv4 text to the 32-bit word holding the address bytes as they lie in memory (network
/// order read as a little-endian integer: 1.2.3.4 gives 67305985); unparsable text gives 0.
template <class T = std::optional<Number>>
Transformer<T> ipAddressTransformer() {
    Transformer<T> t;
    t.forward = [](const Json& in, T& out, Error&) {
        auto word = models_detail::ipAddressForward(in);
        models_detail::setNumber(
            out, word ? std::optional<Number>(Number(unsigned{*word})) : std::nullopt);
        return true;
    };
    // Only text is parsed; a value of another kind is kept as it stands.
    t.accepts = [](const Json& in) { return in.is_string(); };
    t.sample = [](int) { return Json("10.0.0.1"); };
    t.reverse = [](const T& value) {
        return models_detail::ipAddressReverse(models_detail::numberOf(value));
    };
    return t;
}

/// String to URL (nil when the string is no valid URL); URL back to its absolute string. A value
/// that is not text is kept as it stands, as by the two regular-expression converters.
Transformer<std::optional<Url>> URLValueTransformer();
Transformer<std::optional<Url>> filepickerURLTransformer();

/// Pattern to a compiled case-insensitive expression; nil when it does not compile.
Transformer<std::optional<RegularExpression>> regularExpressionTransformer();

/// Patterns to compiled expressions, skipping those that do not compile (order kept); nil gives
/// the empty array, a value that is not an array is kept as it stands.
Transformer<std::optional<std::vector<RegularExpression>>> regularExpressionsTransformer();

}  // namespace lmkit

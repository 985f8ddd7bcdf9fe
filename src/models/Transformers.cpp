#include "lmkit/models/Transformers.hpp"

#include <arpa/inet.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace lmkit {

namespace models_detail {

namespace {

// The number a time stamp text holds when the whole text is one finite number.
std::optional<Number> numericText(const Json& in) {
    if (!in.is_string())
        return std::nullopt;
    const auto& text = in.get_ref<const std::string&>();
    if (text.empty() || std::isspace(static_cast<unsigned char>(text.front())))
        return std::nullopt;
    char* end = nullptr;
    errno = 0;
    double value = std::strtod(text.c_str(), &end);
    if (end != text.c_str() + text.size() || !std::isfinite(value))
        return std::nullopt;
    return Number(value);
}

}  // namespace

bool timeStampAccepts(const Json& in) {
    return in.is_number() || in.is_boolean() || numericText(in).has_value();
}

Json timeStampForward(const Json& in) {
    auto n = in.is_string() ? numericText(in) : Number::fromJson(in);
    if (!n)
        return Json();
    // The float step is deliberate: stamps are only trusted to single precision.
    float milliseconds = n->floatValue();
    return Json(static_cast<double>(milliseconds) / 1000.0);
}

Json timeStampReverse(const std::optional<Number>& seconds) {
    if (!seconds)
        return Json();
    float milliseconds = seconds->floatValue() * 1000.0f;
    return Json(static_cast<double>(milliseconds));
}

std::optional<std::uint32_t> ipAddressForward(const Json& in) {
    if (in.is_null())
        return std::nullopt;
    std::uint32_t word = 0;
    if (in.is_string()) {
        in_addr address{};
        if (inet_pton(AF_INET, in.get_ref<const std::string&>().c_str(), &address) == 1)
            std::memcpy(&word, &address, sizeof word);
    }
    return word;
}

Json ipAddressReverse(const std::optional<Number>& address) {
    if (!address)
        return Json();
    auto word = static_cast<std::uint32_t>(address->unsignedValue());
    in_addr raw{};
    std::memcpy(&raw, &word, sizeof word);
    char buffer[46] = {};
    inet_ntop(AF_INET, &raw, buffer, sizeof buffer);
    if (buffer[0] == '\0')
        return Json();
    return Json(std::string(buffer));
}

}  // namespace models_detail

Transformer<std::optional<Url>> URLValueTransformer() {
    Transformer<std::optional<Url>> t;
    t.forward = [](const Json& in, std::optional<Url>& out, Error&) {
        out = in.is_string() ? Url::fromString(in.get_ref<const std::string&>()) : std::nullopt;
        return true;
    };
    t.reverse = [](const std::optional<Url>& url) {
        return url ? Json(url->absoluteString()) : Json();
    };
    t.accepts = [](const Json& in) { return in.is_string(); };
    t.sample = [](int) { return Json("https://example.com/a?b=c"); };
    return t;
}

Transformer<std::optional<Url>> filepickerURLTransformer() {
    return URLValueTransformer();
}

Transformer<std::optional<RegularExpression>> regularExpressionTransformer() {
    Transformer<std::optional<RegularExpression>> t;
    t.forward = [](const Json& in, std::optional<RegularExpression>& out, Error&) {
        out = in.is_string() ? RegularExpression::compile(in.get_ref<const std::string&>())
                             : std::nullopt;
        return true;
    };
    t.reverse = [](const std::optional<RegularExpression>& re) {
        return re ? Json(re->pattern()) : Json();
    };
    t.accepts = [](const Json& in) { return in.is_string(); };
    t.sample = [](int) { return Json("^ab+c$"); };
    return t;
}

Transformer<std::optional<std::vector<RegularExpression>>> regularExpressionsTransformer() {
    Transformer<std::optional<std::vector<RegularExpression>>> t;
    t.forward = [](const Json& in, std::optional<std::vector<RegularExpression>>& out, Error&) {
        std::vector<RegularExpression> expressions;
        if (in.is_array()) {
            for (const auto& element : in) {
                if (!element.is_string())
                    continue;
                if (auto re = RegularExpression::compile(element.get_ref<const std::string&>()))
                    expressions.push_back(std::move(*re));
            }
        }
        out = std::move(expressions);
        return true;
    };
    t.reverse = [](const std::optional<std::vector<RegularExpression>>& expressions) -> Json {
        if (!expressions)
            return Json();
        Json patterns = Json::array();
        for (const auto& re : *expressions)
            patterns.push_back(re.pattern());
        return patterns;
    };
    t.accepts = [](const Json& in) { return in.is_array(); };
    t.sample = [](int) { return Json::array({"^ab+c$", "x"}); };
    return t;
}

}  // namespace lmkit

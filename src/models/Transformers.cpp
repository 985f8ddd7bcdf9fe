#include "lmkit/models/Transformers.hpp"

#include <arpa/inet.h>

#include <cstring>

namespace lmkit {

namespace models_detail {

Json timeStampForward(const Json& in) {
    auto n = Number::fromJson(in);
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
    return t;
}

}  // namespace lmkit

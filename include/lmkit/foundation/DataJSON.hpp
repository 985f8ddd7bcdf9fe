#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "lmkit/foundation/Data.hpp"

/// JSON conveniences for buffers and encodable values.
namespace lmkit::jsondata {

/// The buffer parsed as JSON when it is an object (whose keys are always text); nil for
/// anything else, malformed input included.
std::optional<nlohmann::ordered_json> toDictionary(const Data& data);

/// Pretty-printed JSON text of an encoded value; nil when it cannot be encoded (text that is
/// not valid UTF-8, a value without a JSON form that throws while converting).
std::optional<std::string> toJSONString(const nlohmann::ordered_json& value);

template <class T>
std::optional<std::string> toJSONString(const T& value) {
    try {
        return toJSONString(nlohmann::ordered_json(value));
    } catch (...) {
        return std::nullopt;
    }
}

}  // namespace lmkit::jsondata

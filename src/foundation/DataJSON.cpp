#include "lmkit/foundation/DataJSON.hpp"

namespace lmkit::jsondata {

std::optional<nlohmann::ordered_json> toDictionary(const Data& data) {
    try {
        auto value = nlohmann::ordered_json::parse(data.begin(), data.end(), nullptr,
                                                   /*allow_exceptions=*/false);
        if (!value.is_object())
            return std::nullopt;  // discarded (malformed) values included
        return value;
    } catch (...) {
        // Running out of memory on a huge document is the one failure parse still throws.
        return std::nullopt;
    }
}

std::optional<std::string> toJSONString(const nlohmann::ordered_json& value) {
    try {
        return value.dump(2);
    } catch (...) {
        return std::nullopt;  // text that is not valid UTF-8
    }
}

}  // namespace lmkit::jsondata

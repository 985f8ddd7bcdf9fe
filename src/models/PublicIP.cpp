#include "lmkit/models/PublicIP.hpp"

#include "StrictJson.hpp"

namespace lmkit {

Json PublicIP::toJson() const {
    Json out = Json::object();
    out["ip"] = ip;
    out["region"] = region;
    out["isEU"] = isEU;
    return out;
}

std::optional<PublicIP> PublicIP::fromJson(const Json& json, Error* error) {
    if (!json.is_object()) {
        if (error)
            *error = models_detail::invalidInput("expected a JSON object, got " +
                                                 std::string(models_detail::kindName(json)));
        return std::nullopt;
    }
    models_detail::StrictReader reader(json);
    PublicIP result;
    result.ip = reader.required<std::string>("ip");
    result.region = reader.required<std::string>("region");
    result.isEU = reader.required<bool>("isEU");
    if (reader.failed()) {
        if (error)
            *error = reader.error();
        return std::nullopt;
    }
    return result;
}

}  // namespace lmkit

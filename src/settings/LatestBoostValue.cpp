#include "lmkit/settings/LatestBoostValue.hpp"

namespace lmkit {

namespace {

template <class JsonT>
void encode(JsonT& json, const LatestBoostValue& value) {
    json = JsonT{{"gameID", value.gameID},
                 {"networkType", static_cast<int>(value.networkType)},
                 {"ping", value.ping}};
}

template <class JsonT>
void decode(const JsonT& json, LatestBoostValue& value) {
    value.gameID = json.at("gameID").template get<std::string>();
    const auto& type = json.at("networkType");
    if (!type.is_number_integer())
        throw std::invalid_argument("networkType is not an integer");
    value.networkType = LatestBoostValue::networkTypeFromRawValue(type.template get<long>());
    value.ping = json.at("ping").template get<double>();
}

}  // namespace

LatestBoostValue::NetworkType LatestBoostValue::networkTypeFromRawValue(long rawValue) {
    if (rawValue < static_cast<long>(NetworkType::unknown) ||
        rawValue > static_cast<long>(NetworkType::cellular5G))
        return NetworkType::unknown;
    return static_cast<NetworkType>(rawValue);
}

void to_json(nlohmann::json& json, const LatestBoostValue& value) {
    encode(json, value);
}
void to_json(nlohmann::ordered_json& json, const LatestBoostValue& value) {
    encode(json, value);
}
void from_json(const nlohmann::json& json, LatestBoostValue& value) {
    decode(json, value);
}
void from_json(const nlohmann::ordered_json& json, LatestBoostValue& value) {
    decode(json, value);
}

}  // namespace lmkit

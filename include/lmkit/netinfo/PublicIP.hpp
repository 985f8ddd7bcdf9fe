#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace lmkit {

/// The device's public address as the service sees it.
struct PublicIP {
    std::string ip;
    std::string region;
    bool isEU = false;

    PublicIP(std::string ip, std::string region, bool isEU)
        : ip(std::move(ip)), region(std::move(region)), isEU(isEU) {}

    nlohmann::ordered_json toJson() const {
        return {{"ip", ip}, {"region", region}, {"isEU", isEU}};
    }
    /// nullopt unless all three keys are present with the right kinds.
    static std::optional<PublicIP> fromJson(const nlohmann::ordered_json& json) {
        if (!json.is_object() || !json.contains("ip") || !json["ip"].is_string() ||
            !json.contains("region") || !json["region"].is_string() || !json.contains("isEU") ||
            !json["isEU"].is_boolean()) {
            return std::nullopt;
        }
        return PublicIP(json["ip"].get<std::string>(), json["region"].get<std::string>(),
                        json["isEU"].get<bool>());
    }
    bool operator==(const PublicIP&) const = default;
};

}  // namespace lmkit

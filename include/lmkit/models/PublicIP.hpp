#pragma once

#include <optional>
#include <string>

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// The phone's public address as a lookup service reports it. Coded under "ip", "region" and
/// "isEU"; all three are required when decoding.
struct PublicIP {
    std::string ip;
    std::string region;
    bool isEU = false;

    PublicIP() = default;
    PublicIP(std::string ip, std::string region, bool isEU)
        : ip(std::move(ip)), region(std::move(region)), isEU(isEU) {}

    Json toJson() const;
    /// Nil (and `error` set) when `json` is no object or a field is missing or mistyped.
    static std::optional<PublicIP> fromJson(const Json& json, Error* error = nullptr);

    bool operator==(const PublicIP&) const = default;
};

}  // namespace lmkit

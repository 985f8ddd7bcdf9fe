#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace lmkit {

/// The delay a game was last boosted to on one kind of network, kept (as a list) under
/// "LMLatestBoostValueKey". Its JSON form is {"gameID": text, "networkType": integer,
/// "ping": milliseconds}.
struct LatestBoostValue {
    /// The network kind, stored as its integer raw value; a raw value this build does not know
    /// reads as `unknown`, the default member.
    enum class NetworkType : int {
        unknown = -1,
        none = 0,
        wifi = 1,
        cellular2G = 2,
        cellular3G = 3,
        cellular4G = 4,
        cellular5G = 5,
    };

    std::string gameID;
    NetworkType networkType = NetworkType::unknown;
    double ping = 0;  // milliseconds

    static LatestBoostValue value(std::string gid, NetworkType networkType, double ping) {
        return {std::move(gid), networkType, ping};
    }
    static NetworkType networkTypeFromRawValue(long rawValue);

    bool operator==(const LatestBoostValue&) const = default;
};

void to_json(nlohmann::json& json, const LatestBoostValue& value);
void to_json(nlohmann::ordered_json& json, const LatestBoostValue& value);
/// Throws (as every nlohmann decoder does) when a member is missing or has the wrong kind; the
/// AppDefault reading it turns that into nil and its log line.
void from_json(const nlohmann::json& json, LatestBoostValue& value);
void from_json(const nlohmann::ordered_json& json, LatestBoostValue& value);

}  // namespace lmkit

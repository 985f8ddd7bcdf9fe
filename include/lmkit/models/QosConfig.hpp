#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// The service's verdict on a quality-of-service query.
enum QosActionResult : std::uint64_t {
    QosActionResultSuccess = 0,
    QosActionResultFailed = 1,
    QosActionResultPhoneNeeded = 2,
    QosActionResultIPNotSupport = 3,
    QosActionResultNoNeeded = 4,
};

/// The answer to a quality-of-service query: the verdict, the public address the service saw and
/// the servers to test. A verdict text outside the five known ones reads as nil, which for this
/// unsigned property is 0, and a code outside them is written back as null.
struct QosConfig : Model<QosConfig> {
    std::uint64_t actionResult = 0;
    std::optional<std::string> publicIP;
    std::optional<std::string> urlString;
    std::optional<Json> identifier;  // kept in the kind the service gave (text or number)
    std::uint64_t availableDuration = 0;
    std::optional<std::vector<std::string>> availableServerAddresses;
    std::uint64_t speedTestDelay = 0;
    std::uint64_t speedTestInterval = 0;

    static const std::vector<Property<QosConfig>>& properties();
};

}  // namespace lmkit

#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// One finished delay measurement, coded under its field names (nil optionals are left out).
/// Results are kept, oldest first, as one JSON array in the shared container's
/// "Speedometer.results" file.
struct SpeedometerResult {
    std::uint32_t seq = 0;
    std::string host;
    std::string ip;
    std::optional<std::string> proxyType;
    std::optional<std::string> proxyIP;
    std::optional<std::uint16_t> proxyPort;
    double minLatency = 0;
    double maxLatency = 0;
    double avgLatency = 0;
    std::vector<double> latencies;
    double lossRate = 0;
    double jitter = 0;
    std::string networkInterface;
    std::uint64_t completeTime = 0;
    std::optional<std::string> traceroute;
    bool isReachable = false;

    SpeedometerResult() = default;
    SpeedometerResult(std::uint32_t seq, std::string host, std::string ip,
                      std::optional<std::string> proxyType, std::optional<std::string> proxyIP,
                      std::optional<std::uint16_t> proxyPort, double minLatency, double maxLatency,
                      double avgLatency, std::vector<double> latencies, double lossRate,
                      double jitter, std::string networkInterface, std::uint64_t completeTime,
                      std::optional<std::string> traceroute, bool isReachable);

    /// Nil (and `error` set) when a number is not finite: JSON has no form for it.
    std::optional<Json> toJson(Error* error = nullptr) const;
    /// Nil (and `error` set) when `json` is no object or a required field is missing or
    /// mistyped.
    static std::optional<SpeedometerResult> fromJson(const Json& json, Error* error = nullptr);

    /// The results file in the shared container.
    static std::filesystem::path url();
    /// The file's bytes; nil when it cannot be read.
    static std::optional<std::string> data();
    /// The stored results, all or only the first `prefix`; empty when the file is missing or
    /// does not decode.
    static std::vector<SpeedometerResult> results(std::optional<std::size_t> prefix = std::nullopt);
    /// Stores `result` after the others; false (and a log line) when it cannot be written.
    static bool append(const SpeedometerResult& result);

    bool operator==(const SpeedometerResult&) const = default;
};

}  // namespace lmkit

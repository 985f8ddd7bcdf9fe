#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// A port range of a multipath whitelist; delivered as the text "begin-end".
struct AccMultipathPortRange {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    AccMultipathPortRange() = default;
    AccMultipathPortRange(std::uint64_t begin, std::uint64_t end) : begin(begin), end(end) {}
    bool operator==(const AccMultipathPortRange&) const = default;
};

/// "begin-end" texts to ranges (texts that do not split into exactly two parts are dropped; a
/// non-numeric part reads as 0) and back.
Transformer<std::optional<std::vector<AccMultipathPortRange>>> portRangesTransformer();

struct AccMultipathTCPWhitelist : Model<AccMultipathTCPWhitelist> {
    std::optional<std::vector<AccMultipathPortRange>> portRanges;
    static const std::vector<Property<AccMultipathTCPWhitelist>>& properties();
};

struct AccMultipathUDPWhitelist : Model<AccMultipathUDPWhitelist> {
    std::optional<std::vector<AccMultipathPortRange>> portRanges;
    static const std::vector<Property<AccMultipathUDPWhitelist>>& properties();
};

struct AccTrafficIdentifyRule : Model<AccTrafficIdentifyRule> {
    std::uint64_t interval = 0;
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
    std::uint64_t combineType = 0;
    static const std::vector<Property<AccTrafficIdentifyRule>>& properties();
};

/// Second-path (multipath) settings.
struct AccMultipathConfig : Model<AccMultipathConfig> {
    bool useSproxyIfBetter = false;
    bool enableDirect = false;
    std::uint64_t directThreshold = 0;
    bool splitChannel = false;
    bool enableCache = false;
    std::optional<Number> cacheSize;
    std::optional<Number> cacheTime;
    bool enableP2P = false;
    std::optional<Number> p2pTimeout;
    std::optional<Number> p2pMaxRetries;
    std::shared_ptr<AccMultipathTCPWhitelist> tcpWhitelist;
    std::shared_ptr<AccMultipathUDPWhitelist> udpWhitelist;
    std::shared_ptr<AccTrafficIdentifyRule> trafficIdentifyRule;

    static const std::vector<Property<AccMultipathConfig>>& properties();
};

}  // namespace lmkit

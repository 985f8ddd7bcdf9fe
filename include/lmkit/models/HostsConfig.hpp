#pragma once

#include <set>

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// One relay destination of a host rule.
struct HostDestination : Model<HostDestination> {
    std::optional<std::string> sniIp;
    std::optional<Number> sniPort;
    std::optional<Number> sniCryptType;
    std::optional<Number> tcpEncryptKey;
    std::optional<Json> portMap;  // passed through as delivered

    static const std::vector<Property<HostDestination>>& properties();
};

/// A host rule: which domains go through the tunnel and to which relay destinations.
struct HostsConfig : Model<HostsConfig> {
    std::optional<RegularExpression> domainRegx;
    std::optional<std::vector<std::shared_ptr<HostDestination>>> destinations;
    std::optional<Number> accTunnel;     // used as a boolean
    std::optional<Number> webviewBoost;  // used as a boolean

    /// The distinct non-empty sniIp values of the destinations (order not defined).
    std::vector<std::string> destinationSniIpArray() const;
    /// Nil without destinations; otherwise the set of destinationSniIpArray().
    std::optional<std::set<std::string>> uniqueIPSet() const;
    /// A uniformly chosen destination; nullptr without destinations.
    std::shared_ptr<HostDestination> randomDestination() const;
    /// The sniIp of randomDestination(); nil when there is none.
    std::optional<std::string> randomDestinationIP() const;

    static const std::vector<Property<HostsConfig>>& properties();
};

}  // namespace lmkit

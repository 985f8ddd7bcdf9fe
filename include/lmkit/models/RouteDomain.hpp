#pragma once

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

/// A DNS and routing rule for domains.
struct RouteDomain : Model<RouteDomain> {
    std::optional<RegularExpression> domainRegx;
    std::optional<Number> remoteDNS;   // used as a boolean
    std::optional<Number> accTraffic;  // used as a boolean
    std::optional<std::string> DNSServer;
    std::optional<Number> webviewBoost;  // used as a boolean

    static const std::vector<Property<RouteDomain>>& properties();
};

}  // namespace lmkit

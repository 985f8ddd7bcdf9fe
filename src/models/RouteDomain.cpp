#include "lmkit/models/RouteDomain.hpp"

#include "lmkit/models/Transformers.hpp"

namespace lmkit {

const std::vector<Property<RouteDomain>>& RouteDomain::properties() {
    static const std::vector<Property<RouteDomain>> table{
        prop("domainRegx", "domain", &RouteDomain::domainRegx, regularExpressionTransformer()),
        prop("remoteDNS", "acc_dns", &RouteDomain::remoteDNS),
        prop("accTraffic", "acc_traffic", &RouteDomain::accTraffic),
        prop("DNSServer", "dns_server", &RouteDomain::DNSServer),
        prop("webviewBoost", "webview_boost", &RouteDomain::webviewBoost),
    };
    return table;
}

}  // namespace lmkit

#include "lmkit/models/VPNStartOptions.hpp"

namespace lmkit {

namespace {

// A row of the base table, applied to the derived record.
Property<VPNStartOptions> inherited(const Property<VPNSimpleStartOptions>& base) {
    Property<VPNStartOptions> p;
    p.name = base.name;
    p.keyPath = base.keyPath;
    p.path = base.path;
    p.decode = [decode = base.decode](VPNStartOptions& r, const Json& j, Error& e) {
        return decode(r, j, e);
    };
    p.encode = [encode = base.encode](const VPNStartOptions& r) { return encode(r); };
    if (base.applyDefault)
        p.applyDefault = [apply = base.applyDefault](VPNStartOptions& r) { apply(r); };
    p.sample = base.sample;
    p.transformed = base.transformed;
    return p;
}

}  // namespace

const std::vector<Property<VPNStartOptions>>& VPNStartOptions::properties() {
    static const std::vector<Property<VPNStartOptions>> table = [] {
        std::vector<Property<VPNStartOptions>> rows;
        for (const auto& row : VPNSimpleStartOptions::properties())
            rows.push_back(inherited(row));
        rows.push_back(prop("mtu", &VPNStartOptions::mtu));
        rows.push_back(prop("routes", &VPNStartOptions::routes));
        rows.push_back(prop("grpConfig", &VPNStartOptions::grpConfig));
        return rows;
    }();
    return table;
}

std::optional<Json> VPNStartOptions::toJSONDictionary() const {
    Error error;
    auto json = JSONAdapter::JSONDictionaryFromModel(*this, &error);
    if (!json)
        models_detail::logEncodingFailure(error);
    return json;
}

}  // namespace lmkit

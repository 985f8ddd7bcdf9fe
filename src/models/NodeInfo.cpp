#include "lmkit/models/NodeInfo.hpp"

#include <cmath>

#include "lmkit/models/CollectionHelpers.hpp"
#include "lmkit/models/Transformers.hpp"

namespace lmkit {

namespace {

Number rounded(const std::optional<Number>& value) {
    return Number(std::round(value ? value->doubleValue() : 0.0));
}

Number flooredLoss(const std::optional<Number>& value) {
    return Number(collections::floorToTwoDecimals(value ? value->doubleValue() : 0.0));
}

// The JSON form goes through the getters, so it carries the normalised values.
template <Number (*normalise)(const std::optional<Number>&)>
Transformer<std::optional<Number>> normalised() {
    Transformer<std::optional<Number>> t;
    t.forward = [](const Json& in, std::optional<Number>& out, Error&) {
        out = Number::fromJson(in);
        return true;
    };
    t.accepts = models_detail::acceptsNumber;
    t.sample = [](int) { return Json(12); };
    t.reverse = [](const std::optional<Number>& value) { return normalise(value).toJson(); };
    return t;
}

}  // namespace

Number NodeInfo::delay() const {
    return rounded(delay_);
}
Number NodeInfo::loss() const {
    return flooredLoss(loss_);
}
Number NodeInfo::deviation() const {
    return rounded(deviation_);
}

const std::vector<Property<NodeInfo>>& NodeInfo::properties() {
    static const std::vector<Property<NodeInfo>> table{
        prop("ip", &NodeInfo::ip),
        prop("delay", "ping", &NodeInfo::delay_, normalised<rounded>()),
        prop("loss", &NodeInfo::loss_, normalised<flooredLoss>()),
        prop("deviation", &NodeInfo::deviation_, normalised<rounded>()),
    };
    return table;
}

const std::vector<Property<BaseNode>>& BaseNode::properties() {
    static const std::vector<Property<BaseNode>> table{
        prop("ip", &BaseNode::ip),
        prop("port", &BaseNode::port),
    };
    return table;
}

}  // namespace lmkit

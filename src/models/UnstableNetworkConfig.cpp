#include "lmkit/models/UnstableNetworkConfig.hpp"

#include "lmkit/models/Transformers.hpp"

namespace lmkit {

namespace {

Transformer<std::optional<Number>> millisecondsToSeconds() {
    Transformer<std::optional<Number>> t;
    t.forward = [](const Json& in, std::optional<Number>& out, Error&) {
        auto n = Number::fromJson(in);
        out = n ? std::optional<Number>(n->doubleValue() / 1000.0) : std::nullopt;
        return true;
    };
    t.accepts = models_detail::acceptsNumber;
    t.sample = [](int) { return Json(1500); };
    t.reverse = [](const std::optional<Number>& seconds) -> Json {
        return seconds ? Json(seconds->doubleValue() * 1000.0) : Json();
    };
    return t;
}

}  // namespace

const std::vector<Property<UnstableNetworkConfig>>& UnstableNetworkConfig::properties() {
    static const std::vector<Property<UnstableNetworkConfig>> table{
        prop("interval", &UnstableNetworkConfig::interval, millisecondsToSeconds()),
        prop("loss", &UnstableNetworkConfig::loss),
        prop("deviation", &UnstableNetworkConfig::deviation),
    };
    return table;
}

}  // namespace lmkit

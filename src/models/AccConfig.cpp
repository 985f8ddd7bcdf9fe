#include "lmkit/models/AccConfig.hpp"

namespace lmkit {

std::shared_ptr<AccConfig> AccConfig::defaultConfig() {
    static const Json defaults = Json::parse(
        R"({"ping":600,"loss":100,"load":200,"load_threshold":0.8,"isp":100,"loss2":600,)"
        R"("loss_scale":1000})");
    return JSONAdapter::modelOfClass<AccConfig>(defaults);
}

const std::vector<Property<AccConfig>>& AccConfig::properties() {
    static const std::vector<Property<AccConfig>> table{
        prop("ping", &AccConfig::ping),
        prop("loss", &AccConfig::loss),
        prop("load", &AccConfig::load),
        prop("loadThreshold", "load_threshold", &AccConfig::loadThreshold),
        prop("isp", &AccConfig::isp),
        prop("loss2", &AccConfig::loss2),
        prop("lossScale", "loss_scale", &AccConfig::lossScale),
    };
    return table;
}

std::shared_ptr<AccScoreConfig> AccScoreConfig::defaultConfig() {
    static const Json defaults = Json::parse(R"({"ping":400,"loss":100,"deviation":100})");
    return JSONAdapter::modelOfClass<AccScoreConfig>(defaults);
}

const std::vector<Property<AccScoreConfig>>& AccScoreConfig::properties() {
    static const std::vector<Property<AccScoreConfig>> table{
        prop("ping", &AccScoreConfig::ping),
        prop("loss", &AccScoreConfig::loss),
        prop("deviation", &AccScoreConfig::deviation),
    };
    return table;
}

const std::vector<Property<NetworkConditionLevel>>& NetworkConditionLevel::properties() {
    static const std::vector<Property<NetworkConditionLevel>> table{
        prop("level", &NetworkConditionLevel::level),
        prop("max", &NetworkConditionLevel::max),
        prop("min", &NetworkConditionLevel::min),
    };
    return table;
}

}  // namespace lmkit

#include "lmkit/foundation/KeyedArchiver.hpp"

namespace lmkit::keyed_archiver {

namespace {
constexpr const char* kClassKey = "class";
constexpr const char* kRootKey = "root";
}  // namespace

std::optional<DefaultsData> archivedData(const std::string& typeName,
                                         const nlohmann::ordered_json& json, std::string& error) {
    if (!json.is_object()) {
        error = "a " + typeName + " record must archive a dictionary, not " +
                std::string(json.type_name());
        return std::nullopt;
    }
    try {
        nlohmann::ordered_json envelope = {{kClassKey, typeName}, {kRootKey, json}};
        std::string text = envelope.dump();
        return DefaultsData(text.begin(), text.end());
    } catch (const std::exception& e) {  // text members that are not UTF-8
        error = e.what();
        return std::nullopt;
    }
}

std::optional<nlohmann::ordered_json> unarchivedJSON(const DefaultsData& data,
                                                     const std::string& typeName,
                                                     std::string& error) {
    auto envelope = nlohmann::ordered_json::parse(data.begin(), data.end(), nullptr, false);
    if (envelope.is_discarded()) {
        error = "the archive is not valid JSON (" + std::to_string(data.size()) + " bytes)";
        return std::nullopt;
    }
    if (!envelope.is_object() || !envelope.contains(kClassKey) ||
        !envelope[kClassKey].is_string() || !envelope.contains(kRootKey) ||
        !envelope[kRootKey].is_object()) {
        error = "the data is not a keyed archive";
        return std::nullopt;
    }
    const auto& stored = envelope[kClassKey].get_ref<const std::string&>();
    if (stored != typeName) {
        error = "the archive holds a " + stored + ", not a " + typeName;
        return std::nullopt;
    }
    return std::move(envelope[kRootKey]);
}

}  // namespace lmkit::keyed_archiver

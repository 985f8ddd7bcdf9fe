#pragma once

#include <concepts>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "lmkit/foundation/UserDefaults.hpp"

namespace lmkit {

/// How a record turns into its JSON dictionary and back, and the type name its archives carry.
/// The primary template uses the record's own members; a family of records (the JSON-mapped
/// records) may specialise it once for all of them.
template <class T>
struct RecordCoding {
    static nlohmann::ordered_json toJSON(const T& record) { return record.toJSONDictionary(); }
    static std::shared_ptr<T> fromJSON(const nlohmann::ordered_json& json, std::string& error) {
        return T::fromJSONDictionary(json, error);
    }
    static std::string typeName() { return std::string(T::typeName()); }
};

/// A record that can be stored in the settings: it gives its JSON dictionary, is made back from
/// one (nullptr and a reason when the dictionary does not fit), and names its type.
template <class T>
concept ArchivableRecord = requires(const T& record, const nlohmann::ordered_json& json,
                                    std::string& error) {
    { RecordCoding<T>::toJSON(record) } -> std::convertible_to<nlohmann::ordered_json>;
    { RecordCoding<T>::fromJSON(json, error) } -> std::convertible_to<std::shared_ptr<T>>;
    { RecordCoding<T>::typeName() } -> std::convertible_to<std::string>;
};

/// Keyed archives of records: the record's JSON dictionary together with its type name, as one
/// JSON document ({"class": name, "root": dictionary}). Unarchiving checks the type, so a value
/// written for another setting cannot pass for this one.
namespace keyed_archiver {

/// The archive of `json` as a record of type `typeName`; nullopt and `error` when `json` is not
/// a dictionary or cannot be written as JSON.
std::optional<DefaultsData> archivedData(const std::string& typeName,
                                         const nlohmann::ordered_json& json, std::string& error);
/// The dictionary inside `data` when it is an archive of `typeName`; nullopt and `error` else.
std::optional<nlohmann::ordered_json> unarchivedJSON(const DefaultsData& data,
                                                     const std::string& typeName,
                                                     std::string& error);

template <ArchivableRecord T>
std::optional<DefaultsData> archive(const T& record, std::string& error) {
    try {
        return archivedData(RecordCoding<T>::typeName(), RecordCoding<T>::toJSON(record), error);
    } catch (const std::exception& e) {
        error = e.what();
        return std::nullopt;
    }
}

template <ArchivableRecord T>
std::shared_ptr<T> unarchive(const DefaultsData& data, std::string& error) {
    try {
        auto json = unarchivedJSON(data, RecordCoding<T>::typeName(), error);
        if (!json)
            return nullptr;
        auto record = RecordCoding<T>::fromJSON(*json, error);
        if (!record && error.empty())
            error = "the archive does not hold a valid record";
        return record;
    } catch (const std::exception& e) {
        error = e.what();
        return nullptr;
    }
}

}  // namespace keyed_archiver
}  // namespace lmkit

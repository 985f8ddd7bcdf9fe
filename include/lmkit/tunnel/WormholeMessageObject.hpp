#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lmkit/foundation/KeyedArchiver.hpp"
#include "lmkit/models/BaseModel.hpp"
#include "lmkit/settings/RecordArchiving.hpp"

namespace lmkit {

/// An object as it travels on the message channel: the name of its class and its JSON
/// dictionary. On the wire it is a keyed archive ({"class": name, "root": dictionary}), so the
/// receiving side can check the class before it makes a record of it.
struct WormholeMessageObject {
    /// The class name that plain dictionaries travel under.
    static constexpr const char* kDictionaryClassName = "Dictionary";

    std::string className;
    Json root = Json::object();

    /// A plain dictionary; `dictionary` must be a JSON object to be archived.
    static WormholeMessageObject dictionary(Json dictionary);

    /// The record under its type name; nullopt (and a reason) when it has no JSON form.
    template <ArchivableRecord T>
    static std::optional<WormholeMessageObject> record(const T& value, std::string& error) {
        try {
            return WormholeMessageObject{RecordCoding<T>::typeName(),
                                         RecordCoding<T>::toJSON(value)};
        } catch (const std::exception& e) {
            error = e.what();
            return std::nullopt;
        }
    }

    bool isDictionary() const { return className == kDictionaryClassName; }

    /// Whether the object is of class T (by name).
    template <ArchivableRecord T>
    bool isKindOf() const {
        return className == RecordCoding<T>::typeName();
    }

    /// The record when the object is of class T and its dictionary makes one; nullptr (and a
    /// reason) otherwise.
    template <ArchivableRecord T>
    std::shared_ptr<T> as(std::string& error) const {
        if (!isKindOf<T>()) {
            error = "the object is a " + className + ", not a " + RecordCoding<T>::typeName();
            return nullptr;
        }
        try {
            auto value = RecordCoding<T>::fromJSON(root, error);
            if (!value && error.empty())
                error = "the dictionary does not make a " + RecordCoding<T>::typeName();
            return value;
        } catch (const std::exception& e) {
            error = e.what();
            return nullptr;
        }
    }

    /// The archive of the object; nullopt (and a reason) when the root is not a dictionary or
    /// cannot be written.
    std::optional<std::vector<std::uint8_t>> archivedData(std::string& error) const;
    /// The object inside an archive; nullopt (and a reason) when `data` is not one.
    static std::optional<WormholeMessageObject> unarchive(const std::vector<std::uint8_t>& data,
                                                          std::string& error);
};

}  // namespace lmkit

#pragma once

// Lets every JSON-mapped record live in the settings: AppMTLDefault stores its JSON dictionary and
// the keyed archiver archives it under its type name. Include this header wherever a record is
// kept in the settings.

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>

#include "lmkit/foundation/KeyedArchiver.hpp"
#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

namespace settings_detail {
/// The record type's name without namespaces ("Game" for lmkit::Game): archives name the record,
/// not where it lives in the code.
std::string recordTypeName(const std::type_info& type);
}  // namespace settings_detail

template <class T>
requires std::is_base_of_v<BaseModel, T>
struct RecordCoding<T> {
    static Json toJSON(const T& record) {
        auto json = record.toJSONDictionary();
        if (!json)
            throw std::runtime_error("the record has no JSON form");
        return *json;
    }
    static std::shared_ptr<T> fromJSON(const Json& json, std::string& error) {
        Error failure;
        auto record = JSONAdapter::modelOfClass<T>(json, &failure);
        if (!record)
            error = failure.localizedDescription();
        return record;
    }
    static std::string typeName() { return settings_detail::recordTypeName(typeid(T)); }
};

}  // namespace lmkit

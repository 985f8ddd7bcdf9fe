#pragma once

// Every JSON-mapped record type of the kit by name, with what tools and tests need to handle a
// type they do not know at compile time: decode a document, list the key paths the type reads,
// and make a document with every field set.

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "lmkit/models/BaseModel.hpp"

namespace lmkit {

struct RecordProperty {
    std::string name;
    std::string keyPath;
};

struct RecordType {
    std::string name;
    /// The record of this type in `json`; nullptr and `error` set when it does not decode.
    std::function<std::shared_ptr<BaseModel>(const Json& json, Error* error)> decode;
    /// The type's property table: names and key paths, in table order.
    std::function<std::vector<RecordProperty>()> properties;
    /// A document with every property set (nested records to a bounded depth).
    std::function<Json()> sampleDocument;
};

/// The record types, by name in ascending order.
const std::vector<RecordType>& recordTypes();
/// The type called `name`, or nullptr.
const RecordType* recordType(std::string_view name);

/// The registry entry of record type R (for record types kept outside the models area).
template <models_detail::Record R>
RecordType recordTypeOf(std::string name) {
    return {std::move(name),
            [](const Json& json, Error* error) -> std::shared_ptr<BaseModel> {
                return JSONAdapter::modelOfClass<R>(json, error);
            },
            [] {
                std::vector<RecordProperty> table;
                for (const auto& property : R::properties())
                    table.push_back({property.name, property.keyPath});
                return table;
            },
            [] { return models_detail::sampleDocument<R>(0); }};
}

}  // namespace lmkit

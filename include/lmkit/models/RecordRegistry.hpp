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
    /// The same from JSON text, decoding large arrays of records as they are parsed (see
    /// JSONAdapter::modelOfClassFromText); `rest` receives the document without them.
    std::function<std::shared_ptr<BaseModel>(std::string_view text, Error* error, Json* rest)>
        decodeText;
    /// The type's property table: names and key paths, in table order.
    std::function<std::vector<RecordProperty>()> properties;
    /// A document with every property set (nested records to a bounded depth).
    std::function<Json()> sampleDocument;
    /// Writes the JSON text of property `index` of `record` (a record of this type) to `write`,
    /// in pieces: the value it holds as it stands, or its encoded value. An array of records is
    /// encoded one element at a time, so a large list never exists whole, as tree or as text.
    std::function<void(const BaseModel& record, std::size_t index,
                       const std::function<void(std::string_view)>& write)>
        dumpProperty;
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
            [](std::string_view text, Error* error, Json* rest) -> std::shared_ptr<BaseModel> {
                return JSONAdapter::modelOfClassFromText<R>(text, error, rest);
            },
            [] {
                std::vector<RecordProperty> table;
                for (const auto& property : R::properties())
                    table.push_back({property.name, property.keyPath});
                return table;
            },
            [] { return models_detail::sampleDocument<R>(0); },
            [](const BaseModel& model, std::size_t index,
               const std::function<void(std::string_view)>& write) {
                const auto& record = static_cast<const R&>(model);
                const auto& property = R::properties().at(index);
                auto dump = [&write](const Json& json) {
                    write(json.dump(-1, ' ', false, Json::error_handler_t::replace));
                };
                if (const Json* held = record.valueOfOtherKind(property.name)) {
                    dump(*held);
                    return;
                }
                bool first = true;
                if (property.eachElement && property.eachElement(record, [&](const Json& element) {
                        write(first ? "[" : ",");
                        first = false;
                        dump(element);
                    })) {
                    write(first ? "[]" : "]");
                    return;
                }
                dump(property.encode(record));
            }};
}

}  // namespace lmkit

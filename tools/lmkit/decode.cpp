// lmkit decode: reads a service document as one record type and shows the record as the kit
// decoded it: each property with its value, the values kept as they stand because their kind is
// not the property's, and the keys of the document that no property reads.
#include <fmt/format.h>

#include <iostream>
#include <limits>
#include <set>

#include "Command.hpp"
#include "DataFiles.hpp"
#include "lmkit/models/RecordRegistry.hpp"

namespace lmkit::tool {
namespace {

struct DecodeOptions {
    std::string type;
    std::string input;
    bool list = false;
    std::uint64_t maxBytes = kDefaultMaxInputBytes;
};

// The value at a dotted key path of an encoded record; nullptr when the path is absent.
Json* valueAt(Json& json, const std::string& keyPath) {
    Json* current = &json;
    std::size_t start = 0;
    while (true) {
        auto dot = keyPath.find('.', start);
        auto key = keyPath.substr(start, dot == std::string::npos ? dot : dot - start);
        if (!current->is_object())
            return nullptr;
        auto next = current->find(key);
        if (next == current->end())
            return nullptr;
        current = &*next;
        if (dot == std::string::npos)
            return current;
        start = dot + 1;
    }
}

// The key paths of `input` that no property reads: a key a property reads whole is used with all
// inside it; a key that only leads to properties' paths is looked into.
void collectIgnored(const Json& input, const std::string& prefix,
                    const std::set<std::string>& paths, std::vector<std::string>& ignored) {
    for (const auto& [key, value] : input.items()) {
        std::string path = prefix.empty() ? key : prefix + "." + key;
        if (paths.count(path))
            continue;
        auto leading = paths.lower_bound(path + ".");
        if (leading != paths.end() && leading->rfind(path + ".", 0) == 0 && value.is_object())
            collectIgnored(value, path, paths, ignored);
        else
            ignored.push_back(path);
    }
}

Command decode(
    "decode", "Decode a service JSON document as a record type and show what the kit read",
    [](CLI::App& app, Common& common) {
        auto options = std::make_shared<DecodeOptions>();
        app.add_flag("--list", options->list, "List the record types");
        app.add_flag("--json", common.json, "Print the decoded record as JSON");
        app.add_option("--max-bytes", options->maxBytes,
                       "Largest document accepted (default 64 MiB)")
            ->check(CLI::Range(std::uint64_t{1}, std::numeric_limits<std::uint64_t>::max() / 2));
        app.add_option("type", options->type, "Record type, such as AccNode");
        app.add_option("file", options->input,
                       "Document to decode (standard input when absent or -)");
        return [options, &common]() -> int {
            if (options->list) {
                for (const auto& type : recordTypes())
                    std::cout << type.name << '\n';
                return 0;
            }
            const RecordType* type = recordType(options->type);
            if (!type)
                throw Failure(fmt::format("unknown record type \"{}\" (see lmkit decode --list)",
                                          options->type));
            // A large document is held in three forms one after another (text, parsed, record,
            // then the record's JSON form): each is released as soon as the next exists, so the
            // peak is two of them, never four.
            Json json;
            {
                const Data input = readInput(options->input, options->maxBytes, "--max-bytes");
                json = Json::parse(input.begin(), input.end(), nullptr, false);
            }
            if (json.is_discarded())
                throw Failure(fmt::format("{}: the input is not valid JSON", options->type));
            Error error;
            auto record = type->decode(json, &error);
            if (!record)
                throw Failure(fmt::format("{}: {}", options->type, error.localizedDescription()));
            const auto all = type->properties();
            std::set<std::string> paths;
            for (const auto& property : all)
                paths.insert(property.keyPath);
            std::vector<std::string> ignored;
            collectIgnored(json, "", paths, ignored);
            json = Json();

            Json otherKind = Json::object();
            for (const auto& [name, value] : record->valuesOfOtherKind())
                otherKind[name] = value;
            auto encoded = record->toJSONDictionary();
            record.reset();
            if (!encoded)
                throw Failure(fmt::format("{}: the record has no JSON form", options->type));
            // The properties take their values out of the record's JSON form, which is not
            // needed afterwards; a value that another property also reads (the same key, or a
            // key inside it) is copied instead.
            std::multiset<std::string> readPaths;
            for (const auto& property : all)
                readPaths.insert(property.keyPath);
            Json properties = Json::object();
            for (const auto& property : all) {
                Json* value = valueAt(*encoded, property.keyPath);
                auto inside = readPaths.lower_bound(property.keyPath + ".");
                bool shared =
                    readPaths.count(property.keyPath) > 1 ||
                    (inside != readPaths.end() && inside->rfind(property.keyPath + ".", 0) == 0);
                if (!value)
                    properties[property.name] = Json();
                else
                    properties[property.name] = shared ? *value : std::move(*value);
            }
            encoded.reset();

            if (common.json) {
                Json out{{"type", type->name},
                         {"properties", std::move(properties)},
                         {"keptAsTheyStand", std::move(otherKind)},
                         {"ignoredKeys", ignored}};
                std::cout << out.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
                return 0;
            }
            std::cout << type->name << '\n';
            for (const auto& [name, value] : properties.items()) {
                std::string shown = value.dump(-1, ' ', false, Json::error_handler_t::replace);
                if (otherKind.contains(name))
                    shown += "  (kept as it stands: not of the property's kind)";
                std::cout << fmt::format("  {:<36} {}\n", name, shown);
            }
            if (!ignored.empty()) {
                std::cout << "ignored keys:";
                for (const auto& key : ignored)
                    std::cout << ' ' << key;
                std::cout << '\n';
            }
            return 0;
        };
    });

}  // namespace
}  // namespace lmkit::tool

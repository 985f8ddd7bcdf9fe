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
            // A large document is never held whole in two forms at a time: the text is
            // unmapped once decoded, and arrays of records are decoded while they are parsed.
            Json rest;
            Error error;
            std::shared_ptr<BaseModel> record;
            {
                const InputText input(options->input, options->maxBytes, "--max-bytes");
                record = type->decodeText(input.text(), &error, &rest);
            }
            if (!record)
                throw Failure(fmt::format("{}: {}", options->type, error.localizedDescription()));
            const auto all = type->properties();
            std::set<std::string> paths;
            for (const auto& property : all)
                paths.insert(property.keyPath);
            std::vector<std::string> ignored;
            collectIgnored(rest, "", paths, ignored);
            rest = Json();

            // Each property's text is written as it is made: a large node list is never held
            // whole, as tree or as text.
            auto write = [](std::string_view text) { std::cout << text; };
            const auto& otherKind = record->valuesOfOtherKind();
            if (common.json) {
                // One property per line: valid JSON that stays readable with large values.
                std::cout << "{\n  \"type\": " << Json(type->name).dump()
                          << ",\n  \"properties\": {";
                for (std::size_t i = 0; i < all.size(); ++i) {
                    std::cout << (i ? ",\n    " : "\n    ") << Json(all[i].name).dump() << ": ";
                    type->dumpProperty(*record, i, write);
                }
                Json kept = Json::object();
                for (const auto& [name, value] : otherKind)
                    kept[name] = value;
                std::cout << "\n  },\n  \"keptAsTheyStand\": "
                          << kept.dump(-1, ' ', false, Json::error_handler_t::replace)
                          << ",\n  \"ignoredKeys\": "
                          << Json(ignored).dump(-1, ' ', false, Json::error_handler_t::replace)
                          << "\n}\n";
                return 0;
            }
            std::cout << type->name << '\n';
            for (std::size_t i = 0; i < all.size(); ++i) {
                std::cout << fmt::format("  {:<36} ", all[i].name);
                type->dumpProperty(*record, i, write);
                if (otherKind.count(all[i].name))
                    std::cout << "  (kept as it stands: not of the property's kind)";
                std::cout << '\n';
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

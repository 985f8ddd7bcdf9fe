// lmkit settings: read and change the settings suite that the app and the tunnel share.
#include <cstdio>
#include <string>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Command.hpp"
#include "lmkit/foundation/UserDefaults.hpp"

namespace lmkit::tool {
namespace {

struct SettingsOptions {
    std::string suite = kAppGroupIdentifier;
    std::string key;
    std::string value;
    std::string type = "string";
    bool wrap = false;
};

std::shared_ptr<UserDefaults> openSuite(const std::string& suite) {
    std::optional<Error> error;
    auto defaults = UserDefaults::open(suite, &error);
    if (!defaults)
        throw Failure(error ? error->localizedDescription() : "cannot open " + suite);
    return defaults;
}

// How a stored value reads for a person: AppDefault data shows its wrapped value, record data its
// JSON dictionary, other data its size.
struct Shown {
    nlohmann::ordered_json value;
    std::string form;  // "value", "wrapped", "record" or "data"
};

Shown show(const DefaultsValue& stored) {
    if (!stored.is_binary())
        return {stored, "value"};
    const auto& bytes = stored.get_binary();
    auto json = nlohmann::ordered_json::parse(bytes.begin(), bytes.end(), nullptr, false);
    if (!json.is_discarded() && json.is_object()) {
        if (json.size() == 1 && json.contains("wrapped"))
            return {json["wrapped"], "wrapped"};
        return {json, "record"};
    }
    return {fmt::format("<{} bytes>", bytes.size()), "data"};
}

DefaultsValue parseValue(const SettingsOptions& options) {
    const std::string& text = options.value;
    DefaultsValue value;
    try {
        std::size_t used = 0;
        if (options.type == "int") {
            value = std::stoll(text, &used);
        } else if (options.type == "double") {
            value = std::stod(text, &used);
        } else if (options.type == "bool") {
            if (text == "true" || text == "1" || text == "yes" || text == "YES") {
                value = true;
            } else if (text == "false" || text == "0" || text == "no" || text == "NO") {
                value = false;
            } else {
                throw Failure("\"" + text + "\" is not a boolean (true/false, yes/no, 1/0)");
            }
            used = text.size();
        } else if (options.type == "json") {
            value = nlohmann::ordered_json::parse(text);
            used = text.size();
        } else {
            value = text;
            used = text.size();
        }
        if (used != text.size())
            throw Failure("\"" + text + "\" is not a whole " + options.type);
    } catch (const Failure&) {
        throw;
    } catch (const std::exception&) {
        throw Failure("\"" + text + "\" is not a valid " + options.type);
    }
    if (value.is_null())
        throw Failure("null is not a setting value; use delete");
    if (options.wrap) {
        std::string wrapped = nlohmann::ordered_json{{"wrapped", value}}.dump();
        return UserDefaults::makeData(wrapped);
    }
    return value;
}

void printEntry(const std::string& key, const DefaultsValue& stored, bool json) {
    auto shown = show(stored);
    if (json) {
        std::puts(nlohmann::ordered_json{{"key", key}, {"form", shown.form}, {"value", shown.value}}
                      .dump()
                      .c_str());
    } else {
        std::printf("%-48s %-8s %s\n", key.c_str(), shown.form.c_str(), shown.value.dump().c_str());
    }
}

Command settings(
    "settings", "List, read, change or delete shared settings", [](CLI::App& app, Common& common) {
        auto options = std::make_shared<SettingsOptions>();
        app.add_option("--suite", options->suite, "Suite name (default: the app group's)");
        app.add_flag("--json", common.json, "Print data as JSON");
        app.require_subcommand(1);
        auto* list = app.add_subcommand("list", "Every key with its value");
        auto* get = app.add_subcommand("get", "One key's value");
        get->add_option("KEY", options->key)->required();
        auto* set = app.add_subcommand("set", "Store a value under a key");
        set->add_option("KEY", options->key)->required();
        set->add_option("VALUE", options->value)->required();
        set->add_option("--type", options->type, "Value type")
            ->check(CLI::IsMember({"int", "double", "bool", "string", "json"}));
        set->add_flag("--wrap", options->wrap,
                      "Store as an AppDefault does ({\"wrapped\": value})");
        auto* remove = app.add_subcommand("delete", "Remove a key");
        remove->add_option("KEY", options->key)->required();
        for (auto* sub : {list, get, set, remove}) {
            sub->add_option("--suite", options->suite, "Suite name");
            sub->add_flag("--json", common.json, "Print data as JSON");
        }

        return [options, list, get, set, remove, &common]() -> int {
            auto defaults = openSuite(options->suite);
            if (list->parsed()) {
                auto all = defaults->dictionaryRepresentation();
                if (common.json) {
                    nlohmann::ordered_json out = nlohmann::ordered_json::object();
                    for (auto& [key, stored] : all.items())
                        out[key] = show(stored).value;
                    std::puts(out.dump(2).c_str());
                } else {
                    for (auto& [key, stored] : all.items())
                        printEntry(key, stored, false);
                }
                return 0;
            }
            if (get->parsed()) {
                auto stored = defaults->objectForKey(options->key);
                if (!stored)
                    throw Failure("no value under \"" + options->key + "\"");
                printEntry(options->key, *stored, common.json);
                return 0;
            }
            if (set->parsed()) {
                if (!defaults->setObject(parseValue(*options), options->key) ||
                    !defaults->synchronize())
                    throw Failure("cannot write \"" + options->key + "\" to " +
                                  defaults->path().string());
                return 0;
            }
            if (remove->parsed()) {
                if (!defaults->objectForKey(options->key))
                    throw Failure("no value under \"" + options->key + "\"");
                if (!defaults->removeObjectForKey(options->key) || !defaults->synchronize())
                    throw Failure("cannot delete \"" + options->key + "\"");
                return 0;
            }
            return 1;
        };
    });

}  // namespace
}  // namespace lmkit::tool

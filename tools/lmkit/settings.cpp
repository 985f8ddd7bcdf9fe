// lmkit settings: read and change the settings suite that the app and the tunnel share.
#include <cctype>
#include <cmath>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Command.hpp"
#include "lmkit/foundation/UserDefaults.hpp"
#include "lmkit/settings/DeviceInfoProvider.hpp"
#include "lmkit/settings/ENV.hpp"
#include "lmkit/settings/ObjectPropertyStore.hpp"
#include "lmkit/settings/PropertyStore.hpp"

namespace lmkit::tool {
namespace {

struct SettingsOptions {
    std::string suite = ENV::appGroup();
    std::string key;
    std::string value;
    std::string type = "auto";  // JSON when the text is JSON, else text
    bool text = false;
    bool wrap = false;
};

std::shared_ptr<UserDefaults> openSuite(const std::string& suite) {
    std::optional<Error> error;
    auto defaults = UserDefaults::open(suite, &error);
    if (!defaults)
        throw Failure(error ? error->localizedDescription() : "cannot open " + suite);
    return defaults;
}

// The device identifier the public address is sealed with, when this device has one (reading
// never makes one).
std::optional<std::string> storedDeviceID() {
    return DeviceInfoProvider::sharedProvider().keychain()->stringForKey(
        DeviceInfoProvider::kDeviceIDKey);
}

// The settings the two stores keep, by key.
std::optional<SettingKey> knownSetting(const std::shared_ptr<UserDefaults>& defaults,
                                       const std::string& key) {
    PropertyStore store(defaults, [] { return std::string(); });
    for (const auto& setting : store.keys())
        if (setting.key == key)
            return setting;
    for (const auto& setting : ObjectPropertyStore::keys())
        if (setting.key == key ||
            (setting.property == "leaderboardsJSON" && key.rfind(setting.key + "_", 0) == 0))
            return setting;
    return std::nullopt;
}

// How a stored value reads for a person: AppDefault data shows its wrapped value, record data its
// JSON dictionary, a keyed archive the dictionary inside, the sealed public address its record,
// other data its size.
struct Shown {
    nlohmann::ordered_json value;
    std::string form;  // "value", "wrapped", "record", "archive", "encrypted" or "data"
    std::string type;  // the archived record's type

    Shown(nlohmann::ordered_json value, std::string form, std::string type = {})
        : value(std::move(value)), form(std::move(form)), type(std::move(type)) {}
};

Shown show(const std::shared_ptr<UserDefaults>& defaults, const std::string& key,
           const DefaultsValue& stored) {
    auto setting = knownSetting(defaults, key);
    if (setting && setting->form == SettingForm::Encrypted && stored.is_string()) {
        auto deviceID = storedDeviceID();
        auto ip =
            deviceID ? PropertyStore(defaults, [&] { return *deviceID; }).publicIP() : std::nullopt;
        if (ip)
            return {ip->toJson(), "encrypted"};
        return {fmt::format("<sealed, {} characters, not readable on this device>",
                            stored.get_ref<const std::string&>().size()),
                "encrypted"};
    }
    if (!stored.is_binary())
        return {stored, "value"};
    const auto& bytes = stored.get_binary();
    auto json = nlohmann::ordered_json::parse(bytes.begin(), bytes.end(), nullptr, false);
    if (!json.is_discarded() && json.is_object()) {
        if (json.size() == 1 && json.contains("wrapped"))
            return {json["wrapped"], "wrapped"};
        if (json.size() == 2 && json.contains("class") && json["class"].is_string() &&
            json.contains("root") && json["root"].is_object())
            return {json["root"], "archive", json["class"].get<std::string>()};
        return {json, "record"};
    }
    return {fmt::format("<{} bytes>", bytes.size()), "data"};
}

// Whether a value fits a wrapped setting's type: nil when it does, else why not.
using Checker = std::function<std::optional<std::string>(const DefaultsValue&)>;

template <class T>
Checker checker(const AppDefault<T>&) {
    return [](const DefaultsValue& value) -> std::optional<std::string> {
        try {
            (void)value.template get<T>();
            return std::nullopt;
        } catch (const std::exception& e) {
            return std::string(e.what());
        }
    };
}

Checker wrappedChecker(const std::shared_ptr<UserDefaults>& defaults, const std::string& property) {
    PropertyStore s(defaults, [] { return std::string(); });
    const std::map<std::string, Checker> checks{
        {"appsFlyerCampaign", checker(s.appsFlyerCampaign)},
        {"appsFlyerID", checker(s.appsFlyerID)},
        {"lastPing", checker(s.lastPing)},
        {"boostTimesWithoutDualChannelAlert", checker(s.boostTimesWithoutDualChannelAlert)},
        {"dualChannelAlertShowTimeStamp", checker(s.dualChannelAlertShowTimeStamp)},
        {"boostTimesWithoutCheckList", checker(s.boostTimesWithoutCheckList)},
        {"checkListAlertShowTimeStamp", checker(s.checkListAlertShowTimeStamp)},
        {"latestBoostValues", checker(s.latestBoostValues)},
        {"hasUpdatedDualChannel", checker(s.hasUpdatedDualChannel)},
        {"splashScreenConfigContainer", checker(s.splashScreenConfigContainer)},
        {"splashScreenTimesMap", checker(s.splashScreenTimesMap)},
        {"localHostsMap", checker(s.localHostsMap)},
        {"distinctID", checker(s.distinctID)},
        {"showCMPAlert", checker(s.showCMPAlert)},
        {"timeZoneOffset", checker(s.timeZoneOffset)},
    };
    auto found = checks.find(property);
    return found != checks.end() ? found->second : Checker();
}

// Infinity and NaN have no JSON form: stored, they would read back as null.
bool allFinite(const DefaultsValue& value) {
    if (value.is_number_float())
        return std::isfinite(value.get<double>());
    if (value.is_structured()) {
        for (const auto& element : value)
            if (!allFinite(element))
                return false;
    }
    return true;
}

// "nan", "-inf", "Infinity": texts that name no finite number.
bool namesNonFiniteNumber(std::string_view text) {
    if (!text.empty() && (text.front() == '+' || text.front() == '-'))
        text.remove_prefix(1);
    std::string lower;
    for (char c : text)
        lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return lower == "nan" || lower == "inf" || lower == "infinity";
}

DefaultsValue parseValue(const SettingsOptions& options) {
    const std::string& text = options.value;
    const std::string type = options.text ? "string" : options.type;
    DefaultsValue value;
    try {
        std::size_t used = 0;
        if (type == "int") {
            value = std::stoll(text, &used);
        } else if (type == "double") {
            value = std::stod(text, &used);
        } else if (type == "bool") {
            if (text == "true" || text == "1" || text == "yes" || text == "YES") {
                value = true;
            } else if (text == "false" || text == "0" || text == "no" || text == "NO") {
                value = false;
            } else {
                throw Failure("\"" + text + "\" is not a boolean (true/false, yes/no, 1/0)");
            }
            used = text.size();
        } else if (type == "json") {
            value = nlohmann::ordered_json::parse(text);
            used = text.size();
        } else if (type == "auto") {
            if (namesNonFiniteNumber(text))
                throw Failure("\"" + text +
                              "\" is not a finite number and cannot be stored as one; use --text "
                              "to store it as text");
            value = nlohmann::ordered_json::parse(text, nullptr, false);
            if (value.is_discarded() || value.is_null())
                value = text;
            used = text.size();
        } else {
            value = text;
            used = text.size();
        }
        if (used != text.size())
            throw Failure("\"" + text + "\" is not a whole " + type);
    } catch (const Failure&) {
        throw;
    } catch (const std::exception&) {
        throw Failure("\"" + text + "\" is not a valid " + type);
    }
    if (value.is_null())
        throw Failure("null is not a setting value; use delete");
    if (!allFinite(value))
        throw Failure("\"" + text + "\" is not a finite number and cannot be stored");
    return value;
}

// The kind a value is stored as, for `get --json`.
std::string storedKind(const DefaultsValue& value) {
    switch (value.type()) {
        case DefaultsValue::value_t::number_integer:
        case DefaultsValue::value_t::number_unsigned:
            return "integer";
        case DefaultsValue::value_t::number_float:
            return "floating";
        case DefaultsValue::value_t::boolean:
            return "boolean";
        case DefaultsValue::value_t::string:
            return "string";
        case DefaultsValue::value_t::binary:
            return "data";
        case DefaultsValue::value_t::array:
            return "array";
        case DefaultsValue::value_t::object:
            return "dictionary";
        default:
            return "null";
    }
}

DefaultsValue wrapped(const DefaultsValue& value) {
    return UserDefaults::makeData(nlohmann::ordered_json{{"wrapped", value}}.dump());
}

// The value for a wrapped setting of the stores, which must fit the setting's type. Without
// --type the text is read as JSON when it fits that way, else as a string.
DefaultsValue wrappedSettingValue(const std::shared_ptr<UserDefaults>& defaults,
                                  const SettingKey& setting, SettingsOptions options,
                                  bool typeGiven) {
    auto check = wrappedChecker(defaults, setting.property);
    if (!options.text && !typeGiven && namesNonFiniteNumber(options.value))
        throw Failure("\"" + options.value +
                      "\" is not a finite number and cannot be stored as one; use --text to "
                      "store it as text");
    std::vector<std::string> types{options.type};
    if (options.text)
        types = {"string"};
    else if (!typeGiven)
        types = {"auto", "string"};
    std::string why;
    for (const auto& type : types) {
        options.type = type;
        DefaultsValue value;
        try {
            value = parseValue(options);
        } catch (const Failure& failure) {
            why = failure.what();
            continue;
        }
        auto problem = check ? check(value) : std::nullopt;
        if (!problem)
            return wrapped(value);
        why = *problem;
    }
    throw Failure("\"" + options.value + "\" is not a valid " + setting.property + ": " + why);
}

void printEntry(const std::shared_ptr<UserDefaults>& defaults, const std::string& key,
                const DefaultsValue& stored, bool json) {
    auto shown = show(defaults, key, stored);
    auto setting = knownSetting(defaults, key);
    if (json) {
        nlohmann::ordered_json entry{{"key", key}};
        if (setting)
            entry["property"] = setting->property;
        entry["form"] = shown.form;
        entry["kind"] = storedKind(stored);
        if (!shown.type.empty())
            entry["class"] = shown.type;
        entry["value"] = shown.value;
        std::puts(entry.dump().c_str());
    } else {
        std::string form = shown.type.empty() ? shown.form : shown.form + ":" + shown.type;
        std::printf("%-48s %-8s %s\n", key.c_str(), form.c_str(), shown.value.dump().c_str());
    }
}

// Stores a record setting given as its JSON dictionary in the form its store keeps it, after
// checking that the dictionary makes a record of the setting's type.
void storeRecord(const std::shared_ptr<UserDefaults>& defaults, const SettingKey& setting,
                 const DefaultsValue& json) {
    auto decoded = [&]<class R>(std::shared_ptr<R> record, const char* type, const Error& error) {
        if (!record)
            throw Failure("\"" + json.dump() + "\" is not a valid " + type + ": " +
                          error.localizedDescription());
        return record;
    };
    Error error;
    auto as = [&]<class R>(const char* type) {
        return decoded(JSONAdapter::modelOfClass<R>(json, &error), type, error);
    };
    const std::string& name = setting.property;
    if (name == "publicIP") {
        auto ip = PublicIP::fromJson(json, &error);
        if (!ip)
            throw Failure("\"" + json.dump() +
                          "\" is not a valid PublicIP: " + error.localizedDescription());
        PropertyStore(defaults, [] {
            return DeviceInfoProvider::sharedProvider().deviceID();
        }).setPublicIP(ip);
        return;
    }
    PropertyStore store(defaults, [] { return std::string(); });
    ObjectPropertyStore objects(defaults);
    if (name == "apiHost") {
        store.apiHost.set(as.operator()<APIHost>("APIHost"));
    } else if (name == "currentSplashScreenConfig") {
        store.currentSplashScreenConfig.set(
            as.operator()<SplashScreenConfig>("SplashScreenConfig"));
    } else if (name == "startupConfig") {
        objects.setStartupConfig(as.operator()<StartupConfig>("StartupConfig"));
    } else if (name == "configAPIResponse") {
        objects.setConfigAPIResponse(
            as.operator()<ConfigAPIResponseObject>("ConfigAPIResponseObject"));
    } else if (name == "accConfig") {
        objects.setAccConfig(as.operator()<AccConfig>("AccConfig"));
    } else if (name == "lastAcceleratedGame") {
        objects.setLastAcceleratedGame(as.operator()<Game>("Game"));
    } else if (name == "openAppAlertInfo") {
        objects.setOpenAppAlertInfo(as.operator()<OpenAppAlertInfo>("OpenAppAlertInfo"));
    } else {
        throw Failure("\"" + setting.key + "\" holds a record the tool cannot write");
    }
    defaultsWriteQueue().sync([] {});
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
        set->add_option("--type", options->type,
                        "Value type (default: JSON when VALUE is JSON, such as 5, true or "
                        "{\"a\":1}, else text)")
            ->check(CLI::IsMember({"auto", "int", "double", "bool", "string", "json"}));
        set->add_flag("--text", options->text, "Store VALUE as text, even when it reads as JSON");
        set->add_flag("--wrap", options->wrap,
                      "Store as an AppDefault does ({\"wrapped\": value}); automatic for the "
                      "stores' wrapped settings, whose records are given as JSON");
        auto* remove = app.add_subcommand("delete", "Remove a key");
        remove->add_option("KEY", options->key)->required();
        for (auto* sub : {list, get, set, remove}) {
            sub->add_option("--suite", options->suite, "Suite name");
            sub->add_flag("--json", common.json, "Print data as JSON");
        }

        return [options, list, get, set, remove, &common]() -> int {
            auto defaults = openSuite(options->suite);
            if (list->parsed()) {
                std::optional<Error> error;
                auto read = defaults->readAll(error);
                if (!read)
                    throw Failure(error ? error->localizedDescription()
                                        : "cannot list " + defaults->path().string());
                auto& all = *read;
                if (common.json) {
                    nlohmann::ordered_json out = nlohmann::ordered_json::object();
                    for (auto& [key, stored] : all.items())
                        out[key] = show(defaults, key, stored).value;
                    std::puts(out.dump(2).c_str());
                } else {
                    for (auto& [key, stored] : all.items())
                        printEntry(defaults, key, stored, false);
                }
                return 0;
            }
            if (get->parsed()) {
                std::optional<Error> error;
                auto stored = defaults->objectForKey(options->key, error);
                if (error)
                    throw Failure(error->localizedDescription());
                if (!stored)
                    throw Failure("no value under \"" + options->key + "\"");
                printEntry(defaults, options->key, *stored, common.json);
                return 0;
            }
            if (set->parsed()) {
                // A setting of the stores is written in the form its store reads.
                auto setting = knownSetting(defaults, options->key);
                if (setting && (setting->form == SettingForm::Record ||
                                setting->form == SettingForm::Archive ||
                                setting->form == SettingForm::Encrypted)) {
                    options->type = "json";
                    options->text = false;
                    storeRecord(defaults, *setting, parseValue(*options));
                    return 0;
                }
                DefaultsValue value;
                if (setting && setting->form == SettingForm::Wrapped) {
                    value =
                        wrappedSettingValue(defaults, *setting, *options, set->count("--type") > 0);
                } else {
                    value = parseValue(*options);
                    if (options->wrap)
                        value = wrapped(value);
                }
                if (!defaults->setObject(value, options->key) || !defaults->synchronize())
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

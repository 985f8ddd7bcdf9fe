#pragma once

#include <string>

namespace lmkit {

/// How a setting sits in the suite.
enum class SettingForm {
    Wrapped,    // AppDefault: JSON data {"wrapped": value}
    Record,     // AppMTLDefault: a record's JSON dictionary as data
    Archive,    // a keyed archive of a record: {"class": type, "root": dictionary} as data
    Plain,      // the property-list value itself
    Encrypted,  // base64 text of JSON sealed with the device identifier
};

/// One setting of a store: its property name, its key and its stored form.
struct SettingKey {
    std::string property;
    std::string key;
    SettingForm form;
};

}  // namespace lmkit

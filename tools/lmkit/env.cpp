// lmkit env: the identities, the production host set and how this build was distributed.
#include <cstdio>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Command.hpp"
#include "lmkit/settings/AppBuildEnv.hpp"
#include "lmkit/settings/ENV.hpp"

namespace lmkit::tool {
namespace {

// A text as it can be printed: bytes that are not UTF-8 (a profile name read from a damaged or
// foreign file) become "\\xNN" instead of stopping the output.
std::string printable(const std::string& text) {
    std::string out;
    std::size_t i = 0;
    while (i < text.size()) {
        auto c = static_cast<unsigned char>(text[i]);
        std::size_t length = c < 0x80           ? 1
                             : (c >> 5) == 0x6  ? 2
                             : (c >> 4) == 0xe  ? 3
                             : (c >> 3) == 0x1e ? 4
                                                : 0;
        bool valid = length > 0 && i + length <= text.size();
        for (std::size_t k = 1; valid && k < length; ++k)
            valid = (static_cast<unsigned char>(text[i + k]) & 0xc0) == 0x80;
        if (valid && length > 1) {
            // Overlong forms and surrogates are not UTF-8 either.
            unsigned next = static_cast<unsigned char>(text[i + 1]);
            valid = !(c == 0xc0 || c == 0xc1 || (c == 0xe0 && next < 0xa0) ||
                      (c == 0xed && next >= 0xa0) || (c == 0xf0 && next < 0x90) ||
                      (c == 0xf4 && next >= 0x90) || c > 0xf4);
        }
        if (!valid) {
            out += fmt::format("\\x{:02x}", c);
            ++i;
            continue;
        }
        out.append(text, i, length);
        i += length;
    }
    return out;
}

nlohmann::ordered_json printableJson(const nlohmann::ordered_json& value) {
    if (value.is_string())
        return printable(value.get_ref<const std::string&>());
    if (value.is_object()) {
        nlohmann::ordered_json out = nlohmann::ordered_json::object();
        for (const auto& [key, member] : value.items())
            out[printable(key)] = printableJson(member);
        return out;
    }
    if (value.is_array()) {
        nlohmann::ordered_json out = nlohmann::ordered_json::array();
        for (const auto& element : value)
            out.push_back(printableJson(element));
        return out;
    }
    return value;
}

nlohmann::ordered_json describeEnvironment() {
    auto host = ENV::host();
    auto stored = ENVHost::apiHost();
    auto bundle = AppBuildEnv::bundleDirectory();
    auto optional = [](const std::optional<std::string>& text) {
        return text ? nlohmann::ordered_json(*text) : nlohmann::ordered_json();
    };
    return {
        {"identities",
         {{"appGroup", ENV::appGroup()},
          {"keychainGroup", ENV::keychainGroup()},
          {"packetTunnelBundleIdentifier", ENV::packetTunnelBundleIdentifier()},
          {"SAServerURL", ENV::SAServerURL()},
          {"cmpSDKID", ENV::cmpSDKID()},
          {"configuration", ENV::configurationSource()}}},
        {"host",
         {{"api", host.api()},
          {"log", host.log()},
          {"feedback", host.feedback()},
          {"isAudit", host.isAudit()},
          {"defaultAPI", ENVHost::defaultAPI()},
          {"auditAPI", ENVHost::auditAPI()},
          {"nosniDomain", ENVHost::nosniDomain()},
          {"storedAPIHost", stored
                                ? nlohmann::ordered_json{{"api", optional(stored->api)},
                                                         {"feedback", optional(stored->feedback)}}
                                : nlohmann::ordered_json()}}},
        {"build",
         {{"env", AppBuildEnv::envString()},
          {"bundleDirectory", bundle.string()},
          {"profileName", optional(AppBuildEnv::profileName(bundle))},
          {"receipt", AppBuildEnv::appStoreReceiptURL(bundle).string()}}},
    };
}

Command env("env", "Show the identities, the production hosts and the build environment",
            [](CLI::App& app, Common& common) {
                app.add_flag("--json", common.json, "Print data as JSON");
                return [&common]() -> int {
                    auto all = printableJson(describeEnvironment());
                    if (common.json) {
                        std::puts(all.dump(2).c_str());
                        return 0;
                    }
                    for (auto& [section, members] : all.items()) {
                        std::printf("%s\n", section.c_str());
                        for (auto& [name, value] : members.items())
                            std::printf("  %-30s %s\n", name.c_str(),
                                        value.is_string() ? value.get<std::string>().c_str()
                                        : value.is_null() ? "(absent)"
                                                          : value.dump().c_str());
                    }
                    return 0;
                };
            });

}  // namespace
}  // namespace lmkit::tool

// lmkit env: the identities, the production host set and how this build was distributed.
#include <cstdio>

#include <nlohmann/json.hpp>

#include "Command.hpp"
#include "lmkit/settings/AppBuildEnv.hpp"
#include "lmkit/settings/ENV.hpp"

namespace lmkit::tool {
namespace {

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
                    auto all = describeEnvironment();
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

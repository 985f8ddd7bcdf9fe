#include "settings/DeploymentSettings.hpp"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>

#include <nlohmann/json.hpp>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/foundation/UserDefaults.hpp"
#include "lmkit/platform/AppGroup.hpp"
#include "lmkit/settings/AppBuildEnv.hpp"

namespace lmkit::settings_detail {

DeploymentSettings builtInDeploymentSettings() {
    // This build talks to no real service: the hosts are under the reserved ".invalid" domain,
    // so nothing leaves the machine until a deployment file names real ones.
    DeploymentSettings s;
    s.appGroup = kAppGroupIdentifier;
    s.teamIdentifier = "LMKIT00000";
    s.bundleIdentifier = "com.lmkit.app";
    s.analyticsHost = "https://analytics.lmkit.invalid";
    s.analyticsProject = "default";
    s.cmpSDKID = "lmkit-cmp";
    s.defaultAPI = "api.lmkit.invalid";
    s.auditAPI = "audit-api.lmkit.invalid";
    s.feedbackHost = "feedback.lmkit.invalid";
    s.logHost = "log.lmkit.invalid";
    s.nosniDomain = "";
    s.keySeed = "lmkit-request-keys";
    return s;
}

DeploymentSettings loadDeploymentSettings(const std::filesystem::path& file, std::string& error) {
    DeploymentSettings settings = builtInDeploymentSettings();
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        error = "cannot read " + file.string();
        return settings;
    }
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    auto json = nlohmann::json::parse(text, nullptr, false);
    if (json.is_discarded() || !json.is_object()) {
        error = file.string() + " is not a JSON object";
        return settings;
    }
    const std::map<std::string, std::string DeploymentSettings::*> members{
        {"appGroup", &DeploymentSettings::appGroup},
        {"appGroupDirectory", &DeploymentSettings::appGroupDirectory},
        {"teamIdentifier", &DeploymentSettings::teamIdentifier},
        {"bundleIdentifier", &DeploymentSettings::bundleIdentifier},
        {"analyticsHost", &DeploymentSettings::analyticsHost},
        {"analyticsProject", &DeploymentSettings::analyticsProject},
        {"cmpSDKID", &DeploymentSettings::cmpSDKID},
        {"defaultAPI", &DeploymentSettings::defaultAPI},
        {"auditAPI", &DeploymentSettings::auditAPI},
        {"feedbackHost", &DeploymentSettings::feedbackHost},
        {"logHost", &DeploymentSettings::logHost},
        {"nosniDomain", &DeploymentSettings::nosniDomain},
        {"keySeed", &DeploymentSettings::keySeed},
    };
    std::string skipped;
    for (const auto& [name, value] : json.items()) {
        auto member = members.find(name);
        if (member == members.end() || !value.is_string()) {
            skipped += (skipped.empty() ? "" : ", ") + name;
            continue;
        }
        settings.*(member->second) = value.get<std::string>();
    }
    if (!skipped.empty())
        error = file.string() + ": skipped unknown or non-text members: " + skipped;
    settings.source = file.string();
    return settings;
}

const DeploymentSettings& deploymentSettings() {
    static const DeploymentSettings settings = [] {
        auto file = AppGroup::deploymentFile();
        if (file.empty())
            return builtInDeploymentSettings();
        std::string error;
        auto loaded = loadDeploymentSettings(file, error);
        if (!error.empty())
            log::error("[ENV] deployment settings: " + error);
        return loaded;
    }();
    return settings;
}

}  // namespace lmkit::settings_detail

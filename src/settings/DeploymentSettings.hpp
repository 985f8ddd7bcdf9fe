#pragma once

// The deployment settings behind ENV and ENVHost: identities, hosts and the seed of the request
// keys. One table of built-in values for this build; a deployment file replaces any of them.

#include <filesystem>
#include <optional>
#include <string>

namespace lmkit::settings_detail {

struct DeploymentSettings {
    std::string appGroup;
    std::string appGroupDirectory;  // the shared container; empty: see AppGroup
    std::string teamIdentifier;
    std::string bundleIdentifier;
    std::string analyticsHost;
    std::string analyticsProject;
    std::string cmpSDKID;
    std::string defaultAPI;
    std::string auditAPI;
    std::string feedbackHost;
    std::string logHost;
    std::string nosniDomain;
    std::string keySeed;  // the request keys are derived from it (see ENV.cpp)
    std::string source = "built-in";
};

/// The values of this build when no deployment file says otherwise.
DeploymentSettings builtInDeploymentSettings();

/// The built-in values with the members of the JSON object in `file` applied over them. A file
/// that cannot be read or parsed leaves every value built-in and sets `error`; a member that is
/// unknown or not a text is skipped and named in `error`.
DeploymentSettings loadDeploymentSettings(const std::filesystem::path& file, std::string& error);

/// The settings of this process, read once from AppGroup::deploymentFile() (LMKIT_ENVIRONMENT_FILE,
/// else "Environment.json" in the app bundle directory), else the built-in values. Problems are
/// logged.
const DeploymentSettings& deploymentSettings();

}  // namespace lmkit::settings_detail

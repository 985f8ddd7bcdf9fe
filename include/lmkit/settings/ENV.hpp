#pragma once

#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "lmkit/settings/APIHost.hpp"

namespace lmkit {

/// One complete set of service hosts and request keys. The production set follows the stored
/// API host record (see production()); any other set is made explicitly.
class ENVHost {
  public:
    /// initWithKey1:key2:api:log:feedback:
    ENVHost(std::string key1, std::string key2, std::string api, std::string log,
            std::string feedback);

    /// A set with the request keys, `api`, and the built-in log and feedback hosts; the stored
    /// API host record is not consulted.
    static ENVHost initWithProductionAPI(std::string api);

    /// The production set, evaluated on every call: the API and feedback hosts of the stored API
    /// host record when their texts are non-empty, else the built-in ones; the log host is always
    /// the built-in one (the service may move the API, never where logs go).
    static ENVHost production();

    static std::string defaultAPI();
    /// The host the app talks to while under store review.
    static std::string auditAPI();
    /// The API host record stored under "LMAPIHostKey", or nullptr.
    static std::shared_ptr<APIHost> apiHost();
    /// The key of the version-4 API, built once on first use.
    static std::string decryptedKeyOfV4API();
    /// The domain used when connecting without the server-name indication.
    static std::string nosniDomain();
    static void setNosniDomain(std::string domain);

    /// True when this set's API host is exactly the audit host.
    bool isAudit() const;

    const std::string& key1() const { return key1_; }
    const std::string& key2() const { return key2_; }
    const std::string& api() const { return api_; }
    const std::string& log() const { return log_; }
    const std::string& feedback() const { return feedback_; }

    /// The hosts for logs; the keys are left out.
    std::string description() const;
    /// The encoded form: {"key1", "key2", "api", "log", "feedback"}.
    nlohmann::ordered_json toJson() const;

    bool operator==(const ENVHost&) const = default;

  private:
    std::string key1_;
    std::string key2_;
    std::string api_;
    std::string log_;
    std::string feedback_;
};

/// The fixed identities every process of the kit shares. Their values are deployment settings:
/// built-in defaults for this build, replaced by the members of the deployment file (the file
/// named by LMKIT_ENVIRONMENT_FILE, else "Environment.json" in the app bundle directory) when
/// there is one. Read once, on first use.
class ENV {
  public:
    using Host = ENVHost;

    /// The app-group identifier: the suite that the settings stores share.
    static std::string appGroup();
    /// The team identifier prefix followed by the app's bundle identifier.
    static std::string keychainGroup();
    /// The app's bundle identifier followed by ".packettunnel".
    static std::string packetTunnelBundleIdentifier();
    /// The analytics collection endpoint: the analytics host, the path "/sa" and the query key
    /// "project" naming the analytics project.
    static std::string SAServerURL();
    /// The identifier of the consent-management component.
    static std::string cmpSDKID();
    /// The current host set (the production one).
    static ENVHost host();
    /// Where the deployment settings came from: the file read, or "built-in".
    static std::string configurationSource();
};

}  // namespace lmkit

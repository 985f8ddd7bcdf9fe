#include "lmkit/settings/ENV.hpp"

#include <mutex>
#include <optional>

#include "lmkit/foundation/Data.hpp"
#include "lmkit/foundation/DataDigest.hpp"
#include "lmkit/platform/AppGroup.hpp"
#include "lmkit/settings/PropertyStore.hpp"
#include "settings/DeploymentSettings.hpp"

namespace lmkit {

namespace {

using settings_detail::deploymentSettings;

// A request key is never written down in the build: it is derived from the deployment's key
// seed when first asked for, as the hex text of HMAC-SHA256(seed, role), 32 characters long.
constexpr std::size_t kKeyLength = 32;

std::string deriveKey(const std::string& role) {
    auto mac = digest::hmacSHA256DataWithKey(bytes::toData(role),
                                             bytes::toData(deploymentSettings().keySeed));
    return mac ? digest::hexString(*mac).substr(0, kKeyLength) : std::string();
}

const std::string& requestKey1() {
    static const std::string key = deriveKey("key1");
    return key;
}

const std::string& requestKey2() {
    static const std::string key = deriveKey("key2");
    return key;
}

std::mutex gNosniMutex;
std::optional<std::string> gNosniDomain;  // guarded by gNosniMutex; nil until set

}  // namespace

ENVHost::ENVHost(std::string key1, std::string key2, std::string api, std::string log,
                 std::string feedback)
    : key1_(std::move(key1)),
      key2_(std::move(key2)),
      api_(std::move(api)),
      log_(std::move(log)),
      feedback_(std::move(feedback)) {}

ENVHost ENVHost::initWithProductionAPI(std::string api) {
    const auto& settings = deploymentSettings();
    return ENVHost(requestKey1(), requestKey2(), std::move(api), settings.logHost,
                   settings.feedbackHost);
}

ENVHost ENVHost::production() {
    const auto& settings = deploymentSettings();
    auto stored = apiHost();
    auto pick = [&](const std::optional<std::string> APIHost::*member, const std::string& builtIn) {
        if (stored && (stored.get()->*member) && !(stored.get()->*member)->empty())
            return *(stored.get()->*member);
        return builtIn;
    };
    return ENVHost(requestKey1(), requestKey2(), pick(&APIHost::api, settings.defaultAPI),
                   settings.logHost, pick(&APIHost::feedback, settings.feedbackHost));
}

std::string ENVHost::defaultAPI() {
    return deploymentSettings().defaultAPI;
}

std::string ENVHost::auditAPI() {
    return deploymentSettings().auditAPI;
}

std::shared_ptr<APIHost> ENVHost::apiHost() {
    return PropertyStore::shared().apiHost.get();
}

std::string ENVHost::decryptedKeyOfV4API() {
    static const std::string key = deriveKey("v4");
    return key;
}

std::string ENVHost::nosniDomain() {
    std::lock_guard lock(gNosniMutex);
    return gNosniDomain ? *gNosniDomain : deploymentSettings().nosniDomain;
}

void ENVHost::setNosniDomain(std::string domain) {
    std::lock_guard lock(gNosniMutex);
    gNosniDomain = std::move(domain);
}

bool ENVHost::isAudit() const {
    return api_ == auditAPI();
}

std::string ENVHost::description() const {
    return "ENVHost(api: " + api_ + ", log: " + log_ + ", feedback: " + feedback_ + ")";
}

nlohmann::ordered_json ENVHost::toJson() const {
    return {
        {"key1", key1_}, {"key2", key2_}, {"api", api_}, {"log", log_}, {"feedback", feedback_}};
}

std::string ENV::appGroup() {
    return AppGroup::identifier();
}

std::string ENV::keychainGroup() {
    const auto& settings = deploymentSettings();
    return settings.teamIdentifier + "." + settings.bundleIdentifier;
}

std::string ENV::packetTunnelBundleIdentifier() {
    return deploymentSettings().bundleIdentifier + ".packettunnel";
}

std::string ENV::SAServerURL() {
    const auto& settings = deploymentSettings();
    return settings.analyticsHost + "/sa?project=" + settings.analyticsProject;
}

std::string ENV::cmpSDKID() {
    return deploymentSettings().cmpSDKID;
}

ENVHost ENV::host() {
    return ENVHost::production();
}

std::string ENV::configurationSource() {
    return deploymentSettings().source;
}

}  // namespace lmkit

#include "lmkit/settings/ENV.hpp"

#include <fstream>

#include <gtest/gtest.h>

#include "lmkit/platform/AppGroup.hpp"
#include "lmkit/settings/PropertyStore.hpp"
#include "settings/DeploymentSettings.hpp"
#include "support/AppGroupTest.hpp"

using namespace lmkit;
using lmkit::settings_detail::builtInDeploymentSettings;
using lmkit::settings_detail::loadDeploymentSettings;
using lmkit::testing::TempDir;
using lmkit::testing::waitForWrites;

namespace {

// The shared store is made once per process, so its directory lives as long.
class ENVTest : public ::testing::Test {
  protected:
    void SetUp() override {
        static TempDir dir;
        AppGroup::setContainerDirectoryForTesting(dir.path());
        PropertyStore::shared().apiHost.set(nullptr);
        waitForWrites();
    }
    void TearDown() override { AppGroup::setContainerDirectoryForTesting({}); }

    static void storeAPIHost(std::optional<std::string> api, std::optional<std::string> feedback) {
        auto host = std::make_shared<APIHost>();
        host->api = std::move(api);
        host->feedback = std::move(feedback);
        PropertyStore::shared().apiHost.set(host);
        waitForWrites();
    }
};

}  // namespace

TEST_F(ENVTest, ProductionFollowsTheStoredAPIHostButNeverMovesTheLogHost) {
    auto builtIn = ENVHost::production();
    EXPECT_EQ(builtIn.api(), ENVHost::defaultAPI());
    EXPECT_FALSE(builtIn.isAudit());
    const std::string logHost = builtIn.log();
    const std::string feedbackHost = builtIn.feedback();
    EXPECT_FALSE(logHost.empty());
    EXPECT_NE(logHost, feedbackHost);

    storeAPIHost("api.moved.example", "feedback.moved.example");
    auto moved = ENV::host();
    EXPECT_EQ(moved.api(), "api.moved.example");
    EXPECT_EQ(moved.feedback(), "feedback.moved.example");
    EXPECT_EQ(moved.log(), logHost);
    EXPECT_EQ(moved.key1(), builtIn.key1());

    // Empty or missing texts fall back member by member.
    storeAPIHost("", "feedback.moved.example");
    EXPECT_EQ(ENVHost::production().api(), ENVHost::defaultAPI());
    EXPECT_EQ(ENVHost::production().feedback(), "feedback.moved.example");
    storeAPIHost("api.moved.example", std::nullopt);
    EXPECT_EQ(ENVHost::production().feedback(), feedbackHost);

    // A set made for a given API host ignores the stored record.
    auto audit = ENVHost::initWithProductionAPI(ENVHost::auditAPI());
    EXPECT_TRUE(audit.isAudit());
    EXPECT_EQ(audit.feedback(), feedbackHost);
    EXPECT_EQ(audit.log(), logHost);
    EXPECT_FALSE(ENVHost::initWithProductionAPI(ENVHost::auditAPI() + ".").isAudit());

    auto json = moved.toJson();
    EXPECT_EQ(json["api"], "api.moved.example");
    EXPECT_EQ(json["log"], logHost);
    EXPECT_EQ(moved.description().find(moved.key1()), std::string::npos);
}

TEST_F(ENVTest, KeysAreBuiltOnceAndIdentitiesComeFromOneConfiguration) {
    auto host = ENVHost::production();
    EXPECT_EQ(host.key1().size(), 32u);
    EXPECT_NE(host.key1(), host.key2());
    EXPECT_NE(ENVHost::decryptedKeyOfV4API(), host.key1());
    EXPECT_EQ(ENVHost::decryptedKeyOfV4API(), ENVHost::decryptedKeyOfV4API());

    auto builtIn = builtInDeploymentSettings();
    EXPECT_EQ(ENV::appGroup(), builtIn.appGroup);
    EXPECT_EQ(ENV::appGroup(), kAppGroupIdentifier);
    EXPECT_EQ(ENV::keychainGroup(), builtIn.teamIdentifier + "." + builtIn.bundleIdentifier);
    EXPECT_EQ(ENV::packetTunnelBundleIdentifier(), builtIn.bundleIdentifier + ".packettunnel");
    EXPECT_EQ(ENV::SAServerURL(),
              builtIn.analyticsHost + "/sa?project=" + builtIn.analyticsProject);

    EXPECT_EQ(ENVHost::nosniDomain(), builtIn.nosniDomain);
    ENVHost::setNosniDomain("cdn.example");
    EXPECT_EQ(ENVHost::nosniDomain(), "cdn.example");
}

TEST(DeploymentSettings, AFileReplacesTheValuesItNamesAndReportsTheRest) {
    TempDir dir;
    auto file = dir.path() / "Environment.json";
    std::ofstream(file) << R"({"defaultAPI":"api.corp.example","bundleIdentifier":"com.corp.app",)"
                           R"("logHost":7,"colour":"blue"})";
    std::string error;
    auto settings = loadDeploymentSettings(file, error);
    EXPECT_EQ(settings.defaultAPI, "api.corp.example");
    EXPECT_EQ(settings.bundleIdentifier, "com.corp.app");
    EXPECT_EQ(settings.logHost, builtInDeploymentSettings().logHost);
    EXPECT_EQ(settings.auditAPI, builtInDeploymentSettings().auditAPI);
    EXPECT_EQ(settings.source, file.string());
    EXPECT_NE(error.find("logHost"), std::string::npos) << error;
    EXPECT_NE(error.find("colour"), std::string::npos) << error;

    std::ofstream(file) << R"({"defaultAPI":)";
    error.clear();
    settings = loadDeploymentSettings(file, error);
    EXPECT_EQ(settings.defaultAPI, builtInDeploymentSettings().defaultAPI);
    EXPECT_EQ(settings.source, "built-in");
    EXPECT_NE(error.find("not a JSON object"), std::string::npos) << error;

    error.clear();
    loadDeploymentSettings(dir.path() / "missing.json", error);
    EXPECT_NE(error.find("cannot read"), std::string::npos);
}

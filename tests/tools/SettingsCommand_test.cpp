#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "lmkit/foundation/UserDefaults.hpp"
#include "support/TestSupport.hpp"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

class SettingsCommandTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (std::string(LMKIT_TOOL_PATH).empty())
            GTEST_SKIP() << "the tool is not built";
        fs::create_directories(dir_.path() / "bundle");
    }
    // Runs the tool with its app group and bundle inside the test's own directory; standard
    // error is kept apart so that a failure can be checked to be one line.
    std::string run(const std::string& args, int* status, std::string* errors = nullptr) {
        auto errorFile = dir_.path() / "stderr.txt";
        std::string command = "LMKIT_LOG_DIR='" + (dir_.path() / "logs").string() +
                              "' LMKIT_APP_GROUP_DIR='" + (dir_.path() / "group").string() +
                              "' LMKIT_BUNDLE_DIR='" + (dir_.path() / "bundle").string() + "' '" +
                              LMKIT_TOOL_PATH + "' " + args + " 2>'" + errorFile.string() + "'";
        auto out = lmkit::testing::runCommand(command, status);
        if (errors) {
            std::ifstream in(errorFile);
            errors->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        }
        return out;
    }
    json get(const std::string& key) {
        int status = -1;
        auto out = run("settings get --json '" + key + "'", &status);
        EXPECT_EQ(status, 0) << out;
        return json::parse(out, nullptr, false);
    }
    void expectOneLineFailure(const std::string& args, const std::string& fragment) {
        int status = -1;
        std::string errors;
        auto out = run(args, &status, &errors);
        EXPECT_EQ(status, 1) << args;
        EXPECT_TRUE(out.empty()) << out;
        EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
        EXPECT_NE(errors.find(fragment), std::string::npos) << errors;
    }
    lmkit::testing::TempDir dir_;
};

}  // namespace

TEST_F(SettingsCommandTest, StoreSettingsAreWrittenAndShownInTheirStoredForms) {
    int status = -1;
    run("settings set LMLastPingKey 42.5", &status);
    ASSERT_EQ(status, 0);
    auto ping = get("LMLastPingKey");
    EXPECT_EQ(ping["property"], "lastPing");
    EXPECT_EQ(ping["form"], "wrapped");
    EXPECT_EQ(ping["value"], 42.5);

    run("settings set SensorsDistinctId 12345", &status);  // a text setting keeps the digits
    EXPECT_EQ(get("SensorsDistinctId")["value"], "12345");

    run(R"(settings set ACC_CONFIG '{"ping":300,"loss":100}')", &status);
    ASSERT_EQ(status, 0);
    auto archive = get("ACC_CONFIG");
    EXPECT_EQ(archive["form"], "archive");
    EXPECT_EQ(archive["class"], "AccConfig");
    EXPECT_EQ(archive["value"]["ping"], 300);

    run(R"(settings set LMCellularIPKey '{"ip":"203.0.113.7","region":"DE","isEU":true}')",
        &status);
    ASSERT_EQ(status, 0);
    auto ip = get("LMCellularIPKey");
    EXPECT_EQ(ip["form"], "encrypted");
    EXPECT_EQ(ip["value"]["ip"], "203.0.113.7");
    auto list = json::parse(run("settings list --json", &status));
    EXPECT_EQ(list["LMCellularIPKey"]["region"], "DE");
    EXPECT_EQ(list["ACC_CONFIG"]["loss"], 100);

    // A stored API host record moves the production API host, not the log host.
    auto before = json::parse(run("env --json", &status));
    ASSERT_EQ(status, 0);
    run(R"(settings set LMAPIHostKey '{"api":"api.moved.example"}')", &status);
    ASSERT_EQ(status, 0);
    auto after = json::parse(run("env --json", &status));
    EXPECT_EQ(after["host"]["api"], "api.moved.example");
    EXPECT_NE(before["host"]["api"], "api.moved.example");
    EXPECT_EQ(after["host"]["log"], before["host"]["log"]);
    EXPECT_EQ(after["identities"]["appGroup"], lmkit::kAppGroupIdentifier);
}

TEST_F(SettingsCommandTest, BadValuesUnknownKeysAndUnreadableStoresFailInOneLine) {
    int status = -1;
    run("settings set LMLastPingKey 7", &status);
    ASSERT_EQ(status, 0);
    expectOneLineFailure("settings set LMLastPingKey abc", "is not a valid lastPing");
    expectOneLineFailure("settings set LMLastPingKey 1.5 --type int", "is not a whole int");
    expectOneLineFailure("settings set LAST_ACCERLATED_GAME '[1]'", "is not a valid Game");
    expectOneLineFailure("settings set LMCellularIPKey '{\"ip\":\"1.2.3.4\"}'",
                         "is not a valid PublicIP");
    EXPECT_EQ(get("LMLastPingKey")["value"], 7);  // nothing was lost
    expectOneLineFailure("settings get NoSuchKey", "no value under \"NoSuchKey\"");

    std::ofstream(dir_.path() / "group" / "Preferences" /
                      (std::string(lmkit::kAppGroupIdentifier) + ".sqlite"),
                  std::ios::trunc)
        << "this is no database, only words that fill its first page" << std::string(600, '.');
    expectOneLineFailure("settings list", "cannot");
}

TEST_F(SettingsCommandTest, EnvShowsTheBuildEnvironmentOfTheBundle) {
    fs::create_directories(dir_.path() / "bundle" / "StoreKit");
    std::ofstream(dir_.path() / "bundle" / "StoreKit" / "sandboxReceipt") << "receipt";
    int status = -1;
    auto out = json::parse(run("env --json", &status));
    ASSERT_EQ(status, 0);
    EXPECT_EQ(out["build"]["env"], "testflight");
    EXPECT_EQ(out["build"]["bundleDirectory"], (dir_.path() / "bundle").string());
    EXPECT_TRUE(out["build"]["profileName"].is_null());
    auto text = run("env", &status);
    EXPECT_NE(text.find("testflight"), std::string::npos) << text;
}

#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "lmkit/foundation/UserDefaults.hpp"
#include "support/ToolCommandTest.hpp"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

class SettingsCommandTest : public lmkit::testing::ToolCommandTest {
  protected:
    void SetUp() override {
        ToolCommandTest::SetUp();
        fs::create_directories(dir_.path() / "bundle");
    }
    // Runs the tool with its bundle inside the test's own directory too; standard error is kept
    // apart so that a failure can be checked to be one line.
    std::string run(const std::string& args, int* status, std::string* errors = nullptr) {
        auto errorFile = dir_.path() / "stderr.txt";
        auto out =
            lmkit::testing::runCommand("LMKIT_BUNDLE_DIR='" + (dir_.path() / "bundle").string() +
                                           "' " + tool(args + " 2>'" + errorFile.string() + "'"),
                                       status);
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

    // A plain value is stored as JSON when it reads as JSON, as text otherwise or with --text.
    run("settings set LMOjectPropertyStoreBoostTimeKey 5", &status);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(get("LMOjectPropertyStoreBoostTimeKey")["kind"], "integer");
    run("settings set enableV4APIKey true", &status);
    EXPECT_EQ(get("enableV4APIKey")["kind"], "boolean");
    run(R"(settings set Custom '{"a":1}')", &status);
    EXPECT_EQ(get("Custom")["value"]["a"], 1);
    run("settings set Custom 5 --text", &status);
    EXPECT_EQ(get("Custom")["kind"], "string");
    run("settings set Custom words", &status);
    EXPECT_EQ(get("Custom")["value"], "words");

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
    expectOneLineFailure("settings set Custom nan", "is not a finite number");
    expectOneLineFailure("settings set Custom -- -Infinity", "is not a finite number");
    expectOneLineFailure("settings set LMLastPingKey inf", "is not a finite number");
    expectOneLineFailure("settings set Custom nan --type double", "is not a finite number");
    EXPECT_EQ(get("LMLastPingKey")["value"], 7);  // nothing was lost
    expectOneLineFailure("settings get NoSuchKey", "no value under \"NoSuchKey\"");

    std::ofstream(dir_.path() / "group" / "Preferences" /
                      (std::string(lmkit::kAppGroupIdentifier) + ".sqlite"),
                  std::ios::trunc)
        << "this is no database, only words that fill its first page" << std::string(600, '.');
    expectOneLineFailure("settings list", "cannot");
}

TEST_F(SettingsCommandTest, TheContainerIsPrivateAndAnEmptyDirectoryVariableIsAnError) {
    int status = -1;
    std::string errors;
    run("settings set Custom 1", &status);  // under the test's own umask
    auto group = dir_.path() / "group";
    fs::remove_all(group);
    const std::string inGroup =
        "umask 000; LMKIT_APP_GROUP_DIR='" + group.string() + "' '" + LMKIT_TOOL_PATH + "' ";
    lmkit::testing::runCommand(inGroup + "settings set Token secret", &status);
    ASSERT_EQ(status, 0);
    lmkit::testing::runCommand(inGroup + "channel send network-change", &status);
    ASSERT_EQ(status, 0);
    // Settings, messages and the channel's counter are the user's alone, whatever the umask.
    const auto privateFile = fs::perms::owner_read | fs::perms::owner_write;
    EXPECT_EQ(fs::status(group).permissions() & fs::perms::all, fs::perms::owner_all);
    EXPECT_EQ(fs::status(group / "Wormhole").permissions() & fs::perms::all, fs::perms::owner_all);
    auto database = group / "Preferences" / (std::string(lmkit::kAppGroupIdentifier) + ".sqlite");
    EXPECT_EQ(fs::status(database).permissions() & fs::perms::all, privateFile);
    int files = 0;
    for (const auto& entry : fs::directory_iterator(group / "Wormhole")) {
        EXPECT_EQ(entry.status().permissions() & fs::perms::all, privateFile) << entry.path();
        ++files;
    }
    EXPECT_EQ(files, 2);  // the message and the counter

    // The deployment file names the app group and its container for every store at once, ahead
    // of the environment variable.
    auto file = dir_.path() / "Environment.json";
    auto deployed = dir_.path() / "deployed";
    std::ofstream(file)
        << json{{"appGroup", "group.deploy.test"}, {"appGroupDirectory", deployed.string()}}.dump();
    auto withFile = "LMKIT_ENVIRONMENT_FILE='" + file.string() + "' LMKIT_APP_GROUP_DIR='" +
                    group.string() + "' '" + LMKIT_TOOL_PATH + "' ";
    lmkit::testing::runCommand(withFile + "settings set Custom 2", &status);
    ASSERT_EQ(status, 0);
    EXPECT_TRUE(fs::exists(deployed / "Preferences" / "group.deploy.test.sqlite"));
    auto env = json::parse(lmkit::testing::runCommand(withFile + "env --json", &status));
    EXPECT_EQ(env["identities"]["appGroup"], "group.deploy.test");

    auto out = lmkit::testing::runCommand(
        "LMKIT_APP_GROUP_DIR= '" + std::string(LMKIT_TOOL_PATH) + "' settings list 2>&1", &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
    EXPECT_NE(out.find("LMKIT_APP_GROUP_DIR is set but empty"), std::string::npos) << out;
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

    // A bundle path that is not UTF-8 is printed escaped, not fatal.
    auto odd = dir_.path() / "odd\xff";
    fs::create_directories(odd);
    auto escaped = lmkit::testing::runCommand(
        "LMKIT_APP_GROUP_DIR='" + (dir_.path() / "group").string() + "' LMKIT_BUNDLE_DIR='" +
            odd.string() + "' '" + LMKIT_TOOL_PATH + "' env --json",
        &status);
    ASSERT_EQ(status, 0) << escaped;
    EXPECT_NE(json::parse(escaped)["build"]["bundleDirectory"].get<std::string>().find("odd\\xff"),
              std::string::npos)
        << escaped;
}

#include "lmkit/foundation/AppDefault.hpp"

#include <map>
#include <vector>

#include <gtest/gtest.h>

#include "lmkit/foundation/AppMTLDefault.hpp"
#include "lmkit/foundation/KeyedArchiver.hpp"
#include "lmkit/foundation/UserDefault.hpp"
#include "support/AppGroupTest.hpp"

using namespace lmkit;
using lmkit::testing::waitForWrites;

namespace {

// Two small records standing in for the JSON-mapped service records.
struct Host {
    std::string name;
    int port = 0;

    static std::string_view typeName() { return "Host"; }
    nlohmann::ordered_json toJSONDictionary() const { return {{"name", name}, {"port", port}}; }
    static std::shared_ptr<Host> fromJSONDictionary(const nlohmann::ordered_json& json,
                                                    std::string& error) {
        if (!json.contains("name") || !json["name"].is_string()) {
            error = "Host needs a name";
            return nullptr;
        }
        return std::make_shared<Host>(Host{json["name"], json.value("port", 0)});
    }
};

struct Game {
    std::string gameID;
    static std::string_view typeName() { return "Game"; }
    nlohmann::ordered_json toJSONDictionary() const { return {{"gameID", gameID}}; }
    static std::shared_ptr<Game> fromJSONDictionary(const nlohmann::ordered_json& json,
                                                    std::string&) {
        return std::make_shared<Game>(Game{json.value("gameID", "")});
    }
};

std::string text(const std::optional<DefaultsData>& data) {
    return data ? std::string(data->begin(), data->end()) : "<none>";
}

using WrappersTest = lmkit::testing::AppGroupTest;

// The child of the exit test: queues many AppDefault writes into the container given in
// LMKIT_APPDEFAULT_EXIT_CHILD, then leaves through exit() as a return from main does. It runs
// as the test environment comes up, after every static of the kit is constructed.
class ExitChild : public ::testing::Environment {
  public:
    void SetUp() override {
        auto request = lmkit::testing::childRequest("LMKIT_APPDEFAULT_EXIT_CHILD");
        if (!request)
            return;
        AppGroup::setContainerDirectoryForTesting(request->at(0));
        for (int i = 0; i < 300; ++i)
            AppDefault<int>("LMExitKey" + std::to_string(i)).set(i);
        std::exit(0);
    }
};
[[maybe_unused]] ::testing::Environment* const kExitChild =
    ::testing::AddGlobalTestEnvironment(new ExitChild);

}  // namespace

TEST(AppDefaultExit, QueuedWritesAreOnDiskAfterANormalExit) {
    lmkit::testing::TempContainer dir;
    auto child = lmkit::testing::spawnSelf("LMKIT_APPDEFAULT_EXIT_CHILD", dir.path().string());
    ASSERT_GT(child, 0);
    ASSERT_EQ(lmkit::testing::waitExit(child), 0);
    auto defaults = UserDefaults::open(kAppGroupIdentifier);
    ASSERT_TRUE(defaults);
    for (int i = 0; i < 300; ++i)
        EXPECT_TRUE(defaults->dataForKey("LMExitKey" + std::to_string(i))) << i;
}

TEST_F(WrappersTest, AppDefaultStoresTheWrappedJSONAndNilRemoves) {
    AppDefault<long> count("LMBoostTimesWithoutCheckListKey");
    AppDefault<std::map<std::string, std::map<std::string, int>>> container(
        "LMSplashScreenConfigContainerKey");
    AppDefault<double> ping("LMLastPingKey");
    EXPECT_EQ(count.userDefaults()->path(),
              dir_.path() / "Preferences" / (std::string(kAppGroupIdentifier) + ".sqlite"));
    EXPECT_FALSE(count.get());

    count.set(5);
    container.set(std::map<std::string, std::map<std::string, int>>{{"a", {{"b", 2}}}});
    ping.set(12.5);
    waitForWrites();
    EXPECT_EQ(text(defaults_->dataForKey("LMBoostTimesWithoutCheckListKey")), R"({"wrapped":5})");
    EXPECT_EQ(text(defaults_->dataForKey("LMSplashScreenConfigContainerKey")),
              R"({"wrapped":{"a":{"b":2}}})");
    EXPECT_EQ(count.get(), 5);
    EXPECT_EQ(container.get()->at("a").at("b"), 2);
    EXPECT_EQ(ping.get(), 12.5);

    // Writes from one thread land in order on the one queue.
    for (long i = 0; i < 50; ++i)
        count.set(i);
    count.set(std::nullopt);
    waitForWrites();
    EXPECT_FALSE(defaults_->objectForKey("LMBoostTimesWithoutCheckListKey"));
    EXPECT_FALSE(count.get());

    AppDefault<std::string> withDefault("unset", std::string("fallback"));
    EXPECT_EQ(withDefault.get(), "fallback");
}

TEST_F(WrappersTest, AppDefaultUndecodableDataReadsAsDefaultAndLogs) {
    AppDefault<int> setting("LMLastPingKey", 7);
    defaults_->setObject("untouched", "neighbour");
    for (const char* stored : {R"({"other":5})", "[5]", R"({"wrapped":"five"})", R"({"wrap)"}) {
        defaults_->setObject(UserDefaults::makeData(std::string_view(stored)), "LMLastPingKey");
        log::Capture capture;
        EXPECT_EQ(setting.get(), 7) << stored;
        EXPECT_EQ(capture.count("[AppDefault] get value error: "), 1u) << stored;
        // Reading changed nothing.
        EXPECT_EQ(text(defaults_->dataForKey("LMLastPingKey")), stored);
    }
    EXPECT_EQ(defaults_->stringForKey("neighbour"), "untouched");
}

TEST_F(WrappersTest, AppDefaultUnencodableValueLogsAndKeepsTheOldOne) {
    AppDefault<std::string> setting("SensorsDistinctId");
    setting.set("first");
    waitForWrites();
    log::Capture capture;
    setting.set(std::string("\xff\xfe not UTF-8"));
    waitForWrites();
    EXPECT_EQ(capture.count("[AppDefault] set value error: "), 1u);
    EXPECT_EQ(setting.get(), "first");
}

TEST_F(WrappersTest, AppMTLDefaultStoresTheRecordDictionary) {
    AppMTLDefault<Host> apiHost("LMAPIHostKey");
    EXPECT_EQ(apiHost.get(), nullptr);
    apiHost.set(std::make_shared<Host>(Host{"api.example", 443}));
    waitForWrites();
    EXPECT_EQ(text(defaults_->dataForKey("LMAPIHostKey")), R"({"name":"api.example","port":443})");
    auto host = apiHost.get();
    ASSERT_TRUE(host);
    EXPECT_EQ(host->name, "api.example");
    EXPECT_EQ(host->port, 443);

    for (const char* stored : {"[1]", R"({"port":1})", R"({"name":"trunc)"}) {
        defaults_->setObject(UserDefaults::makeData(std::string_view(stored)), "LMAPIHostKey");
        log::Capture capture;
        EXPECT_EQ(apiHost.get(), nullptr) << stored;
        EXPECT_EQ(capture.count("[AppMTLDefault] get value error: "), 1u) << stored;
    }

    {
        log::Capture capture;
        apiHost.set(std::make_shared<Host>(Host{"\xc3", 1}));
        waitForWrites();
        EXPECT_EQ(capture.count("[AppMTLDefault] set value error: "), 1u);
    }
    EXPECT_EQ(text(defaults_->dataForKey("LMAPIHostKey")), R"({"name":"trunc)");
    apiHost.set(nullptr);
    waitForWrites();
    EXPECT_FALSE(defaults_->objectForKey("LMAPIHostKey"));
}

TEST_F(WrappersTest, UserDefaultReadsOnlyItsOwnType) {
    UserDefault<long> boostTime("LMOjectPropertyStoreBoostTimeKey", 0);
    UserDefault<bool> enableV4("enableV4APIKey", false);
    UserDefault<std::string> name("name", "none");
    UserDefault<double> ratio("ratio", -1);
    EXPECT_EQ(boostTime.get(), 0);
    boostTime = 30;  // synchronous: visible at once
    EXPECT_EQ(defaults_->objectForKey("LMOjectPropertyStoreBoostTimeKey"), 30);
    EXPECT_EQ(boostTime.get(), 30);
    enableV4 = true;
    EXPECT_TRUE(enableV4.get());

    defaults_->setObject("30", "LMOjectPropertyStoreBoostTimeKey");
    defaults_->setObject(1, "enableV4APIKey");
    defaults_->setObject(5, "name");
    defaults_->setObject(2, "ratio");
    EXPECT_EQ(boostTime.get(), 0);
    EXPECT_FALSE(enableV4.get());
    EXPECT_EQ(name.get(), "none");
    EXPECT_EQ(ratio.get(), 2.0);  // any number is a floating value
}

TEST(KeyedArchiver, RoundTripsAndRefusesWrongTypeOrDamagedData) {
    std::string error;
    auto data = keyed_archiver::archive(Host{"relay", 9999}, error);
    ASSERT_TRUE(data) << error;
    EXPECT_EQ(text(data), R"({"class":"Host","root":{"name":"relay","port":9999}})");
    auto host = keyed_archiver::unarchive<Host>(*data, error);
    ASSERT_TRUE(host);
    EXPECT_EQ(host->port, 9999);

    error.clear();
    EXPECT_FALSE(keyed_archiver::unarchive<Game>(*data, error));
    EXPECT_EQ(error, "the archive holds a Host, not a Game");

    DefaultsData truncated(data->begin(), data->begin() + data->size() / 2);
    error.clear();
    EXPECT_FALSE(keyed_archiver::unarchive<Host>(truncated, error));
    EXPECT_NE(error.find("not valid JSON"), std::string::npos) << error;

    const std::string noClass = R"({"root":{"name":"x"}})";
    error.clear();
    EXPECT_FALSE(
        keyed_archiver::unarchive<Host>(DefaultsData(noClass.begin(), noClass.end()), error));
    EXPECT_EQ(error, "the data is not a keyed archive");

    const std::string badRecord = R"({"class":"Host","root":{"port":1}})";
    error.clear();
    EXPECT_FALSE(
        keyed_archiver::unarchive<Host>(DefaultsData(badRecord.begin(), badRecord.end()), error));
    EXPECT_EQ(error, "Host needs a name");
}

#include "lmkit/settings/ObjectPropertyStore.hpp"

#include <gtest/gtest.h>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/models/AccNode.hpp"
#include "lmkit/platform/NotificationCenter.hpp"
#include "lmkit/settings/ENV.hpp"
#include "support/AppGroupTest.hpp"

using namespace lmkit;

namespace {

std::shared_ptr<Game> game(const char* gid) {
    auto record = std::make_shared<Game>();
    record->gid = gid;
    record->name = "Game " + std::string(gid);
    return record;
}

Json storedJSON(const std::shared_ptr<UserDefaults>& defaults, const std::string& key) {
    auto data = defaults->dataForKey(key);
    return data ? Json::parse(data->begin(), data->end(), nullptr, false) : Json();
}

// Counts the posts of each store notification on the default centre while it lives.
class Posts {
  public:
    Posts() {
        for (const char* name : {ObjectPropertyStore::kStartupConfigChangeNotification,
                                 ObjectPropertyStore::kConfigAPIResponseChangeNotification,
                                 ObjectPropertyStore::kDualChannelChangeNotification})
            tokens_.push_back(NotificationCenter::defaultCenter().addObserver(
                name, [this](const Notification& n) { seen_.push_back(n.name); }));
    }
    ~Posts() {
        for (auto token : tokens_)
            NotificationCenter::defaultCenter().removeObserver(token);
    }
    std::size_t count(const std::string& name) const {
        return static_cast<std::size_t>(std::count(seen_.begin(), seen_.end(), name));
    }
    std::size_t total() const { return seen_.size(); }

  private:
    std::vector<NotificationCenter::Token> tokens_;
    std::vector<std::string> seen_;
};

using ObjectPropertyStoreTest = lmkit::testing::AppGroupTest;

}  // namespace

TEST_F(ObjectPropertyStoreTest, RecordsAreArchivedUnderTheirKeysAndKeptInMemory) {
    ObjectPropertyStore store(defaults_);
    EXPECT_FALSE(store.lastAcceleratedGame());
    auto config = std::make_shared<AccConfig>();
    config->ping = Number(300);
    store.setAccConfig(config);
    store.setLastAcceleratedGame(game("1001"));
    store.setStartupConfig(std::make_shared<StartupConfig>());
    store.setConfigAPIResponse(std::make_shared<ConfigAPIResponseObject>());

    EXPECT_EQ(storedJSON(defaults_, "ACC_CONFIG")["class"], "AccConfig");
    EXPECT_EQ(storedJSON(defaults_, "ACC_CONFIG")["root"]["ping"], 300);
    EXPECT_EQ(storedJSON(defaults_, "LAST_ACCERLATED_GAME")["class"], "Game");
    EXPECT_EQ(storedJSON(defaults_, "LAST_ACCERLATED_GAME")["root"]["gid"], "1001");
    EXPECT_EQ(storedJSON(defaults_, "ObjectPropertyStoreStartUpConfigKey")["class"],
              "StartupConfig");
    EXPECT_EQ(storedJSON(defaults_, "ObjectPropertyStoreConfigAPIResponseKey")["class"],
              "ConfigAPIResponseObject");

    // A fresh store reads the archives; one that already holds a value answers from memory.
    ObjectPropertyStore reader(defaults_);
    EXPECT_EQ(reader.lastAcceleratedGame()->gid, "1001");
    EXPECT_EQ(reader.accConfig()->ping, Number(300));
    store.setLastAcceleratedGame(game("2002"));
    EXPECT_EQ(reader.lastAcceleratedGame()->gid, "1001");
    EXPECT_EQ(ObjectPropertyStore(defaults_).lastAcceleratedGame()->gid, "2002");

    store.setLastAcceleratedGame(nullptr);
    EXPECT_FALSE(defaults_->objectForKey("LAST_ACCERLATED_GAME"));
    EXPECT_FALSE(store.lastAcceleratedGame());
}

TEST_F(ObjectPropertyStoreTest, PlainSettingsKeepTheirKeysAndKinds) {
    ObjectPropertyStore store(defaults_);
    EXPECT_EQ(store.vpnStartStep(), 0);
    EXPECT_FALSE(store.shouldAutoLaunchGame());
    EXPECT_TRUE(store.mergedZoneAcceleratedGameMap().empty());

    store.setLastAcceleratingAccNodeId("node-9");
    store.setSessionID("s");
    store.setJwtID("j");
    store.setCellularCompensation(Number(1.5));
    store.setNetworkUnstableEnableDualChannelDialogTimes(2);
    store.setVpnStartStep(3);
    store.setAutoLaunchGame(true);
    store.setAgreeUserAgreement(true);
    store.setHasShowAlertForUsingMobileData(true);
    store.setTimestampAtLastCheckNewMessage(1700000000);
    store.setShowStarRateNextTimeInterval(Number(86400));
    store.setLastVisitViewControllerClass("HomeViewController");
    store.setLastUserIdForcedOffline("u1");
    store.setAppsFlyerMediaSource("organic");
    store.setMergedZoneAcceleratedGameMap(Json{{"1001", "1002"}});
    store.setNoReminderDictionary(Json{{"popup-1", true}});
    store.setLeaderboardsJSON(R"({"top":[]})", "weekly");
    store.setSpeedTestTasksIDs({"t1", "t2"});
    store.setSystemAlertNoMoreReminder("1001", "vpn-alert", true);
    store.setSystemAlertNoMoreReminder("1001", "wifi-alert", false);

    const std::vector<std::pair<std::string, DefaultsValue>> expected{
        {"ObjectPropertyStoreLastAcceleratingAccNodeIdKey", "node-9"},
        {"SESSION_ID", "s"},
        {"JWT_ID", "j"},
        {"ObjectPropertyStoreCellularCompensationKey", 1.5},
        {"ObjectPropertyStoreNetworkUnstableEnableDualChannelDialogTimesKey", 2},
        {"ObjectPropertyStoreVPNStartStepKey", 3},
        {"ObjectPropertyStoreAutoLaunchGameKey", true},
        {"ObjectPropertyStoreAgreeUserAgreementKey", true},
        {"HAS_SHOW_ALERT_FOR_USING_MOBILE_DATA", true},
        {"ObjectPropertyStoreTimestampAtLastCheckNewMessageKey", 1700000000},
        {"ObjectPropertyShowStarRateNextTimeIntervalKey", 86400},
        {"ObjectPropertyStoreLastVisitViewControllerClass", "HomeViewController"},
        {"ObjectPropertyStoreLastUserIdForcedOfflineKey", "u1"},
        {"ObjectPropertyStoreAppsFlyerMediaSourceKey", "organic"},
        {"ObjectPropertyMergedZoneAcceleratedGameMapKey", Json{{"1001", "1002"}}},
        {"GeneralPopupNoReminderKey", Json{{"popup-1", true}}},
        {"ObjectPropertyStoreLeaderboardsJSONKey_weekly", R"({"top":[]})"},
        {"ObjectPropertyStoreSpeedTestTasksIDsKey", Json::array({"t1", "t2"})},
        {"ObjectPropertyStoreSystemAlertNoMoreReminderKey",
         Json{{"1001", {{"vpn-alert", true}, {"wifi-alert", false}}}}},
    };
    for (const auto& [key, value] : expected)
        EXPECT_EQ(defaults_->objectForKey(key), value) << key;
    EXPECT_EQ(defaults_->dictionaryRepresentation().size(), expected.size());

    EXPECT_EQ(store.cellularCompensation(), Number(1.5));
    EXPECT_EQ(store.cellularCompensation()->kind(), Number::Kind::Floating);
    EXPECT_EQ(store.vpnStartStep(), 3);
    EXPECT_TRUE(store.shouldAutoLaunchGame());
    EXPECT_EQ(store.leaderboardsJSON("weekly"), R"({"top":[]})");
    EXPECT_FALSE(store.leaderboardsJSON("daily"));
    EXPECT_EQ(store.speedTestTasksIDs(), (std::vector<std::string>{"t1", "t2"}));
    EXPECT_TRUE(store.systemAlertNoMoreReminder("1001", "vpn-alert"));
    EXPECT_FALSE(store.systemAlertNoMoreReminder("1001", "wifi-alert"));
    EXPECT_FALSE(store.systemAlertNoMoreReminder("2002", "vpn-alert"));

    store.setSessionID(std::nullopt);
    EXPECT_FALSE(defaults_->objectForKey("SESSION_ID"));
}

TEST_F(ObjectPropertyStoreTest, SettersPostTheirNotificationsAfterStoring) {
    ObjectPropertyStore store(defaults_);
    Posts posts;
    // An observer reading the store back sees the new value: the post comes after the write.
    std::optional<Number> seenDualChannel;
    auto token = NotificationCenter::defaultCenter().addObserver(
        ObjectPropertyStore::kDualChannelChangeNotification, [&](const Notification&) {
            seenDualChannel = ObjectPropertyStore(defaults_).dualChannel();
        });
    store.setDualChannel(Number(1));
    NotificationCenter::defaultCenter().removeObserver(token);
    EXPECT_EQ(seenDualChannel, Number(1));
    EXPECT_EQ(defaults_->objectForKey("ObjectPropertyStoreDualChannelKey_V1"), 1);

    store.setStartupConfig(std::make_shared<StartupConfig>());
    store.setStartupConfig(nullptr);  // removes the key and still posts
    EXPECT_FALSE(defaults_->objectForKey("ObjectPropertyStoreStartUpConfigKey"));
    store.setConfigAPIResponse(std::make_shared<ConfigAPIResponseObject>());
    store.setAccConfig(std::make_shared<AccConfig>());  // has no notification
    store.setLastAcceleratedGame(game("1"));

    EXPECT_EQ(posts.count(ObjectPropertyStore::kDualChannelChangeNotification), 1u);
    EXPECT_EQ(posts.count(ObjectPropertyStore::kStartupConfigChangeNotification), 2u);
    EXPECT_EQ(posts.count(ObjectPropertyStore::kConfigAPIResponseChangeNotification), 1u);
    EXPECT_EQ(posts.total(), 4u);

    // The dual-channel value is read when a store is made.
    EXPECT_EQ(ObjectPropertyStore(defaults_).dualChannel(), Number(1));
}

TEST_F(ObjectPropertyStoreTest, OpenAppAlertInfoRefusesMissingPartsAndDamagedArchives) {
    ObjectPropertyStore store(defaults_);
    auto shownAt = std::chrono::system_clock::time_point(std::chrono::seconds(1700000000));
    {
        log::Capture capture;
        store.setOpenAppAlertInfo(std::nullopt, shownAt, 1, 1);
        store.setOpenAppAlertInfo(std::string("dialog-1"), std::nullopt, 1, 1);
        EXPECT_EQ(capture.count("dialogID or date info is nil"), 2u);
    }
    EXPECT_FALSE(defaults_->objectForKey("ObjectPropertyOpenAppAlertInfoKey"));

    store.setOpenAppAlertInfo(std::string("dialog-1"), shownAt, 2, 5);
    auto archived = storedJSON(defaults_, "ObjectPropertyOpenAppAlertInfoKey");
    EXPECT_EQ(archived["class"], "OpenAppAlertInfo");
    EXPECT_EQ(archived["root"]["dialogID"], "dialog-1");
    EXPECT_EQ(archived["root"]["date"], 1700000000.0);
    auto info = ObjectPropertyStore(defaults_).openAppAlertInfo();
    ASSERT_TRUE(info);
    EXPECT_EQ(info->todayCount, 2);
    EXPECT_EQ(info->count, 5);

    // A truncated archive, an archive of another record, and a value that is no data at all:
    // each reads as nil with the fail line, and nothing in the suite changes.
    auto whole = *defaults_->dataForKey("ObjectPropertyOpenAppAlertInfoKey");
    std::string error;
    auto gameArchive = *keyed_archiver::archive(*game("7"), error);
    defaults_->setObject("untouched", "neighbour");
    const std::vector<DefaultsValue> damaged{
        UserDefaults::makeData(DefaultsData(whole.begin(), whole.begin() + whole.size() / 2)),
        UserDefaults::makeData(gameArchive),
        DefaultsValue("dialog-1"),
    };
    for (const auto& stored : damaged) {
        defaults_->setObject(stored, "ObjectPropertyOpenAppAlertInfoKey");
        auto before = defaults_->dictionaryRepresentation();
        log::Capture capture;
        EXPECT_FALSE(ObjectPropertyStore(defaults_).openAppAlertInfo()) << stored.dump();
        EXPECT_EQ(capture.count("get openAppAlertInfo fail error: "), 1u) << stored.dump();
        EXPECT_EQ(capture.texts().size(), 1u);
        EXPECT_EQ(defaults_->dictionaryRepresentation(), before);
    }
    defaults_->setObject(UserDefaults::makeData(gameArchive), "LAST_ACCERLATED_GAME");
    EXPECT_EQ(ObjectPropertyStore(defaults_).lastAcceleratedGame()->gid, "7");
}

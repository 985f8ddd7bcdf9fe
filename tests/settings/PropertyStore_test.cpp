#include "lmkit/settings/PropertyStore.hpp"

#include <set>

#include <gtest/gtest.h>

#include "lmkit/foundation/DataCrypto.hpp"
#include "lmkit/foundation/Log.hpp"
#include "support/AppGroupTest.hpp"

using namespace lmkit;
using lmkit::testing::waitForWrites;

namespace {

constexpr const char* kDeviceID = "6F1C2D3E-0000-4ABC-8DEF-123456789ABC";

std::string storedText(const std::shared_ptr<UserDefaults>& defaults, const std::string& key) {
    auto data = defaults->dataForKey(key);
    return data ? std::string(data->begin(), data->end()) : "<none>";
}

class PropertyStoreTest : public lmkit::testing::AppGroupTest {
  protected:
    std::unique_ptr<PropertyStore> store_ =
        std::make_unique<PropertyStore>(defaults_, [] { return kDeviceID; });
};

}  // namespace

TEST_F(PropertyStoreTest, WrappedSettingsLandUnderTheirKeysInTheirStoredForms) {
    auto& s = *store_;
    // Nothing written yet: wrapped settings are nil, plain ones zero.
    EXPECT_FALSE(s.lastPing.get());
    EXPECT_FALSE(s.apiHost.get());
    EXPECT_FALSE(s.latestBoostValues.get());
    EXPECT_EQ(s.boostTime.get(), 0);
    EXPECT_FALSE(s.enableV4API.get());

    auto host = std::make_shared<APIHost>();
    host->api = "api.moved.example";
    s.apiHost.set(host);
    s.appsFlyerCampaign.set("spring");
    s.appsFlyerID.set("af-1");
    s.lastPing.set(42.5);
    s.boostTimesWithoutDualChannelAlert.set(3);
    s.dualChannelAlertShowTimeStamp.set(1700000000);
    s.boostTimesWithoutCheckList.set(4);
    s.checkListAlertShowTimeStamp.set(1700000001);
    s.latestBoostValues.set(std::vector<LatestBoostValue>{
        LatestBoostValue::value("g1", LatestBoostValue::NetworkType::wifi, 31.5)});
    s.hasUpdatedDualChannel.set(true);
    s.splashScreenConfigContainer.set(
        std::map<std::string, std::map<std::string, long>>{{"s1", {{"2024-01-01", 2}}}});
    auto splash = std::make_shared<SplashScreenConfig>();
    splash->splashID = "s1";
    s.currentSplashScreenConfig.set(splash);
    s.splashScreenTimesMap.set(std::map<std::string, long>{{"s1", 5}});
    s.localHostsMap.set(std::map<std::string, std::string>{{"api.example", "10.0.0.1"}});
    s.distinctID.set("d-1");
    s.showCMPAlert.set(false);
    s.timeZoneOffset.set("+08:00");
    s.boostTime.set(120);
    s.registerDeviceToken.set(true);
    s.autoSelectSurvey.set(true);
    s.autoSelectBoostTime.set(7);
    s.enableV4API.set(true);
    waitForWrites();

    const std::vector<std::pair<std::string, std::string>> wrapped{
        {"AppsFlyerCampaignKey", R"({"wrapped":"spring"})"},
        {"LMAppsFlyerIDKey", R"({"wrapped":"af-1"})"},
        {"LMLastPingKey", R"({"wrapped":42.5})"},
        {"LMBoostTimesWithoutDualChannelAlertKey", R"({"wrapped":3})"},
        {"LMDualChannelAlertShowTimeStampKey", R"({"wrapped":1700000000})"},
        {"LMBoostTimesWithoutCheckListKey", R"({"wrapped":4})"},
        {"LMCheckListAlertShowTimeStampKey", R"({"wrapped":1700000001})"},
        {"LMLatestBoostValueKey", R"({"wrapped":[{"gameID":"g1","networkType":1,"ping":31.5}]})"},
        {"LMHasUpdatedDualChannelKey", R"({"wrapped":true})"},
        {"LMSplashScreenConfigContainerKey", R"({"wrapped":{"s1":{"2024-01-01":2}}})"},
        {"LMSplashScreenTimesMapKey", R"({"wrapped":{"s1":5}})"},
        {"LMLocalHostsMapKey", R"({"wrapped":{"api.example":"10.0.0.1"}})"},
        {"SensorsDistinctId", R"({"wrapped":"d-1"})"},
        {"LMShowCMPAlert", R"({"wrapped":false})"},
        {"LMSensorsTimeZoneOffsetKey", R"({"wrapped":"+08:00"})"},
    };
    for (const auto& [key, text] : wrapped)
        EXPECT_EQ(storedText(defaults_, key), text) << key;
    // Records are their bare JSON dictionary, not an archive.
    EXPECT_EQ(Json::parse(storedText(defaults_, "LMAPIHostKey")),
              Json::parse(R"({"api":"api.moved.example","feedback":null})"));
    EXPECT_EQ(Json::parse(storedText(defaults_, "LMCurrentSplashScreenConfigKey"))["id"], "s1");
    // Plain settings are the values themselves, under the keys spelt "Oject".
    EXPECT_EQ(defaults_->objectForKey("LMOjectPropertyStoreBoostTimeKey"), 120);
    EXPECT_EQ(defaults_->objectForKey("LMOjectPropertyStoreRegisterDeviceTokenKey"), true);
    EXPECT_EQ(defaults_->objectForKey("LMOjectPropertyStoreAutoSelectSurveyKey"), true);
    EXPECT_EQ(defaults_->objectForKey("LMOjectPropertyStoreAutoSelectBoostTimeKey"), 7);
    EXPECT_EQ(defaults_->objectForKey("enableV4APIKey"), true);
    EXPECT_EQ(defaults_->dictionaryRepresentation().size(), wrapped.size() + 7);

    // And they read back through a second store on the same suite.
    PropertyStore other(defaults_, [] { return kDeviceID; });
    EXPECT_EQ(other.apiHost.get()->api, "api.moved.example");
    EXPECT_EQ(other.lastPing.get(), 42.5);
    EXPECT_EQ(other.latestBoostValues.get()->at(0).networkType,
              LatestBoostValue::NetworkType::wifi);
    EXPECT_EQ(other.splashScreenConfigContainer.get()->at("s1").at("2024-01-01"), 2);
    EXPECT_EQ(other.boostTime.get(), 120);
    EXPECT_TRUE(other.autoSelectSurvey.get());

    // Plain settings read like the defaults' accessors: texts and numbers written by another
    // program convert instead of reading as 0 or false.
    defaults_->setObject("5", "LMOjectPropertyStoreBoostTimeKey");
    defaults_->setObject("YES", "LMOjectPropertyStoreRegisterDeviceTokenKey");
    defaults_->setObject(2.0, "enableV4APIKey");
    defaults_->setObject("0", "LMOjectPropertyStoreAutoSelectSurveyKey");
    EXPECT_EQ(other.boostTime.get(), 5);
    EXPECT_TRUE(other.registerDeviceToken.get());
    EXPECT_TRUE(other.enableV4API.get());
    EXPECT_FALSE(other.autoSelectSurvey.get());

    // nil removes the key.
    s.apiHost.set(nullptr);
    waitForWrites();
    EXPECT_FALSE(defaults_->objectForKey("LMAPIHostKey"));
}

TEST_F(PropertyStoreTest, LatestBoostValuesFilterAndUnknownNetworkTypesReadAsTheDefault) {
    using Type = LatestBoostValue::NetworkType;
    defaults_->setObject(
        UserDefaults::makeData(std::string_view(
            R"({"wrapped":[{"gameID":"g1","networkType":4,"ping":50},)"
            R"({"gameID":"g1","networkType":9,"ping":60},{"gameID":"g1","networkType":4,"ping":0},)"
            R"({"gameID":"g2","networkType":4,"ping":70}]})")),
        "LMLatestBoostValueKey");
    auto all = store_->latestBoostValues.get();
    ASSERT_TRUE(all);
    EXPECT_EQ(all->at(1).networkType, Type::unknown);
    auto found = store_->getLatestBoostValues("g1", Type::cellular4G);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].ping, 50);
    EXPECT_EQ(store_->getLatestBoostValues("g1", Type::unknown).size(), 1u);
    EXPECT_TRUE(store_->getLatestBoostValues("g3", Type::cellular4G).empty());
}

TEST_F(PropertyStoreTest, PublicIPIsStoredEncryptedWithTheDeviceIdentifier) {
    EXPECT_FALSE(store_->publicIP());
    store_->setPublicIP(PublicIP("203.0.113.7", "DE", true));

    // At rest it is base64 text of the JSON sealed with the device identifier, not the address.
    auto stored = defaults_->stringForKey("LMCellularIPKey");
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->find("203.0.113.7"), std::string::npos);
    auto plain = crypto::decrypted(bytes::toData(*stored), kDeviceID);
    ASSERT_TRUE(plain);
    auto json = Json::parse(plain->begin(), plain->end());
    EXPECT_EQ(json["ip"], "203.0.113.7");
    EXPECT_EQ(json["isEU"], true);
    EXPECT_EQ(store_->publicIP(), PublicIP("203.0.113.7", "DE", true));

    // The apiHostIP lives in memory only.
    store_->setApiHostIP("198.51.100.1");
    EXPECT_EQ(store_->apiHostIP(), "198.51.100.1");

    // Another device cannot read it; damage reads as nil too; neither touches the stored text.
    PropertyStore elsewhere(defaults_, [] { return "ANOTHER-DEVICE"; });
    {
        log::Capture capture;
        EXPECT_FALSE(elsewhere.publicIP());
        EXPECT_EQ(capture.count("[PropertyStore] get publicIP error: "), 1u);
    }
    EXPECT_EQ(defaults_->stringForKey("LMCellularIPKey"), stored);
    auto sealed = crypto::encrypted(bytes::toData(R"({"ip":"1.2.3.4"})"), kDeviceID);
    defaults_->setObject(*bytes::UTF8String(*sealed), "LMCellularIPKey");
    {
        log::Capture capture;
        EXPECT_FALSE(store_->publicIP());  // decrypts, but lacks region and isEU
        EXPECT_EQ(capture.count("[PropertyStore] get publicIP error: "), 1u);
    }
    defaults_->setObject("not base64!", "LMCellularIPKey");
    EXPECT_FALSE(store_->publicIP());

    store_->setPublicIP(std::nullopt);
    EXPECT_FALSE(defaults_->objectForKey("LMCellularIPKey"));
}

TEST_F(PropertyStoreTest, KeysListEverySettingOnce) {
    auto keys = store_->keys();
    std::set<std::string> distinct;
    for (const auto& setting : keys)
        distinct.insert(setting.key);
    EXPECT_EQ(distinct.size(), keys.size());
    EXPECT_EQ(keys.size(), 23u);
    EXPECT_TRUE(distinct.count("LMOjectPropertyStoreAutoSelectBoostTimeKey"));
    EXPECT_TRUE(distinct.count("LMCellularIPKey"));
}

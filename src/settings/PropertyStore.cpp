#include "lmkit/settings/PropertyStore.hpp"

#include "lmkit/foundation/DataCrypto.hpp"
#include "lmkit/foundation/Log.hpp"
#include "lmkit/settings/DeviceInfoProvider.hpp"
#include "lmkit/settings/ENV.hpp"

namespace lmkit {

namespace {
constexpr const char* kLogTag = "[PropertyStore] ";
}  // namespace

PropertyStore& PropertyStore::shared() {
    static PropertyStore* store = new PropertyStore(UserDefaults::suite(ENV::appGroup()), [] {
        return DeviceInfoProvider::sharedProvider().deviceID();
    });
    return *store;
}

PropertyStore::PropertyStore(std::shared_ptr<UserDefaults> defaults,
                             std::function<std::string()> deviceID)
    : apiHost("LMAPIHostKey", nullptr, defaults),
      appsFlyerCampaign("AppsFlyerCampaignKey", std::nullopt, defaults),
      appsFlyerID("LMAppsFlyerIDKey", std::nullopt, defaults),
      lastPing("LMLastPingKey", std::nullopt, defaults),
      boostTimesWithoutDualChannelAlert("LMBoostTimesWithoutDualChannelAlertKey", std::nullopt,
                                        defaults),
      dualChannelAlertShowTimeStamp("LMDualChannelAlertShowTimeStampKey", std::nullopt, defaults),
      boostTimesWithoutCheckList("LMBoostTimesWithoutCheckListKey", std::nullopt, defaults),
      checkListAlertShowTimeStamp("LMCheckListAlertShowTimeStampKey", std::nullopt, defaults),
      latestBoostValues("LMLatestBoostValueKey", std::nullopt, defaults),
      hasUpdatedDualChannel("LMHasUpdatedDualChannelKey", std::nullopt, defaults),
      splashScreenConfigContainer("LMSplashScreenConfigContainerKey", std::nullopt, defaults),
      currentSplashScreenConfig("LMCurrentSplashScreenConfigKey", nullptr, defaults),
      splashScreenTimesMap("LMSplashScreenTimesMapKey", std::nullopt, defaults),
      localHostsMap("LMLocalHostsMapKey", std::nullopt, defaults),
      distinctID("SensorsDistinctId", std::nullopt, defaults),
      showCMPAlert("LMShowCMPAlert", std::nullopt, defaults),
      timeZoneOffset("LMSensorsTimeZoneOffsetKey", std::nullopt, defaults),
      boostTime("LMOjectPropertyStoreBoostTimeKey", defaults),
      registerDeviceToken("LMOjectPropertyStoreRegisterDeviceTokenKey", defaults),
      autoSelectSurvey("LMOjectPropertyStoreAutoSelectSurveyKey", defaults),
      autoSelectBoostTime("LMOjectPropertyStoreAutoSelectBoostTimeKey", defaults),
      enableV4API("enableV4APIKey", defaults),
      userDefault_(std::move(defaults)),
      deviceID_(std::move(deviceID)) {}

std::optional<std::string> PropertyStore::apiHostIP() const {
    std::lock_guard lock(mutex_);
    return apiHostIP_;
}

void PropertyStore::setApiHostIP(std::optional<std::string> ip) {
    std::lock_guard lock(mutex_);
    apiHostIP_ = std::move(ip);
}

std::optional<PublicIP> PropertyStore::publicIP() const {
    auto stored = userDefault_->stringForKey(kPublicIPKey);
    if (!stored)
        return std::nullopt;
    auto plain = crypto::decrypted(bytes::toData(*stored), deviceID_());
    if (!plain) {
        log::error(std::string(kLogTag) + "get publicIP error: the stored value does not decrypt");
        return std::nullopt;
    }
    auto json = Json::parse(plain->begin(), plain->end(), nullptr, false);
    Error error;
    auto ip = json.is_discarded() ? std::nullopt : PublicIP::fromJson(json, &error);
    if (!ip)
        log::error(std::string(kLogTag) + "get publicIP error: " +
                   (json.is_discarded() ? "the decrypted value is not JSON"
                                        : error.localizedDescription()));
    return ip;
}

void PropertyStore::setPublicIP(const std::optional<PublicIP>& ip) {
    if (!ip) {
        userDefault_->removeObjectForKey(kPublicIPKey);
        userDefault_->synchronize();
        return;
    }
    std::string json;
    try {
        json = ip->toJson().dump();
    } catch (const std::exception& e) {  // a text that is not UTF-8
        log::error(std::string(kLogTag) + "set publicIP error: " + e.what());
        return;
    }
    auto sealed = crypto::encrypted(bytes::toData(json), deviceID_());
    auto text = sealed ? bytes::UTF8String(*sealed) : std::nullopt;
    if (!text) {
        log::error(std::string(kLogTag) + "set publicIP error: encryption failed");
        return;
    }
    userDefault_->setObject(*text, kPublicIPKey);
    userDefault_->synchronize();
}

std::vector<LatestBoostValue> PropertyStore::getLatestBoostValues(
    const std::string& gameID, LatestBoostValue::NetworkType networkType) const {
    std::vector<LatestBoostValue> found;
    for (const auto& value : latestBoostValues.get().value_or(std::vector<LatestBoostValue>{}))
        if (value.gameID == gameID && value.networkType == networkType && value.ping > 0)
            found.push_back(value);
    return found;
}

std::vector<SettingKey> PropertyStore::keys() const {
    return {
        {"apiHost", apiHost.key(), SettingForm::Record},
        {"appsFlyerCampaign", appsFlyerCampaign.key(), SettingForm::Wrapped},
        {"appsFlyerID", appsFlyerID.key(), SettingForm::Wrapped},
        {"lastPing", lastPing.key(), SettingForm::Wrapped},
        {"boostTimesWithoutDualChannelAlert", boostTimesWithoutDualChannelAlert.key(),
         SettingForm::Wrapped},
        {"dualChannelAlertShowTimeStamp", dualChannelAlertShowTimeStamp.key(),
         SettingForm::Wrapped},
        {"boostTimesWithoutCheckList", boostTimesWithoutCheckList.key(), SettingForm::Wrapped},
        {"checkListAlertShowTimeStamp", checkListAlertShowTimeStamp.key(), SettingForm::Wrapped},
        {"latestBoostValues", latestBoostValues.key(), SettingForm::Wrapped},
        {"hasUpdatedDualChannel", hasUpdatedDualChannel.key(), SettingForm::Wrapped},
        {"splashScreenConfigContainer", splashScreenConfigContainer.key(), SettingForm::Wrapped},
        {"currentSplashScreenConfig", currentSplashScreenConfig.key(), SettingForm::Record},
        {"splashScreenTimesMap", splashScreenTimesMap.key(), SettingForm::Wrapped},
        {"localHostsMap", localHostsMap.key(), SettingForm::Wrapped},
        {"distinctID", distinctID.key(), SettingForm::Wrapped},
        {"showCMPAlert", showCMPAlert.key(), SettingForm::Wrapped},
        {"timeZoneOffset", timeZoneOffset.key(), SettingForm::Wrapped},
        {"boostTime", boostTime.key(), SettingForm::Plain},
        {"registerDeviceToken", registerDeviceToken.key(), SettingForm::Plain},
        {"autoSelectSurvey", autoSelectSurvey.key(), SettingForm::Plain},
        {"autoSelectBoostTime", autoSelectBoostTime.key(), SettingForm::Plain},
        {"enableV4API", enableV4API.key(), SettingForm::Plain},
        {"publicIP", kPublicIPKey, SettingForm::Encrypted},
    };
}

}  // namespace lmkit

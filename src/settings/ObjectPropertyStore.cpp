#include "lmkit/settings/ObjectPropertyStore.hpp"

#include "lmkit/foundation/KeyedArchiver.hpp"
#include "lmkit/foundation/Log.hpp"
#include "lmkit/platform/NotificationCenter.hpp"
#include "lmkit/settings/ENV.hpp"

namespace lmkit {

namespace {

constexpr const char* kStartupConfigKey = "ObjectPropertyStoreStartUpConfigKey";
constexpr const char* kConfigAPIResponseKey = "ObjectPropertyStoreConfigAPIResponseKey";
constexpr const char* kAccConfigKey = "ACC_CONFIG";
constexpr const char* kLastAcceleratedGameKey = "LAST_ACCERLATED_GAME";  // spelt so on disk
constexpr const char* kLastAcceleratingAccNodeIdKey =
    "ObjectPropertyStoreLastAcceleratingAccNodeIdKey";
constexpr const char* kSessionIDKey = "SESSION_ID";
constexpr const char* kJwtIDKey = "JWT_ID";
constexpr const char* kDualChannelKey = "ObjectPropertyStoreDualChannelKey_V1";
constexpr const char* kCellularCompensationKey = "ObjectPropertyStoreCellularCompensationKey";
constexpr const char* kNetworkUnstableEnableDualChannelDialogTimesKey =
    "ObjectPropertyStoreNetworkUnstableEnableDualChannelDialogTimesKey";
constexpr const char* kVPNStartStepKey = "ObjectPropertyStoreVPNStartStepKey";
constexpr const char* kAutoLaunchGameKey = "ObjectPropertyStoreAutoLaunchGameKey";
constexpr const char* kAgreeUserAgreementKey = "ObjectPropertyStoreAgreeUserAgreementKey";
constexpr const char* kHasShowAlertForUsingMobileDataKey = "HAS_SHOW_ALERT_FOR_USING_MOBILE_DATA";
constexpr const char* kTimestampAtLastCheckNewMessageKey =
    "ObjectPropertyStoreTimestampAtLastCheckNewMessageKey";
constexpr const char* kShowStarRateNextTimeIntervalKey =
    "ObjectPropertyShowStarRateNextTimeIntervalKey";
constexpr const char* kLastVisitViewControllerClassKey =
    "ObjectPropertyStoreLastVisitViewControllerClass";
constexpr const char* kLastUserIdForcedOfflineKey = "ObjectPropertyStoreLastUserIdForcedOfflineKey";
constexpr const char* kAppsFlyerMediaSourceKey = "ObjectPropertyStoreAppsFlyerMediaSourceKey";
constexpr const char* kMergedZoneAcceleratedGameMapKey =
    "ObjectPropertyMergedZoneAcceleratedGameMapKey";
constexpr const char* kNoReminderDictionaryKey = "GeneralPopupNoReminderKey";
constexpr const char* kOpenAppAlertInfoKey = "ObjectPropertyOpenAppAlertInfoKey";
constexpr const char* kLeaderboardsJSONKey = "ObjectPropertyStoreLeaderboardsJSONKey";
constexpr const char* kSpeedTestTasksIDsKey = "ObjectPropertyStoreSpeedTestTasksIDsKey";
constexpr const char* kSystemAlertNoMoreReminderKey =
    "ObjectPropertyStoreSystemAlertNoMoreReminderKey";

}  // namespace

ObjectPropertyStore& ObjectPropertyStore::shared() {
    static ObjectPropertyStore* store =
        new ObjectPropertyStore(UserDefaults::suite(ENV::appGroup()));
    return *store;
}

ObjectPropertyStore::ObjectPropertyStore(std::shared_ptr<UserDefaults> defaults)
    : userDefault_(std::move(defaults)) {
    dualChannel_ = number(kDualChannelKey);
}

template <class T>
std::shared_ptr<T> ObjectPropertyStore::record(Cached<T>& cache, const char* key,
                                               const char* name) {
    std::lock_guard lock(mutex_);
    if (cache.value)
        return cache.value;
    auto data = userDefault_->dataForKey(key);
    if (!data) {
        if (userDefault_->objectForKey(key))
            log::error(std::string("get ") + name + " fail error: the stored value is not data");
        return nullptr;
    }
    std::string error;
    cache.value = keyed_archiver::unarchive<T>(*data, error);
    if (!cache.value)
        log::error(std::string("get ") + name + " fail error: " + error);
    return cache.value;
}

template <class T>
void ObjectPropertyStore::setRecord(Cached<T>& cache, std::shared_ptr<T> value, const char* key,
                                    const char* name, const char* notification) {
    {
        std::lock_guard lock(mutex_);
        cache.value = value;
        if (value) {
            std::string error;
            if (auto data = keyed_archiver::archive(*value, error)) {
                userDefault_->setObject(UserDefaults::makeData(std::move(*data)), key);
            } else {
                log::error(std::string("set ") + name + " fail error: " + error);
            }
        } else {
            userDefault_->removeObjectForKey(key);
        }
        userDefault_->synchronize();
    }
    // Observers run without the store's lock, so they may read the store back.
    if (notification)
        NotificationCenter::defaultCenter().post(notification);
}

std::shared_ptr<StartupConfig> ObjectPropertyStore::startupConfig() {
    return record(startupConfig_, kStartupConfigKey, "startupConfig");
}
void ObjectPropertyStore::setStartupConfig(std::shared_ptr<StartupConfig> config) {
    setRecord(startupConfig_, std::move(config), kStartupConfigKey, "startupConfig",
              kStartupConfigChangeNotification);
}

std::shared_ptr<ConfigAPIResponseObject> ObjectPropertyStore::configAPIResponse() {
    return record(configAPIResponse_, kConfigAPIResponseKey, "configAPIResponse");
}
void ObjectPropertyStore::setConfigAPIResponse(std::shared_ptr<ConfigAPIResponseObject> response) {
    setRecord(configAPIResponse_, std::move(response), kConfigAPIResponseKey, "configAPIResponse",
              kConfigAPIResponseChangeNotification);
}

std::shared_ptr<AccConfig> ObjectPropertyStore::accConfig() {
    return record(accConfig_, kAccConfigKey, "accConfig");
}
void ObjectPropertyStore::setAccConfig(std::shared_ptr<AccConfig> config) {
    setRecord(accConfig_, std::move(config), kAccConfigKey, "accConfig", nullptr);
}

std::shared_ptr<Game> ObjectPropertyStore::lastAcceleratedGame() {
    return record(lastAcceleratedGame_, kLastAcceleratedGameKey, "lastAcceleratedGame");
}
void ObjectPropertyStore::setLastAcceleratedGame(std::shared_ptr<Game> game) {
    setRecord(lastAcceleratedGame_, std::move(game), kLastAcceleratedGameKey, "lastAcceleratedGame",
              nullptr);
}

std::shared_ptr<OpenAppAlertInfo> ObjectPropertyStore::openAppAlertInfo() {
    return record(openAppAlertInfo_, kOpenAppAlertInfoKey, "openAppAlertInfo");
}
void ObjectPropertyStore::setOpenAppAlertInfo(std::shared_ptr<OpenAppAlertInfo> info) {
    setRecord(openAppAlertInfo_, std::move(info), kOpenAppAlertInfoKey, "openAppAlertInfo",
              nullptr);
}

void ObjectPropertyStore::setOpenAppAlertInfo(
    const std::optional<std::string>& dialogID,
    const std::optional<std::chrono::system_clock::time_point>& date, long todayCount, long count) {
    if (!dialogID || !date) {
        log::error("dialogID or date info is nil");
        return;
    }
    auto info = std::make_shared<OpenAppAlertInfo>();
    info->dialogID = dialogID;
    info->date = std::chrono::duration<double>(date->time_since_epoch()).count();
    info->todayCount = todayCount;
    info->count = count;
    setOpenAppAlertInfo(std::move(info));
}

std::optional<std::string> ObjectPropertyStore::text(const char* key) const {
    auto value = userDefault_->objectForKey(key);
    if (!value || !value->is_string())
        return std::nullopt;
    return value->get<std::string>();
}

void ObjectPropertyStore::setValue(const DefaultsValue& value, const std::string& key) {
    if (value.is_null()) {
        userDefault_->removeObjectForKey(key);
    } else {
        userDefault_->setObject(value, key);
    }
    userDefault_->synchronize();
}

void ObjectPropertyStore::setText(const std::optional<std::string>& value, const std::string& key) {
    setValue(value ? DefaultsValue(*value) : DefaultsValue(), key);
}

std::optional<Number> ObjectPropertyStore::number(const char* key) const {
    auto value = userDefault_->objectForKey(key);
    return value ? Number::fromJson(*value) : std::nullopt;
}

std::optional<std::string> ObjectPropertyStore::lastAcceleratingAccNodeId() const {
    return text(kLastAcceleratingAccNodeIdKey);
}
void ObjectPropertyStore::setLastAcceleratingAccNodeId(const std::optional<std::string>& nodeID) {
    setText(nodeID, kLastAcceleratingAccNodeIdKey);
}
std::optional<std::string> ObjectPropertyStore::sessionID() const {
    return text(kSessionIDKey);
}
void ObjectPropertyStore::setSessionID(const std::optional<std::string>& sessionID) {
    setText(sessionID, kSessionIDKey);
}
std::optional<std::string> ObjectPropertyStore::jwtID() const {
    return text(kJwtIDKey);
}
void ObjectPropertyStore::setJwtID(const std::optional<std::string>& jwtID) {
    setText(jwtID, kJwtIDKey);
}
std::optional<std::string> ObjectPropertyStore::lastVisitViewControllerClass() const {
    return text(kLastVisitViewControllerClassKey);
}
void ObjectPropertyStore::setLastVisitViewControllerClass(const std::optional<std::string>& name) {
    setText(name, kLastVisitViewControllerClassKey);
}
std::optional<std::string> ObjectPropertyStore::lastUserIdForcedOffline() const {
    return text(kLastUserIdForcedOfflineKey);
}
void ObjectPropertyStore::setLastUserIdForcedOffline(const std::optional<std::string>& userID) {
    setText(userID, kLastUserIdForcedOfflineKey);
}
std::optional<std::string> ObjectPropertyStore::appsFlyerMediaSource() const {
    return text(kAppsFlyerMediaSourceKey);
}
void ObjectPropertyStore::setAppsFlyerMediaSource(const std::optional<std::string>& source) {
    setText(source, kAppsFlyerMediaSourceKey);
}

std::optional<Number> ObjectPropertyStore::dualChannel() const {
    std::lock_guard lock(mutex_);
    return dualChannel_;
}
void ObjectPropertyStore::setDualChannel(const std::optional<Number>& value) {
    {
        std::lock_guard lock(mutex_);
        dualChannel_ = value;
        setValue(value ? value->toJson() : DefaultsValue(), kDualChannelKey);
    }
    NotificationCenter::defaultCenter().post(kDualChannelChangeNotification);
}
std::optional<Number> ObjectPropertyStore::cellularCompensation() const {
    return number(kCellularCompensationKey);
}
void ObjectPropertyStore::setCellularCompensation(const std::optional<Number>& value) {
    setValue(value ? value->toJson() : DefaultsValue(), kCellularCompensationKey);
}
std::optional<Number> ObjectPropertyStore::showStarRateNextTimeInterval() const {
    return number(kShowStarRateNextTimeIntervalKey);
}
void ObjectPropertyStore::setShowStarRateNextTimeInterval(const std::optional<Number>& value) {
    setValue(value ? value->toJson() : DefaultsValue(), kShowStarRateNextTimeIntervalKey);
}

long ObjectPropertyStore::networkUnstableEnableDualChannelDialogTimes() const {
    return userDefault_->integerForKey(kNetworkUnstableEnableDualChannelDialogTimesKey);
}
void ObjectPropertyStore::setNetworkUnstableEnableDualChannelDialogTimes(long times) {
    setValue(times, kNetworkUnstableEnableDualChannelDialogTimesKey);
}
long ObjectPropertyStore::vpnStartStep() const {
    return userDefault_->integerForKey(kVPNStartStepKey);
}
void ObjectPropertyStore::setVpnStartStep(long step) {
    setValue(step, kVPNStartStepKey);
}
long ObjectPropertyStore::timestampAtLastCheckNewMessage() const {
    return userDefault_->integerForKey(kTimestampAtLastCheckNewMessageKey);
}
void ObjectPropertyStore::setTimestampAtLastCheckNewMessage(long timestamp) {
    setValue(timestamp, kTimestampAtLastCheckNewMessageKey);
}
bool ObjectPropertyStore::shouldAutoLaunchGame() const {
    return userDefault_->boolForKey(kAutoLaunchGameKey);
}
void ObjectPropertyStore::setAutoLaunchGame(bool autoLaunch) {
    setValue(autoLaunch, kAutoLaunchGameKey);
}
bool ObjectPropertyStore::agreeUserAgreement() const {
    return userDefault_->boolForKey(kAgreeUserAgreementKey);
}
void ObjectPropertyStore::setAgreeUserAgreement(bool agree) {
    setValue(agree, kAgreeUserAgreementKey);
}
bool ObjectPropertyStore::hasShowAlertForUsingMobileData() const {
    return userDefault_->boolForKey(kHasShowAlertForUsingMobileDataKey);
}
void ObjectPropertyStore::setHasShowAlertForUsingMobileData(bool shown) {
    setValue(shown, kHasShowAlertForUsingMobileDataKey);
}

DefaultsValue ObjectPropertyStore::mergedZoneAcceleratedGameMap() const {
    return userDefault_->dictionaryForKey(kMergedZoneAcceleratedGameMapKey)
        .value_or(DefaultsValue::object());
}
void ObjectPropertyStore::setMergedZoneAcceleratedGameMap(const DefaultsValue& map) {
    setValue(map.is_object() ? map : DefaultsValue(), kMergedZoneAcceleratedGameMapKey);
}
DefaultsValue ObjectPropertyStore::noReminderDictionary() const {
    return userDefault_->dictionaryForKey(kNoReminderDictionaryKey)
        .value_or(DefaultsValue::object());
}
void ObjectPropertyStore::setNoReminderDictionary(const DefaultsValue& dictionary) {
    setValue(dictionary.is_object() ? dictionary : DefaultsValue(), kNoReminderDictionaryKey);
}

std::vector<std::string> ObjectPropertyStore::speedTestTasksIDs() const {
    std::vector<std::string> ids;
    if (auto list = userDefault_->arrayForKey(kSpeedTestTasksIDsKey))
        for (const auto& item : *list)
            if (item.is_string())
                ids.push_back(item.get<std::string>());
    return ids;
}
void ObjectPropertyStore::setSpeedTestTasksIDs(const std::vector<std::string>& taskIDs) {
    setValue(DefaultsValue(taskIDs), kSpeedTestTasksIDsKey);
}

std::optional<std::string> ObjectPropertyStore::leaderboardsJSON(
    const std::string& qualifier) const {
    return text((std::string(kLeaderboardsJSONKey) + "_" + qualifier).c_str());
}
void ObjectPropertyStore::setLeaderboardsJSON(const std::optional<std::string>& json,
                                              const std::string& qualifier) {
    setText(json, std::string(kLeaderboardsJSONKey) + "_" + qualifier);
}

bool ObjectPropertyStore::systemAlertNoMoreReminder(const std::string& gameID,
                                                    const std::string& dialogID) const {
    auto all = userDefault_->dictionaryForKey(kSystemAlertNoMoreReminderKey);
    if (!all || !all->contains(gameID) || !(*all)[gameID].is_object())
        return false;
    const auto& byDialog = (*all)[gameID];
    auto flag = byDialog.find(dialogID);
    return flag != byDialog.end() && flag->is_boolean() && flag->get<bool>();
}
void ObjectPropertyStore::setSystemAlertNoMoreReminder(const std::string& gameID,
                                                       const std::string& dialogID,
                                                       bool noMoreReminder) {
    std::lock_guard lock(mutex_);  // read-modify-write of one dictionary
    auto all = userDefault_->dictionaryForKey(kSystemAlertNoMoreReminderKey)
                   .value_or(DefaultsValue::object());
    if (!all[gameID].is_object())
        all[gameID] = DefaultsValue::object();
    all[gameID][dialogID] = noMoreReminder;
    setValue(all, kSystemAlertNoMoreReminderKey);
}

const std::vector<SettingKey>& ObjectPropertyStore::keys() {
    static const std::vector<SettingKey> table{
        {"startupConfig", kStartupConfigKey, SettingForm::Archive},
        {"configAPIResponse", kConfigAPIResponseKey, SettingForm::Archive},
        {"accConfig", kAccConfigKey, SettingForm::Archive},
        {"lastAcceleratedGame", kLastAcceleratedGameKey, SettingForm::Archive},
        {"lastAcceleratingAccNodeId", kLastAcceleratingAccNodeIdKey, SettingForm::Plain},
        {"sessionID", kSessionIDKey, SettingForm::Plain},
        {"jwtID", kJwtIDKey, SettingForm::Plain},
        {"dualChannel", kDualChannelKey, SettingForm::Plain},
        {"cellularCompensation", kCellularCompensationKey, SettingForm::Plain},
        {"networkUnstableEnableDualChannelDialogTimes",
         kNetworkUnstableEnableDualChannelDialogTimesKey, SettingForm::Plain},
        {"vpnStartStep", kVPNStartStepKey, SettingForm::Plain},
        {"autoLaunchGame", kAutoLaunchGameKey, SettingForm::Plain},
        {"agreeUserAgreement", kAgreeUserAgreementKey, SettingForm::Plain},
        {"hasShowAlertForUsingMobileData", kHasShowAlertForUsingMobileDataKey, SettingForm::Plain},
        {"timestampAtLastCheckNewMessage", kTimestampAtLastCheckNewMessageKey, SettingForm::Plain},
        {"showStarRateNextTimeInterval", kShowStarRateNextTimeIntervalKey, SettingForm::Plain},
        {"lastVisitViewControllerClass", kLastVisitViewControllerClassKey, SettingForm::Plain},
        {"lastUserIdForcedOffline", kLastUserIdForcedOfflineKey, SettingForm::Plain},
        {"appsFlyerMediaSource", kAppsFlyerMediaSourceKey, SettingForm::Plain},
        {"mergedZoneAcceleratedGameMap", kMergedZoneAcceleratedGameMapKey, SettingForm::Plain},
        {"noReminderDictionary", kNoReminderDictionaryKey, SettingForm::Plain},
        {"openAppAlertInfo", kOpenAppAlertInfoKey, SettingForm::Archive},
        {"leaderboardsJSON", kLeaderboardsJSONKey, SettingForm::Plain},
        {"speedTestTasksIDs", kSpeedTestTasksIDsKey, SettingForm::Plain},
        {"systemAlertNoMoreReminder", kSystemAlertNoMoreReminderKey, SettingForm::Plain},
    };
    return table;
}

}  // namespace lmkit

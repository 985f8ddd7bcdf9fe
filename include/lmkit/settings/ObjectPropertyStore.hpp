#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "lmkit/foundation/UserDefaults.hpp"
#include "lmkit/models/AccConfig.hpp"
#include "lmkit/models/ConfigAPIResponseObject.hpp"
#include "lmkit/models/Game.hpp"
#include "lmkit/models/StartupConfig.hpp"
#include "lmkit/platform/Number.hpp"
#include "lmkit/settings/OpenAppAlertInfo.hpp"
#include "lmkit/settings/RecordArchiving.hpp"
#include "lmkit/settings/SettingKey.hpp"

namespace lmkit {

/// The older settings store of the app-group suite: explicit getter/setter pairs, records kept
/// as keyed archives. Everything runs on the caller's thread; every setter stores, synchronises,
/// then posts the setting's notification (on the default centre) where it has one.
///
/// Records are kept in memory once read or written: a getter answers from memory and reads the
/// suite only while it holds nothing. Data that does not unarchive into the setting's record type
/// reads as nil with the line "get <setting> fail error: <why>" and stays as it is in the suite.
/// The dual-channel value is read once, when the store is made. Other settings are read from the
/// suite on every call, so they show the other process's latest write.
class ObjectPropertyStore {
  public:
    static constexpr const char* kStartupConfigChangeNotification =
        "ObjectPropertyStoreStartupConfigChangeNotification";
    static constexpr const char* kConfigAPIResponseChangeNotification =
        "ObjectPropertyStoreUpdateConfigAPIResponseObjectNotification";
    static constexpr const char* kDualChannelChangeNotification =
        "ObjectPropertyStoreDualChannelChangeNotification";

    /// The store of the app-group suite (ENV::appGroup()), made on first use.
    static ObjectPropertyStore& shared();
    /// A store over `defaults` (tools and tests).
    explicit ObjectPropertyStore(std::shared_ptr<UserDefaults> defaults);
    ObjectPropertyStore(const ObjectPropertyStore&) = delete;
    ObjectPropertyStore& operator=(const ObjectPropertyStore&) = delete;

    const std::shared_ptr<UserDefaults>& userDefault() const { return userDefault_; }

    // Archived records; nullptr removes the key.
    std::shared_ptr<StartupConfig> startupConfig();
    void setStartupConfig(std::shared_ptr<StartupConfig> config);
    std::shared_ptr<ConfigAPIResponseObject> configAPIResponse();
    void setConfigAPIResponse(std::shared_ptr<ConfigAPIResponseObject> response);
    std::shared_ptr<AccConfig> accConfig();
    void setAccConfig(std::shared_ptr<AccConfig> config);
    std::shared_ptr<Game> lastAcceleratedGame();
    void setLastAcceleratedGame(std::shared_ptr<Game> game);
    std::shared_ptr<OpenAppAlertInfo> openAppAlertInfo();
    void setOpenAppAlertInfo(std::shared_ptr<OpenAppAlertInfo> info);
    /// Records that the open-app dialog `dialogID` was shown at `date`: `todayCount` times that
    /// day and `count` times in all. A nil dialog id or date changes nothing and logs
    /// "dialogID or date info is nil".
    void setOpenAppAlertInfo(const std::optional<std::string>& dialogID,
                             const std::optional<std::chrono::system_clock::time_point>& date,
                             long todayCount, long count);

    // Texts; nil removes the key.
    std::optional<std::string> lastAcceleratingAccNodeId() const;
    void setLastAcceleratingAccNodeId(const std::optional<std::string>& nodeID);
    std::optional<std::string> sessionID() const;
    void setSessionID(const std::optional<std::string>& sessionID);
    std::optional<std::string> jwtID() const;
    void setJwtID(const std::optional<std::string>& jwtID);
    std::optional<std::string> lastVisitViewControllerClass() const;
    void setLastVisitViewControllerClass(const std::optional<std::string>& name);
    std::optional<std::string> lastUserIdForcedOffline() const;
    void setLastUserIdForcedOffline(const std::optional<std::string>& userID);
    std::optional<std::string> appsFlyerMediaSource() const;
    void setAppsFlyerMediaSource(const std::optional<std::string>& source);

    // Numbers; nil removes the key.
    std::optional<Number> dualChannel() const;
    void setDualChannel(const std::optional<Number>& value);
    std::optional<Number> cellularCompensation() const;
    void setCellularCompensation(const std::optional<Number>& value);
    std::optional<Number> showStarRateNextTimeInterval() const;
    void setShowStarRateNextTimeInterval(const std::optional<Number>& value);

    // Integers and booleans; absent reads as 0 or false.
    long networkUnstableEnableDualChannelDialogTimes() const;
    void setNetworkUnstableEnableDualChannelDialogTimes(long times);
    long vpnStartStep() const;
    void setVpnStartStep(long step);
    long timestampAtLastCheckNewMessage() const;
    void setTimestampAtLastCheckNewMessage(long timestamp);
    bool shouldAutoLaunchGame() const;
    void setAutoLaunchGame(bool autoLaunch);
    bool agreeUserAgreement() const;
    void setAgreeUserAgreement(bool agree);
    bool hasShowAlertForUsingMobileData() const;
    void setHasShowAlertForUsingMobileData(bool shown);

    // Dictionaries and lists; absent reads as an empty one.
    DefaultsValue mergedZoneAcceleratedGameMap() const;
    void setMergedZoneAcceleratedGameMap(const DefaultsValue& map);
    DefaultsValue noReminderDictionary() const;
    void setNoReminderDictionary(const DefaultsValue& dictionary);
    std::vector<std::string> speedTestTasksIDs() const;
    void setSpeedTestTasksIDs(const std::vector<std::string>& taskIDs);

    /// The leaderboards' JSON text for `qualifier`, kept under
    /// "ObjectPropertyStoreLeaderboardsJSONKey_<qualifier>"; nil removes it.
    std::optional<std::string> leaderboardsJSON(const std::string& qualifier) const;
    void setLeaderboardsJSON(const std::optional<std::string>& json, const std::string& qualifier);

    /// Whether the user asked not to be reminded again of system alert `dialogID` for `gameID`
    /// (one dictionary by game and dialog under "ObjectPropertyStoreSystemAlertNoMoreReminderKey").
    bool systemAlertNoMoreReminder(const std::string& gameID, const std::string& dialogID) const;
    void setSystemAlertNoMoreReminder(const std::string& gameID, const std::string& dialogID,
                                      bool noMoreReminder);

    /// Every setting's property name and key (the leaderboards key without its qualifier).
    static const std::vector<SettingKey>& keys();

  private:
    template <class T>
    struct Cached {
        std::shared_ptr<T> value;  // guarded by mutex_
    };
    template <class T>
    std::shared_ptr<T> record(Cached<T>& cache, const char* key, const char* name);
    template <class T>
    void setRecord(Cached<T>& cache, std::shared_ptr<T> value, const char* key, const char* name,
                   const char* notification);

    std::optional<std::string> text(const char* key) const;
    void setText(const std::optional<std::string>& value, const std::string& key);
    std::optional<Number> number(const char* key) const;
    void setValue(const DefaultsValue& value, const std::string& key);

    std::shared_ptr<UserDefaults> userDefault_;
    mutable std::mutex mutex_;
    Cached<StartupConfig> startupConfig_;
    Cached<ConfigAPIResponseObject> configAPIResponse_;
    Cached<AccConfig> accConfig_;
    Cached<Game> lastAcceleratedGame_;
    Cached<OpenAppAlertInfo> openAppAlertInfo_;
    std::optional<Number> dualChannel_;  // guarded by mutex_
};

}  // namespace lmkit

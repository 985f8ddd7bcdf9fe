#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "lmkit/foundation/AppDefault.hpp"
#include "lmkit/foundation/AppMTLDefault.hpp"
#include "lmkit/foundation/PlainDefault.hpp"
#include "lmkit/foundation/UserDefault.hpp"
#include "lmkit/models/PublicIP.hpp"
#include "lmkit/settings/APIHost.hpp"
#include "lmkit/settings/LatestBoostValue.hpp"
#include "lmkit/settings/RecordArchiving.hpp"
#include "lmkit/settings/SettingKey.hpp"
#include "lmkit/settings/SplashScreenConfig.hpp"

namespace lmkit {

/// The app-group settings declared as typed wrapped properties. Each property is its wrapper:
/// read with `get()`, write with `set(...)` (`PropertyStore::shared().lastPing.set(12.5)`).
/// Wrapped settings start without a default, so a setting never written reads as nil and each
/// caller applies its own fallback; AppDefault and AppMTLDefault writes are asynchronous on the
/// one defaults write queue, the plain ones (UserDefault) synchronous.
class PropertyStore {
  public:
    /// The store of the app-group suite (ENV::appGroup()), made on first use.
    static PropertyStore& shared();

    /// A store over `defaults` whose public address is keyed with the text `deviceID` gives
    /// (tools and tests; the shared store uses the device identifier).
    PropertyStore(std::shared_ptr<UserDefaults> defaults, std::function<std::string()> deviceID);
    PropertyStore(const PropertyStore&) = delete;
    PropertyStore& operator=(const PropertyStore&) = delete;

    static constexpr const char* kPublicIPKey = "LMCellularIPKey";

    const std::shared_ptr<UserDefaults>& userDefault() const { return userDefault_; }

    AppMTLDefault<APIHost> apiHost;
    AppDefault<std::string> appsFlyerCampaign;
    AppDefault<std::string> appsFlyerID;
    AppDefault<double> lastPing;  // milliseconds
    AppDefault<long> boostTimesWithoutDualChannelAlert;
    AppDefault<long> dualChannelAlertShowTimeStamp;
    AppDefault<long> boostTimesWithoutCheckList;
    AppDefault<long> checkListAlertShowTimeStamp;
    AppDefault<std::vector<LatestBoostValue>> latestBoostValues;
    AppDefault<bool> hasUpdatedDualChannel;
    AppDefault<std::map<std::string, std::map<std::string, long>>> splashScreenConfigContainer;
    AppMTLDefault<SplashScreenConfig> currentSplashScreenConfig;
    AppDefault<std::map<std::string, long>> splashScreenTimesMap;
    AppDefault<std::map<std::string, std::string>> localHostsMap;
    AppDefault<std::string> distinctID;
    AppDefault<bool> showCMPAlert;
    AppDefault<std::string> timeZoneOffset;
    // "Oject" is how these keys were first written; installed apps hold their values under it.
    PlainDefault<long> boostTime;
    PlainDefault<bool> registerDeviceToken;
    PlainDefault<bool> autoSelectSurvey;
    PlainDefault<long> autoSelectBoostTime;
    PlainDefault<bool> enableV4API;

    /// The API host's address as last resolved; held in memory only.
    std::optional<std::string> apiHostIP() const;
    void setApiHostIP(std::optional<std::string> ip);

    /// The public address, kept under "LMCellularIPKey" as the base64 text of its JSON encrypted
    /// with the device identifier. Anything that does not decrypt and decode reads as nil (and
    /// logs); nil removes the key. Written and synchronised on the caller's thread.
    std::optional<PublicIP> publicIP() const;
    void setPublicIP(const std::optional<PublicIP>& ip);

    /// The stored boost values of `gameID` on `networkType` with a measured ping, in stored order.
    std::vector<LatestBoostValue> getLatestBoostValues(
        const std::string& gameID, LatestBoostValue::NetworkType networkType) const;

    /// Every setting's property name and key, in declaration order (for tools).
    std::vector<SettingKey> keys() const;

  private:
    std::shared_ptr<UserDefaults> userDefault_;
    std::function<std::string()> deviceID_;
    mutable std::mutex mutex_;
    std::optional<std::string> apiHostIP_;  // guarded by mutex_
};

}  // namespace lmkit

#pragma once

#include "lmkit/models/AccConfig.hpp"
#include "lmkit/models/BaseModel.hpp"
#include "lmkit/models/UnstableNetworkConfig.hpp"

namespace lmkit {

/// Help pages the app links to.
struct WikiURLConfiguration : Model<WikiURLConfiguration> {
    std::optional<std::string> dualChannel;
    std::optional<std::string> delayInstruction;
    std::optional<std::string> boostTech;
    std::optional<std::string> vpnAuthFailedGuideUrl;
    std::optional<std::string> serverLock;
    static const std::vector<Property<WikiURLConfiguration>>& properties();
};

struct ExceptionConfig : Model<ExceptionConfig> {
    std::optional<Number> defendSwitch;
    std::optional<Number> defendCategory;
    std::optional<Number> reportSwitch;
    static const std::vector<Property<ExceptionConfig>>& properties();
};

/// Feature switches and time-outs delivered at launch. The dual-channel alert and the splash
/// screens belong to the presentation layer and are kept as delivered.
struct StartupConfig : Model<StartupConfig> {
    std::shared_ptr<WikiURLConfiguration> wikiURLConfiguration;
    std::optional<Json> grayScaleSwitch;
    bool enableDualChannel = false;
    std::shared_ptr<UnstableNetworkConfig> unstableNetworkConfig;
    std::optional<std::vector<std::shared_ptr<NetworkConditionLevel>>> networkConditionLevels;
    std::optional<std::string> openAppDialogID;
    std::optional<Number> requestTimeoutInterval;
    std::optional<std::vector<std::string>> supportAppScheme;
    long delayMode = 0;  // 0 average delay, 1 minimum delay
    std::shared_ptr<ExceptionConfig> exceptionConfig;
    std::optional<Number> apiMaxCacheTime;
    std::optional<Json> dualChannelAlertConfig;
    bool mainlinkUseTLS = false;
    bool forceMainlinkTLS = false;
    bool tcpChannelUseTLS = false;
    bool facebooksdkEnabled = false;
    std::optional<std::vector<Json>> splashScreenConfigs;
    std::optional<std::string> subpageTitle;
    bool enableIPDirect = false;
    bool enableSensors = false;
    bool enableFDTUNReadMode = false;
    bool fallbackToUserDefaultsSync = false;
    bool enablePureGRP = false;
    std::optional<Number> speedTestRatio;
    bool oldRegionSelectEnabled = false;

    static const std::vector<Property<StartupConfig>>& properties();
};

}  // namespace lmkit

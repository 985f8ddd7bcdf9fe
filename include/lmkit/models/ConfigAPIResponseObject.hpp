#pragma once

#include "lmkit/models/AccConfig.hpp"
#include "lmkit/models/BaseModel.hpp"
#include "lmkit/models/Game.hpp"

namespace lmkit {

struct UIConfig : Model<UIConfig> {
    std::optional<Number> strategy;
    std::optional<std::string> discordURL;
    std::optional<std::string> telegramURL;
    static const std::vector<Property<UIConfig>>& properties();
};

/// The service's general configuration.
struct ConfigAPIResponseObject : Model<ConfigAPIResponseObject> {
    std::shared_ptr<AccConfig> accConfig;
    bool showSearchBar = false;
    bool showRedirectAppStoreAlert = false;
    bool showRedirectAppStoreAction = false;
    std::optional<Number> imageCornerRadiusPercent;
    bool enableTCPEncryption = false;
    std::optional<std::vector<std::string>> domainBlacklist;
    std::optional<std::vector<RegularExpression>> domainRegexBlacklist;
    bool enableRearDelay = false;
    bool enableSentry = false;
    bool exclusiveVPNCheck = false;
    std::shared_ptr<GameDownloadModel> showDownload;
    bool enableV4API = false;
    std::optional<Number> vpnBufferDuration;  // seconds
    bool feedbackLogZipEnabled = false;
    bool enableNewLossScore = false;
    std::shared_ptr<UIConfig> uiConfig;
    bool enableOldRouterDivider = false;
    bool displayLastGuideOnly = false;

    static const std::vector<Property<ConfigAPIResponseObject>>& properties();
};

}  // namespace lmkit

#include "lmkit/models/ConfigAPIResponseObject.hpp"

#include "lmkit/models/Transformers.hpp"

namespace lmkit {

const std::vector<Property<UIConfig>>& UIConfig::properties() {
    static const std::vector<Property<UIConfig>> table{
        prop("strategy", "type", &UIConfig::strategy),
        prop("discordURL", "discord", &UIConfig::discordURL),
        prop("telegramURL", "telegram", &UIConfig::telegramURL),
    };
    return table;
}

const std::vector<Property<ConfigAPIResponseObject>>& ConfigAPIResponseObject::properties() {
    using R = ConfigAPIResponseObject;
    static const std::vector<Property<R>> table{
        prop("accConfig", "config", &R::accConfig),
        prop("showSearchBar", "show_search", &R::showSearchBar),
        prop("showRedirectAppStoreAlert", "show_redirect_appstore_alert",
             &R::showRedirectAppStoreAlert),
        prop("showRedirectAppStoreAction", "show_redirect_appstore_action",
             &R::showRedirectAppStoreAction),
        prop("imageCornerRadiusPercent", "image_corner_radius_percent",
             &R::imageCornerRadiusPercent),
        prop("enableTCPEncryption", "enable_tcp_encryption", &R::enableTCPEncryption),
        prop("domainBlacklist", "domain_black_list", &R::domainBlacklist),
        prop("domainRegexBlacklist", "domain_regex_black_list", &R::domainRegexBlacklist,
             regularExpressionsTransformer()),
        prop("enableRearDelay", "enable_rear_delay", &R::enableRearDelay),
        prop("enableSentry", "enable_sentry", &R::enableSentry),
        prop("exclusiveVPNCheck", "exclusive_vpn", &R::exclusiveVPNCheck),
        prop("showDownload", "show_download", &R::showDownload),
        prop("enableV4API", "enable_v4_api", &R::enableV4API),
        prop("vpnBufferDuration", "buffer_time_before_vpn_disconnect", &R::vpnBufferDuration,
             timeStampTransformer()),
        prop("feedbackLogZipEnabled", "fb_log_zip_enabled", &R::feedbackLogZipEnabled),
        prop("enableNewLossScore", "enable_new_loss_score", &R::enableNewLossScore),
        prop("uiConfig", "ui_config", &R::uiConfig),
        prop("enableOldRouterDivider", "enable_old_router_divider", &R::enableOldRouterDivider),
        prop("displayLastGuideOnly", "display_last_guide_only", &R::displayLastGuideOnly),
    };
    return table;
}

}  // namespace lmkit

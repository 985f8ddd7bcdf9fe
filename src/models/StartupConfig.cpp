#include "lmkit/models/StartupConfig.hpp"

#include "lmkit/models/Transformers.hpp"

namespace lmkit {

const std::vector<Property<WikiURLConfiguration>>& WikiURLConfiguration::properties() {
    using R = WikiURLConfiguration;
    static const std::vector<Property<R>> table{
        prop("dualChannel", "dual_channel", &R::dualChannel),
        prop("delayInstruction", "delay_instruction", &R::delayInstruction),
        prop("boostTech", "boost_tech", &R::boostTech),
        prop("vpnAuthFailedGuideUrl", "vpn_auth_failed_guide", &R::vpnAuthFailedGuideUrl),
        prop("serverLock", "server_lock", &R::serverLock),
    };
    return table;
}

const std::vector<Property<ExceptionConfig>>& ExceptionConfig::properties() {
    using R = ExceptionConfig;
    static const std::vector<Property<R>> table{
        prop("defendSwitch", "exception_defend_switch", &R::defendSwitch),
        prop("defendCategory", "exception_defend_level", &R::defendCategory),
        prop("reportSwitch", "exception_report_switch", &R::reportSwitch),
    };
    return table;
}

const std::vector<Property<StartupConfig>>& StartupConfig::properties() {
    using R = StartupConfig;
    static const std::vector<Property<R>> table{
        prop("wikiURLConfiguration", "wiki_urls", &R::wikiURLConfiguration),
        prop("grayScaleSwitch", "grayscale_switch", &R::grayScaleSwitch),
        prop("enableDualChannel", "enable_dual_channel", &R::enableDualChannel),
        prop("unstableNetworkConfig", "unstable_network_conf", &R::unstableNetworkConfig),
        prop("networkConditionLevels", "network_condition_level", &R::networkConditionLevels),
        prop("openAppDialogID", "app_open_dialog", &R::openAppDialogID),
        prop("requestTimeoutInterval", "https_request_timeout_interval",
             &R::requestTimeoutInterval),
        prop("supportAppScheme", "support_app_scheme", &R::supportAppScheme),
        prop("delayMode", "select_node_strategy", &R::delayMode,
             valueMappingTransformer<long>({{"avg", 0}, {"min", 1}})),
        prop("exceptionConfig", "iOS_exception_config", &R::exceptionConfig),
        prop("apiMaxCacheTime", "api_max_cache_control", &R::apiMaxCacheTime),
        prop("dualChannelAlertConfig", "dual_channel_alert_config", &R::dualChannelAlertConfig),
        prop("mainlinkUseTLS", "grayscale_switch.mainlink_use_tls", &R::mainlinkUseTLS),
        prop("forceMainlinkTLS", "grayscale_switch.force_mainlink_use_tls", &R::forceMainlinkTLS),
        prop("tcpChannelUseTLS", "grayscale_switch.tcp_channel_use_tls", &R::tcpChannelUseTLS),
        prop("facebooksdkEnabled", "facebook_sdk_enabled", &R::facebooksdkEnabled),
        prop("splashScreenConfigs", "splash_screen", &R::splashScreenConfigs),
        prop("subpageTitle", "subpage_title", &R::subpageTitle),
        prop("enableIPDirect", "enable_ip_direct", &R::enableIPDirect),
        prop("enableSensors", "enable_sensors", &R::enableSensors),
        prop("enableFDTUNReadMode", "grayscale_switch.enable_file_descriptor_tun_read_mode",
             &R::enableFDTUNReadMode),
        prop("fallbackToUserDefaultsSync", "fallback_to_userdefaults_sync",
             &R::fallbackToUserDefaultsSync),
        prop("enablePureGRP", "grayscale_switch.enable_pure_grp", &R::enablePureGRP),
        prop("speedTestRatio", "speed_test_ratio", &R::speedTestRatio),
        prop("oldRegionSelectEnabled", "old_region_select_enabled", &R::oldRegionSelectEnabled),
    };
    return table;
}

}  // namespace lmkit

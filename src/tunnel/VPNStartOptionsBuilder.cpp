#include "lmkit/tunnel/VPNStartOptionsBuilder.hpp"

#include <cmath>
#include <limits>

#include "lmkit/foundation/Log.hpp"
#include "lmkit/tunnel/BanListFilter.hpp"

namespace lmkit {

namespace {

bool isEmpty(const std::optional<std::string>& text) {
    return !text || text->empty();
}

Json textOrNull(const std::optional<std::string>& text) {
    return text ? Json(*text) : Json();
}

Json numberOrNull(const std::optional<Number>& number) {
    return number ? number->toJson() : Json();
}

// A record's dictionary, or null when there is no record or it has no JSON form.
template <class R>
Json dictionaryOrNull(const std::shared_ptr<R>& record) {
    if (!record)
        return Json();
    auto dictionary = record->toJSONDictionary();
    return dictionary ? std::move(*dictionary) : Json();
}

// Records as an array of dictionaries. A list that does not convert travels as an empty array;
// missing entries are left out, since the tunnel rejects a list with a hole in it.
template <class R>
Json arrayOfDictionaries(const std::vector<std::shared_ptr<R>>& records) {
    Json array = Json::array();
    array.get_ref<Json::array_t&>().reserve(records.size());
    for (const auto& record : records) {
        if (!record)
            continue;
        auto dictionary = record->toJSONDictionary();
        if (!dictionary)
            return Json::array();
        array.push_back(std::move(*dictionary));
    }
    return array;
}

template <class R>
Json arrayOfDictionaries(const std::optional<std::vector<std::shared_ptr<R>>>& records) {
    return records ? arrayOfDictionaries(*records) : Json::array();
}

// Host rules and route domains meant for web-view acceleration stay in the app: the tunnel only
// sees rules for the game's own traffic.
template <class R>
Json withoutWebviewEntries(const std::optional<std::vector<std::shared_ptr<R>>>& rules) {
    Json kept = Json::array();
    if (!rules)
        return kept;
    for (const auto& rule : *rules) {
        if (!rule)
            continue;
        auto dictionary = rule->toJSONDictionary();
        if (rule->webviewBoost && rule->webviewBoost->boolValue())
            continue;
        if (!dictionary)
            continue;
        kept.push_back(std::move(*dictionary));
    }
    return kept;
}

// The unsigned value of a duration in seconds, as an unsigned cast gives it; NaN and negative
// values (which such a cast leaves undefined) give 0.
std::uint64_t unsignedSeconds(double seconds) {
    if (!(seconds > 0))
        return 0;
    if (seconds >= static_cast<double>(std::numeric_limits<std::uint64_t>::max()))
        return std::numeric_limits<std::uint64_t>::max();
    return static_cast<std::uint64_t>(seconds);
}

// The integer part of a double as a signed value, saturating instead of overflowing.
std::int64_t integerValue(double value) {
    if (std::isnan(value))
        return 0;
    if (value >= static_cast<double>(std::numeric_limits<std::int64_t>::max()))
        return std::numeric_limits<std::int64_t>::max();
    if (value <= static_cast<double>(std::numeric_limits<std::int64_t>::min()))
        return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(value);
}

Json gameDictionary(const Game* game, std::uint64_t dualChannelType) {
    Json dictionary = Json::object();
    dictionary["gid"] = game ? textOrNull(game->gid) : Json();
    dictionary["zoneGameSuperGid"] = game ? textOrNull(game->zoneGameSuperGid) : Json();
    dictionary["name"] = game ? textOrNull(game->name) : Json();
    dictionary["oversea"] = game ? game->oversea : false;
    dictionary["grade"] = game ? game->grade : std::uint64_t{0};
    // The dual-channel mode is the answer's, not the game's: the service decides it per
    // acceleration.
    dictionary["dualChannelType"] = dualChannelType;
    return dictionary;
}

// One relay login per node that has an address, as long as the account has both credentials.
Json socksInfos(const std::vector<std::shared_ptr<AccNode>>& nodes, const AccAccount& account,
                std::uint64_t dualChannelType) {
    Json relays = Json::array();
    for (const auto& node : nodes) {
        if (!node || isEmpty(node->ip))
            continue;
        if (isEmpty(account.username) || isEmpty(account.password))
            continue;
        Json relay = Json::object();
        relay["ip"] = *node->ip;
        relay["port"] = numberOrNull(node->port);
        relay["tlsPort"] =
            node->tlsPort ? node->tlsPort->toJson() : Json(VPNStartOptionsBuilder::kDefaultTLSPort);
        relay["netaskPort"] = node->netaskPort ? node->netaskPort->toJson()
                                               : Json(VPNStartOptionsBuilder::kDefaultNetaskPort);
        relay["username"] = *account.username;
        relay["password"] = *account.password;
        relay["sniIP"] = textOrNull(node->sniIP);
        relay["sniPort"] = numberOrNull(node->sniPort);
        relay["sniCryptType"] = numberOrNull(node->sniCryptType);
        relay["accIdentifier"] = textOrNull(node->identifier);
        relay["requestDualChannelType"] = dualChannelType;
        relay["delay"] = node->delay;
        relay["rearDelay"] = numberOrNull(node->rearDelay);
        relay["chartRearDelay"] = numberOrNull(node->chartRearDelay);
        relays.push_back(std::move(relay));
    }
    return relays;
}

bool hasEntries(const std::optional<std::vector<Json>>& values) {
    return values && !values->empty();
}

// The region lock only travels when the tunnel can act on it: top-N mode, with the regions,
// the addresses and the extra ban rules it needs.
Json regionLockDictionary(const std::shared_ptr<AutoRegionLockConfig>& config) {
    constexpr std::uint8_t kModeTopN = 1;
    if (!config || config->mode != kModeTopN || !hasEntries(config->allGameRegions) ||
        !hasEntries(config->allGameIPs) || !config->banListExtraConfigList ||
        config->banListExtraConfigList->empty())
        return Json();
    return dictionaryOrNull(config);
}

Json bufferSizeOrNull(const std::optional<Number>& size) {
    if (!size || size->intValue() < 1)
        return Json();
    return size->toJson();
}

}  // namespace

std::optional<Json> VPNStartOptionsBuilder::dictionaryWithGame(
    const VPNStartOptionsArguments& args) {
    if (!args.acc || !args.acc->account)
        return std::nullopt;
    if (args.accNodes.empty())
        return std::nullopt;
    const AccAPIResponseObject& acc = *args.acc;

    Json hosts = withoutWebviewEntries(acc.hosts);
    Json routeDomains = withoutWebviewEntries(acc.routeDomains);
    Json domainPatterns = Json::array();
    for (const auto& expression : args.domainRegexBlacklist)
        domainPatterns.push_back(expression.pattern());

    Json game = gameDictionary(args.game.get(), acc.dualChannelType);
    Json relays = socksInfos(args.accNodes, *acc.account, acc.dualChannelType);
    Json accNodes = arrayOfDictionaries(args.accNodes);
    Json multipathNodes = arrayOfDictionaries(args.multipathNodes);
    Json regionLock = regionLockDictionary(acc.autoRegionLockConfig);
    Json grpConfig = args.enableGRP ? dictionaryOrNull(acc.grpConfig) : Json();

    Json vpnBufferDuration = args.vpnBufferDuration > 0.0 ? Json(args.vpnBufferDuration)
                                                          : Json(kDefaultVPNBufferDuration);
    Json keepaliveTimeInterval =
        integerValue(acc.keepaliveTimeInterval) > 0 ? Json(acc.keepaliveTimeInterval) : Json(0);
    Json remoteDNSServerAddress =
        isEmpty(acc.remoteDNSServerAddress) ? Json("") : Json(*acc.remoteDNSServerAddress);

    Json o = Json::object();
    auto& members = static_cast<typename Json::object_t::Container&>(o.get_ref<Json::object_t&>());
    members.reserve(46);
    // Every key is new, so each one is appended in the order the tunnel documents list them.
    auto put = [&members](const char* key, Json value) {
        members.emplace_back(key, std::move(value));
    };
    put("game", std::move(game));
    put("account", dictionaryOrNull(acc.account));
    put("socksInfos", std::move(relays));
    put("accNodes", std::move(accNodes));
    put("multipathNodes", std::move(multipathNodes));
    put("multipathConfig", dictionaryOrNull(acc.multipathConfig));
    put("autoRegionLockConfig", std::move(regionLock));
    put("directRTTs",
        args.directRTTs ? Codec<std::map<std::string, Json>>::encode(*args.directRTTs) : Json());
    put("ipPortHijacks", arrayOfDictionaries(acc.ipPortHijacks));
    put("ipDataPath", textOrNull(args.ipDataPath));
    put("hosts", std::move(hosts));
    put("dnsList", acc.dnsList ? Json(*acc.dnsList) : Json::array());
    put("routes", arrayOfDictionaries(acc.accRoutes));
    put("mainlinkLoginTimeout", unsignedSeconds(acc.mainlinkLoginTimeout));
    put("keepaliveTimeInterval", std::move(keepaliveTimeInterval));
    put("routeDomains", std::move(routeDomains));
    put("remoteDNSServerAddress", std::move(remoteDNSServerAddress));
    put("vpnBufferDuration", std::move(vpnBufferDuration));
    put("domainBlacklist", args.domainBlacklist ? Json(*args.domainBlacklist) : Json());
    put("domainRegexBlacklist", std::move(domainPatterns));
    put("gamePingServerNode", dictionaryOrNull(acc.gamePingServerNode));
    put("tcpIpOverUdpPortRange",
        acc.tcpIpOverUdpPortRange ? *acc.tcpIpOverUdpPortRange : Json::array());
    put("mtu", numberOrNull(acc.mtu));
    put("delayMode", static_cast<std::int64_t>(args.delayMode));
    put("enableSproxyConfusion", acc.enableSproxyConfusion);
    put("enableTCPEncryption", args.enableTCPEncryption);
    put("enableDualChannel", args.enableDualChannel);
    put("tcpBanList", arrayOfDictionaries(filterBanList(acc, kBanListTCP)));
    put("udpBanList", arrayOfDictionaries(filterBanList(acc, kBanListUDP)));
    put("icmpBanList", arrayOfDictionaries(filterBanList(acc, kBanListICMP)));
    put("domainBanList", arrayOfDictionaries(filterBanList(acc, kBanListDomain)));
    put("regionPacketBanList", arrayOfDictionaries(filterBanList(acc, kBanListRegionPacket)));
    put("enableMultipath", acc.enableMultipath);
    put("dualChannelType", acc.dualChannelType);
    put("techIconState", dictionaryOrNull(acc.techIconState));
    // The answer's list as delivered; a value of another kind travels as it stands.
    const Json* heldPingIPs = acc.valueOfOtherKind("netToPingIPs");
    put("netToPingIPs", acc.netToPingIPs ? Json(*acc.netToPingIPs)
                        : heldPingIPs    ? *heldPingIPs
                                         : Json());
    put("blackListPorts", arrayOfDictionaries(acc.blackListPorts));
    put("mainlinkUseTLS", args.mainlinkUseTLS);
    put("forceMainlinkTLS", args.forceMainlinkTLS);
    put("tcpChannelUseTLS", args.tcpChannelUseTLS);
    put("enableOldRouterDivider", args.enableOldRouterDivider);
    put("enableFDTUNReadMode", args.enableFDTUNReadMode);
    put("fallbackToUserDefaultsSync", args.fallbackToUserDefaultsSync);
    put("grpConfig", std::move(grpConfig));
    put("udpSocketSendBuffer", bufferSizeOrNull(acc.udpSocketSendBuffer));
    put("udpSocketRecvBuffer", bufferSizeOrNull(acc.udpSocketRecvBuffer));
    return o;
}

std::shared_ptr<VPNStartOptions> VPNStartOptionsBuilder::optionsFromDictionary(
    const Json& dictionary, Error* error) {
    auto options = JSONAdapter::modelOfClass<VPNStartOptions>(dictionary, error);
    if (options)
        return options;
    // Support tools find this failure by the origin it has always been reported from, so the
    // line keeps that location rather than this file's.
    constexpr log::Location kOrigin{"VPNStartOptions", "optionsWithGame", 269};
    try {
        log::error("VPNStartOptions dict:" + dictionary.dump() + ", converting to model error",
                   log::Stream::App, kOrigin);
    } catch (const std::exception&) {
        // A dictionary that cannot be printed (invalid UTF-8 in a text) loses its log line only.
        log::error("VPNStartOptions dict:<unprintable>, converting to model error",
                   log::Stream::App, kOrigin);
    }
    return nullptr;
}

std::shared_ptr<VPNStartOptions> VPNStartOptionsBuilder::optionsWithGame(
    const VPNStartOptionsArguments& args, Error* error) {
    std::optional<Json> dictionary;
    try {
        dictionary = dictionaryWithGame(args);
    } catch (const std::exception& e) {
        // Only allocation can fail while gathering; report it like a failed conversion.
        if (error)
            *error = Error::withDescription(kJSONAdapterErrorDomain,
                                            kJSONAdapterErrorInvalidJSONDictionary, e.what());
        return nullptr;
    }
    if (!dictionary)
        return nullptr;
    return optionsFromDictionary(*dictionary, error);
}

}  // namespace lmkit

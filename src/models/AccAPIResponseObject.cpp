#include "lmkit/models/AccAPIResponseObject.hpp"

#include "lmkit/foundation/Log.hpp"
#include "lmkit/models/Transformers.hpp"

namespace lmkit {

namespace {

// Milliseconds to seconds in double precision (unlike timeStampTransformer).
Transformer<double> millisecondsTransformer() {
    Transformer<double> t;
    t.forward = [](const Json& in, double& out, Error&) {
        auto n = Number::fromJson(in);
        out = n ? n->doubleValue() / 1000.0 : 0.0;
        return true;
    };
    t.accepts = models_detail::acceptsNumber;
    t.reverse = [](const double& seconds) { return Json(seconds * 1000.0); };
    t.sample = [](int) { return Json(15000); };
    return t;
}

// The second path's nodes, mapped with the adapter element by element: this is the answer's own
// converter, so a malformed element is left out (and logged) instead of failing the answer.
using NodeList = std::optional<std::vector<std::shared_ptr<AccNode>>>;
Transformer<NodeList> multipathNodesTransformer() {
    Transformer<NodeList> t;
    t.forward = [](const Json& in, NodeList& out, Error&) {
        out.reset();
        if (!in.is_array())
            return true;
        out.emplace();
        std::size_t index = 0;
        for (const auto& element : in) {
            Error error;
            if (auto node = JSONAdapter::modelOfClass<AccNode>(element, &error))
                out->push_back(std::move(node));
            else
                log::error("[AccAPIResponseObject] multi_path_acc element " +
                           std::to_string(index) + " left out: " + error.localizedDescription());
            ++index;
        }
        return true;
    };
    t.reverse = [](const NodeList& nodes) -> Json {
        return nodes ? Codec<std::vector<std::shared_ptr<AccNode>>>::encode(*nodes) : Json();
    };
    t.accepts = [](const Json& in) { return in.is_array(); };
    t.sample = [](int depth) { return Sample<std::vector<std::shared_ptr<AccNode>>>::make(depth); };
    return t;
}

// Region echoes mapped entry by entry in the object's own order; the first entry that fails
// to map ends the walk, keeping the entries mapped before it.
using RegionEchos = std::optional<std::map<std::string, std::shared_ptr<AccGameRegionEcho>>>;
Transformer<RegionEchos> regionEchosTransformer() {
    Transformer<RegionEchos> t;
    t.forward = [](const Json& in, RegionEchos& out, Error&) {
        out.reset();
        if (!in.is_object())
            return true;
        out.emplace();
        for (const auto& [key, value] : in.items()) {
            auto echo = JSONAdapter::modelOfClass<AccGameRegionEcho>(value);
            if (!echo)
                break;
            out->emplace(key, std::move(echo));
        }
        return true;
    };
    t.reverse = [](const RegionEchos& echos) -> Json {
        if (!echos)
            return Json();
        Json object = Json::object();
        for (const auto& [key, echo] : *echos)
            object[key] = echo ? *JSONAdapter::JSONDictionaryFromModel(*echo) : Json();
        return object;
    };
    t.accepts = [](const Json& in) { return in.is_object(); };
    t.sample = [](int depth) { return Sample<RegionEchos>::make(depth); };
    return t;
}

}  // namespace

const std::vector<Property<AccAPIResponseObject>>& AccAPIResponseObject::properties() {
    using R = AccAPIResponseObject;
    static const std::vector<Property<R>> table{
        prop("account", &R::account),
        prop("accNodes", "acc", &R::accNodes),
        prop("accRoutes", "route", &R::accRoutes),
        prop("mtu", "config.mtu", &R::mtu),
        prop("dnsList", "config.dns", &R::dnsList),
        prop("scoreRangeGap", "config.score_range_gap", &R::scoreRangeGap),
        prop("mainlinkLoginTimeout", "config.mainlink_login_timeout", &R::mainlinkLoginTimeout,
             millisecondsTransformer()),
        prop("keepaliveTimeInterval", "config.keep_alive_duration", &R::keepaliveTimeInterval,
             millisecondsTransformer()),
        prop("hosts", &R::hosts),
        prop("remoteDNSServerAddress", "config.route_domain_dns", &R::remoteDNSServerAddress),
        prop("routeDomains", "route_domains", &R::routeDomains),
        prop("gamePingServerNode", "game_ping", &R::gamePingServerNode),
        prop("tcpIpOverUdpPortRange", "tcpip_over_udp_port_range", &R::tcpIpOverUdpPortRange),
        prop("clipboardDialogContent", "clipboard_dialog_content", &R::clipboardDialogContent),
        prop("clipboardDialogPositiveButtonTitle", "clipboard_dialog_positive",
             &R::clipboardDialogPositiveButtonTitle),
        prop("clipboardURLRegularExpression", "clipboard_url_regexp",
             &R::clipboardURLRegularExpression, regularExpressionTransformer()),
        prop("enableSproxyConfusion", "config.enable_sproxy_confusion", &R::enableSproxyConfusion),
        prop("selectNodeSpeedTestTimeout", "config.select_node_speed_test_timeout",
             &R::selectNodeSpeedTestTimeout),
        prop("clientIP", "client_ip", &R::clientIP),
        prop("banlist", &R::banlist),
        prop("enableMultipath", "enable_multi_path_acc", &R::enableMultipath),
        prop("multipathConfig", "multi_path_config", &R::multipathConfig),
        prop("multipathNodes", "multi_path_acc", &R::multipathNodes, multipathNodesTransformer()),
        prop("multipathFile", "multi_path_file", &R::multipathFile),
        prop("gameRegionEchos", "game_region_echo", &R::gameRegionEchos, regionEchosTransformer()),
        prop("ipPortHijacks", "ip_port_hijack", &R::ipPortHijacks),
        prop("techIconState", "boost_icon_state", &R::techIconState),
        prop("dualChannelType", "dual_channel", &R::dualChannelType,
             valueMappingTransformer<std::uint64_t>({{"off", 0}, {"udp", 1}, {"tcp_and_udp", 2}},
                                                    Number(0), "off")),
        prop("netspeedTasks", "netspeed_tasks", &R::netspeedTasks),
        prop("netToPingIPs", "net_to_ping_ips", &R::netToPingIPs),
        prop("blackListPorts", "port_blacklist", &R::blackListPorts),
        prop("grpConfig", "grp_config", &R::grpConfig),
        prop("autoRegionLockConfig", "auto_region_lock_config", &R::autoRegionLockConfig),
        prop("udpSocketSendBuffer", "config.udp_socket_send_buffer", &R::udpSocketSendBuffer),
        prop("udpSocketRecvBuffer", "config.udp_socket_recv_buffer", &R::udpSocketRecvBuffer),
    };
    return table;
}

}  // namespace lmkit

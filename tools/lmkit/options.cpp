// lmkit options: build the tunnel start options from a game and an acceleration answer, read
// them back as the tunnel does, and ask the tunnel's routing questions of them.
#include <cstdio>
#include <iostream>

#include <fmt/format.h>
#include <unistd.h>

#include "Command.hpp"
#include "DataFiles.hpp"
#include "NodeRun.hpp"
#include "lmkit/tunnel/RouteMatcher.hpp"
#include "lmkit/tunnel/VPNStartOptionsBuilder.hpp"
#include "lmkit/tunnel/VPNStartOptionsTransport.hpp"

namespace lmkit::tool {
namespace {

struct BuildOptions {
    std::string game;
    std::string acc;
    std::string nodes;
    bool select = false;
    double timeout = 1.0;
    long port = 9999;
    std::string out;
    bool compact = false;
    double vpnBufferDuration = 0;
    std::string delayMode = "avg";
    std::string ipDataPath;
    std::vector<std::string> domainBlacklist;
    std::vector<std::string> domainRegexBlacklist;
    std::vector<std::string> directRTTs;
    bool noMultipathNodes = false;
    VPNStartOptionsArguments switches;
};

struct ReadOptions {
    std::string file;
    std::string domain;
    std::string ip;
    long port = -1;
};

Json readJson(const std::string& path) {
    const Data data = readInput(path, kDefaultMaxInputBytes);
    Json json = Json::parse(data.begin(), data.end(), nullptr, false);
    if (json.is_discarded())
        throw Failure((path.empty() || path == "-" ? "standard input" : path) +
                      ": not a JSON document");
    return json;
}

template <class R>
std::shared_ptr<R> readRecord(const std::string& path) {
    Error error;
    auto record = JSONAdapter::modelOfClass<R>(readJson(path), &error);
    if (!record)
        throw Failure(path + ": " + error.localizedDescription());
    return record;
}

NodeSelector::Nodes readNodes(const std::string& path) {
    Json json = readJson(path);
    if (json.is_object() && json.contains("acc"))
        json = json["acc"];  // an acceleration answer: its nodes
    Error error;
    auto nodes = JSONAdapter::modelsOfClass<AccNode>(json, &error);
    if (!nodes)
        throw Failure(path + ": " + error.localizedDescription());
    return *nodes;
}

// "hk=12.5" as the direct round-trip time of "hk".
std::map<std::string, Json> directRTTsOf(const std::vector<std::string>& entries) {
    std::map<std::string, Json> rtts;
    for (const auto& entry : entries) {
        auto equals = entry.find('=');
        char* end = nullptr;
        const std::string value = equals == std::string::npos ? "" : entry.substr(equals + 1);
        double ms = std::strtod(value.c_str(), &end);
        if (equals == 0 || equals == std::string::npos || value.empty() || *end != '\0')
            throw Failure("--direct-rtt wants KEY=MILLISECONDS, got \"" + entry + "\"");
        rtts[entry.substr(0, equals)] = ms;
    }
    return rtts;
}

int runBuild(const BuildOptions& options) {
    VPNStartOptionsArguments args = options.switches;
    args.game = readRecord<Game>(options.game);
    auto acc = readRecord<AccAPIResponseObject>(options.acc);
    args.acc = acc;
    if (!acc->account)
        throw Failure(options.acc + ": the answer has no relay account");
    if (!options.nodes.empty()) {
        args.accNodes = readNodes(options.nodes);
    } else if (options.select) {
        NodeRunOptions run;
        run.mode = NodeSelector::kModeBestNode;
        run.timeout = options.timeout;
        run.port = options.port;
        run.progress = isatty(STDERR_FILENO);
        auto result = runSelection(acc->accNodes ? *acc->accNodes : NodeSelector::Nodes{},
                                   AccConfig::defaultConfig(), run);
        if (result.chosen.empty())
            throw Failure("no node answered the probes; nothing to build with");
        args.accNodes = result.chosen;
    } else if (acc->accNodes) {
        args.accNodes = *acc->accNodes;
    }
    if (acc->multipathNodes && !options.noMultipathNodes)
        args.multipathNodes = *acc->multipathNodes;
    if (!options.directRTTs.empty())
        args.directRTTs = directRTTsOf(options.directRTTs);
    if (!options.ipDataPath.empty())
        args.ipDataPath = options.ipDataPath;
    if (!options.domainBlacklist.empty())
        args.domainBlacklist = options.domainBlacklist;
    for (const auto& pattern : options.domainRegexBlacklist) {
        auto expression = RegularExpression::compile(pattern);
        if (!expression)
            throw Failure("--domain-regex-blacklist: \"" + pattern + "\" does not compile");
        args.domainRegexBlacklist.push_back(std::move(*expression));
    }
    args.vpnBufferDuration = options.vpnBufferDuration;
    args.delayMode =
        options.delayMode == "min" ? NodeSelector::kDelayModeMin : NodeSelector::kDelayModeAvg;

    if (args.accNodes.empty())
        throw Failure("no acceleration node to build with");
    Error error;
    auto built = VPNStartOptionsBuilder::optionsWithGame(args, &error);
    if (!built)
        throw Failure("the start options do not convert: " + describe(error));
    auto encoded = built->toJSONDictionary();
    if (!encoded)
        throw Failure("the start options have no JSON form");
    // The record's keys in the order the builder writes them (its own table lists the three
    // keys the start options add last).
    auto order = VPNStartOptionsBuilder::dictionaryWithGame(args);
    auto json = std::make_optional(Json::object());
    if (order)
        for (const auto& [key, value] : order->items())
            if (encoded->contains(key))
                (*json)[key] = (*encoded)[key];
    for (const auto& [key, value] : encoded->items())
        if (!json->contains(key))
            (*json)[key] = value;
    std::string text;
    try {
        text = options.compact ? json->dump() : json->dump(2);
    } catch (const std::exception& e) {
        throw Failure(std::string("the start options cannot be written: ") + e.what());
    }
    writeOutput(options.out, bytes::toData(text + "\n"));
    return 0;
}

std::shared_ptr<VPNSimpleStartOptions> readStartOptions(const std::string& path) {
    Error error;
    auto options = VPNStartOptionsTransport::decodeDictionary(readJson(path), &error);
    if (!options)
        throw Failure(path + ": " + error.localizedDescription());
    return options;
}

template <class T>
std::size_t countOf(const std::optional<std::vector<T>>& list) {
    return list ? list->size() : 0;
}

Json textOrNull(const std::optional<std::string>& text) {
    return text ? Json(*text) : Json();
}

Json summaryOf(const VPNSimpleStartOptions& o) {
    Json s = Json::object();
    s["game"] = o.game ? Json{{"gid", textOrNull(o.game->gid)},
                              {"name", textOrNull(o.game->name)},
                              {"dualChannelType", o.game->dualChannelType}}
                       : Json();
    s["account"] = o.account ? textOrNull(o.account->username) : Json();
    Json relays = Json::array();
    if (o.socksInfos)
        for (const auto& relay : *o.socksInfos)
            if (relay)
                relays.push_back(
                    {{"relay", textOrNull(relay->identifier())},
                     {"node", textOrNull(relay->accIdentifier)},
                     {"tlsPort", relay->tlsPort ? relay->tlsPort->toJson() : Json()},
                     {"netaskPort", relay->netaskPort ? relay->netaskPort->toJson() : Json()},
                     {"tcpEncryptMethod", textOrNull(relay->tcpEncryptMethod)}});
    s["relays"] = std::move(relays);
    s["accNodes"] = countOf(o.accNodes);
    s["multipathNodes"] = countOf(o.multipathNodes);
    s["hosts"] = countOf(o.hosts);
    s["acceleratedHostAddresses"] = o.uniqueAcceleratedIpFromHosts();
    s["routeDomains"] = countOf(o.routeDomains);
    s["dnsList"] = o.dnsList ? Json(*o.dnsList) : Json::array();
    s["netToPingIPs"] = o.netToPingIPs ? Json(*o.netToPingIPs) : Json();
    s["remoteDNSServerAddress"] = textOrNull(o.remoteDNSServerAddress);
    s["domainBlacklist"] = countOf(o.domainBlacklist);
    s["domainRegexBlacklist"] = countOf(o.domainRegexBlacklist);
    s["banLists"] = {{"tcp", countOf(o.tcpBanList)},
                     {"udp", countOf(o.udpBanList)},
                     {"icmp", countOf(o.icmpBanList)},
                     {"domain", countOf(o.domainBanList)},
                     {"regionPacket", countOf(o.regionPacketBanList)}};
    s["ipPortHijacks"] = countOf(o.ipPortHijacks);
    s["blackListPorts"] = countOf(o.blackListPorts);
    s["regionLock"] = o.autoRegionLockConfig != nullptr;
    s["multipathConfig"] = o.multipathConfig != nullptr;
    s["vpnBufferDuration"] = o.vpnBufferDuration;
    s["keepaliveTimeInterval"] =
        o.keepaliveTimeInterval ? o.keepaliveTimeInterval->toJson() : Json();
    s["mainlinkLoginTimeout"] = o.mainlinkLoginTimeout;
    s["udpSocketSendBuffer"] = o.udpSocketSendBuffer ? o.udpSocketSendBuffer->toJson() : Json();
    s["udpSocketRecvBuffer"] = o.udpSocketRecvBuffer ? o.udpSocketRecvBuffer->toJson() : Json();
    s["delayMode"] = o.delayMode;
    s["switches"] = {{"enableDualChannel", o.enableDualChannel},
                     {"enableTCPEncryption", o.enableTCPEncryption},
                     {"enableSproxyConfusion", o.enableSproxyConfusion},
                     {"enableMultipath", o.enableMultipath},
                     {"mainlinkUseTLS", o.mainlinkUseTLS},
                     {"forceMainlinkTLS", o.forceMainlinkTLS},
                     {"tcpChannelUseTLS", o.tcpChannelUseTLS},
                     {"enableOldRouterDivider", o.enableOldRouterDivider},
                     {"enableFDTUNReadMode", o.enableFDTUNReadMode},
                     {"fallbackToUserDefaultsSync", o.fallbackToUserDefaultsSync}};
    return s;
}

// One "name  value" line per entry; nested objects print as compact JSON.
void printSummary(const Json& summary) {
    for (const auto& [key, value] : summary.items()) {
        if (key == "relays") {
            std::printf("%-26s %zu\n", "relays", value.size());
            for (const auto& relay : value)
                std::printf(
                    "  %-24s node %s, tls %s, netask %s, %s\n",
                    relay["relay"].is_string() ? relay["relay"].get<std::string>().c_str() : "-",
                    relay["node"].dump().c_str(), relay["tlsPort"].dump().c_str(),
                    relay["netaskPort"].dump().c_str(), relay["tcpEncryptMethod"].dump().c_str());
            continue;
        }
        std::string text = value.is_string() ? value.get<std::string>() : value.dump();
        std::printf("%-26s %s\n", key.c_str(), text.c_str());
    }
}

Json ruleOrNull(const std::shared_ptr<BanListItem>& rule) {
    return rule ? rule->toJSONDictionary().value_or(Json()) : Json();
}

Json matchDomain(const RouteMatcher& matcher, const std::string& domain) {
    Json m = Json::object();
    m["domain"] = domain;
    m["blacklisted"] = matcher.isDomainBlacklisted(domain);
    m["domainBan"] = ruleOrNull(matcher.domainBanRule(domain));
    auto host = matcher.hostRuleForDomain(domain);
    m["hostRule"] = host ? host->toJSONDictionary().value_or(Json()) : Json();
    auto route = matcher.routeDomainForDomain(domain);
    m["routeDomain"] = route ? route->toJSONDictionary().value_or(Json()) : Json();
    return m;
}

Json matchAddress(const RouteMatcher& matcher, const std::string& ip, long port) {
    auto address = RouteMatcher::parseIPv4(ip);
    if (!address)
        throw Failure("--ip: \"" + ip + "\" is not an IPv4 address");
    std::optional<std::uint16_t> p;
    if (port >= 0)
        p = static_cast<std::uint16_t>(port);
    Json m = Json::object();
    m["ip"] = ip;
    m["port"] = p ? Json(*p) : Json();
    m["tcpBan"] = ruleOrNull(matcher.banRule(kBanListTCP, *address, p));
    m["udpBan"] = ruleOrNull(matcher.banRule(kBanListUDP, *address, p));
    m["icmpBan"] = ruleOrNull(matcher.banRule(kBanListICMP, *address));
    auto hijack = matcher.hijack(*address, p);
    m["hijack"] = hijack ? hijack->toJSONDictionary().value_or(Json()) : Json();
    m["acceleratedHostAddress"] = matcher.isAcceleratedHostAddress(ip);
    auto relay = matcher.relay(ip, p);
    m["relay"] = relay ? textOrNull(relay->identifier()) : Json();
    if (p) {
        m["blackListPortTCP"] = matcher.isBlackListPort(RouteMatcher::kPortRangeTCP, *p);
        m["blackListPortUDP"] = matcher.isBlackListPort(RouteMatcher::kPortRangeUDP, *p);
    }
    return m;
}

void addBuild(CLI::App& options, const std::shared_ptr<BuildOptions>& build) {
    CLI::App* app = options.add_subcommand("build", "Build the start options and print them");
    app->add_option("--game", build->game, "Game document")->required();
    app->add_option("--acc", build->acc, "Acceleration answer")->required();
    auto* nodes = app->add_option("--nodes", build->nodes,
                                  "Chosen nodes, best first (array of nodes or an answer)");
    app->add_flag("--select", build->select, "Choose the best node by probing the answer's nodes")
        ->excludes(nodes);
    app->add_option("--timeout", build->timeout, "Probe time-out in seconds for --select")
        ->check(CLI::Range(0.001, 3600.0));
    app->add_option("--port", build->port, "Probe port for --select")->check(CLI::Range(1, 65535));
    app->add_option("-o,--out", build->out, "Write to this file instead of standard output");
    app->add_flag("--compact", build->compact, "One line, as the start request carries it");
    app->add_option("--vpn-buffer-duration", build->vpnBufferDuration, "Seconds (0: default)");
    app->add_option("--delay-mode", build->delayMode, "avg or min")
        ->check(CLI::IsMember({"avg", "min"}));
    app->add_option("--ip-data-path", build->ipDataPath, "The tunnel's IP data file");
    app->add_option("--domain-blacklist", build->domainBlacklist, "Domain never tunnelled");
    app->add_option("--domain-regex-blacklist", build->domainRegexBlacklist,
                    "Pattern of domains never tunnelled");
    app->add_option("--direct-rtt", build->directRTTs, "KEY=MILLISECONDS direct round trip");
    app->add_flag("--no-multipath-nodes", build->noMultipathNodes,
                  "Leave out the answer's second-path nodes");
    auto& s = build->switches;
    app->add_flag("--enable-dual-channel", s.enableDualChannel);
    app->add_flag("--enable-tcp-encryption", s.enableTCPEncryption);
    app->add_flag("--mainlink-use-tls", s.mainlinkUseTLS);
    app->add_flag("--force-mainlink-tls", s.forceMainlinkTLS);
    app->add_flag("--tcp-channel-use-tls", s.tcpChannelUseTLS);
    app->add_flag("--enable-old-router-divider", s.enableOldRouterDivider);
    app->add_flag("--enable-fdtun-read-mode", s.enableFDTUNReadMode);
    app->add_flag("--fallback-to-user-defaults-sync", s.fallbackToUserDefaultsSync);
    app->add_flag("--enable-grp", s.enableGRP, "Hand on the answer's GRP configuration");
}

Command options(
    "options", "Build tunnel start options, read them as the tunnel does, match routes",
    [](CLI::App& app, Common& common) {
        app.require_subcommand(1);
        auto build = std::make_shared<BuildOptions>();
        addBuild(app, build);

        auto read = std::make_shared<ReadOptions>();
        CLI::App* inspect =
            app.add_subcommand("inspect", "Decode start options as the tunnel does; summarise");
        inspect->add_option("FILE", read->file, "Start options (standard input when -)")
            ->required();
        inspect->add_flag("--json", common.json, "Print data as JSON");

        CLI::App* match =
            app.add_subcommand("match", "Ask the tunnel's routing questions of start options");
        match->add_option("FILE", read->file, "Start options (standard input when -)")->required();
        auto* domain = match->add_option("--domain", read->domain, "Domain name to match");
        auto* ip = match->add_option("--ip", read->ip, "IPv4 address to match");
        domain->excludes(ip);
        match->add_option("--port", read->port, "Port of the address")
            ->check(CLI::Range(0, 65535))
            ->needs(ip);
        match->add_flag("--json", common.json, "Print data as JSON");

        return [&app, build, read, &common]() -> int {
            if (app.got_subcommand("build"))
                return runBuild(*build);
            auto options = readStartOptions(read->file);
            Json out;
            if (app.got_subcommand("inspect")) {
                out = summaryOf(*options);
            } else {
                RouteMatcher matcher(options);
                if (!read->domain.empty())
                    out = matchDomain(matcher, read->domain);
                else if (!read->ip.empty())
                    out = matchAddress(matcher, read->ip, read->port);
                else
                    throw Failure("match needs --domain or --ip");
            }
            if (common.json)
                std::cout << out.dump(2) << '\n';
            else
                printSummary(out);
            return 0;
        };
    });

}  // namespace
}  // namespace lmkit::tool

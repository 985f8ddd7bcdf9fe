// lmkit demo: the kit's whole road on its embedded default — simulated nodes on loopback, a Best
// Node selection over them, the ranked table and the choice; then the start options built from
// the choice, a tunnel started with them as a second process, and the game's direct and relayed
// delays that the tunnel measured, asked for over the app-tunnel channel.
#include <cstdio>

#include <fmt/format.h>
#include <unistd.h>

#include "Command.hpp"
#include "DemoTunnel.hpp"
#include "NodeRun.hpp"
#include "lmkit/models/AccAPIResponseObject.hpp"
#include "lmkit/testbed/EchoServer.hpp"
#include "lmkit/tunnel/VPNStartOptionsBuilder.hpp"
#include "lmkit/tunnel/VPNStartOptionsTransport.hpp"

namespace lmkit::tool {
namespace {

constexpr int kSimulatedNodes = 40;
// The game's own server, reached directly: farther than any relay plus its rear delay.
constexpr const char* kGameServerHost = "127.0.0.200";
constexpr double kGameServerDelaySeconds = 0.090;
constexpr int kRearDelayMs = 15;

// The embedded game record, as the service lists it.
const char* const kEmbeddedGame =
    R"({"gid": "demo-racer", "name": "Demo Racer", "oversea": true, "grade": 2,
        "dual_channel": "off"})";

// The embedded acceleration answer: 40 nodes on 127.0.0.1 to 127.0.0.40 with varied load and
// ISP weights, each echoing on `echoPort` and 15 ms from the game server, and the relay account,
// as the service would deliver them.
Json embeddedAnswer(uint16_t echoPort) {
    Json nodes = Json::array();
    for (int i = 1; i <= kSimulatedNodes; ++i) {
        char id[16];
        std::snprintf(id, sizeof id, "demo-%02d", i);
        nodes.push_back({{"id", id},
                         {"ip", "127.0.0." + std::to_string(i)},
                         {"port", 443},
                         {"total", 1000},
                         {"online", (i * 173) % 1000},
                         {"weight", 50 + (i * 7) % 50},
                         {"netask_port", echoPort},
                         {"rear_delay", kRearDelayMs}});
    }
    return {{"account", {{"account", "demo-user"}, {"gacc_code", "demo-code"}}}, {"acc", nodes}};
}

// Each simulated node's echo: a delay between 8 and 97 ms, some jitter, and loss on a few.
EchoFaults faultsOf(int i) {
    EchoFaults faults;
    faults.delaySeconds = (8 + (i * 37) % 90) / 1000.0;
    faults.jitterSeconds = (i % 5) / 1000.0;
    faults.loss = i % 7 == 0 ? 0.4 : i % 4 == 0 ? 0.1 : 0;
    return faults;
}

std::unique_ptr<EchoServer> startEchoes(uint16_t& port) {
    auto server = EchoServer::startOnOnePort(
        [](uint16_t chosen) {
            std::vector<EchoEndpointConfig> endpoints;
            for (int i = 1; i <= kSimulatedNodes; ++i)
                endpoints.push_back({"127.0.0." + std::to_string(i), chosen, faultsOf(i)});
            EchoFaults gameServer;
            gameServer.delaySeconds = kGameServerDelaySeconds;
            gameServer.jitterSeconds = 0.002;
            endpoints.push_back({kGameServerHost, chosen, gameServer});
            return endpoints;
        },
        42, port);
    if (!server)
        throw Failure("cannot start the simulated nodes on loopback");
    return server;
}

template <class R>
std::shared_ptr<R> embedded(const Json& document, const char* what) {
    Error error;
    auto record = JSONAdapter::modelOfClass<R>(document, &error);
    if (!record)
        throw Failure(std::string("embedded ") + what + ": " + describe(error));
    return record;
}

struct BuiltOptions {
    std::string text;  // the start request's text
    std::size_t keys = 0;
    std::vector<std::string> nodes;
};

BuiltOptions buildOptions(std::shared_ptr<const Game> game,
                          std::shared_ptr<const AccAPIResponseObject> answer,
                          const NodeSelector::Nodes& chosen) {
    VPNStartOptionsArguments args;
    args.game = std::move(game);
    args.acc = std::move(answer);
    args.accNodes = chosen;
    Error error;
    auto options = VPNStartOptionsBuilder::optionsWithGame(args, &error);
    if (!options)
        throw Failure("the start options were not built: " +
                      (error.domain.empty() ? std::string("the answer has no relay account")
                                            : describe(error)));
    auto text = VPNStartOptionsTransport::encode(*options, &error);
    auto dictionary = options->toJSONDictionary();
    if (!text || !dictionary)
        throw Failure("the start options have no text form: " + describe(error));
    BuiltOptions built{*text, dictionary->size(), {}};
    for (const auto& node : chosen)
        built.nodes.push_back(node->identifier.value_or(node->safePingServer()));
    return built;
}

Json roadJson(const BuiltOptions& options, const DemoRoadResult& road, uint16_t port) {
    return {{"options",
             {{"keys", options.keys}, {"nodes", options.nodes}, {"bytes", options.text.size()}}},
            {"game_server", fmt::format("{}:{}", kGameServerHost, port)},
            {"relay_node", road.relayNode},
            {"relay", road.relay},
            {"rear_delay", kRearDelayMs},
            {"direct_delay", road.directDelay},
            {"relay_delay", road.relayDelay},
            {"direct_delays", road.directDelays},
            {"relay_delays", road.relayDelays},
            {"benefit", road.directDelay - road.relayDelay},
            {"tunnel_exit_status", road.tunnelExitStatus}};
}

void printOptions(const BuiltOptions& options) {
    std::printf("\nstart options: %zu keys, %zu nodes (best %s), %zu bytes of JSON\n", options.keys,
                options.nodes.size(), options.nodes.front().c_str(), options.text.size());
}

void printRoad(const DemoRoadResult& road, uint16_t port) {
    const bool colour = isatty(STDOUT_FILENO);
    const double benefit = road.directDelay - road.relayDelay;
    std::printf("\ndirect  %6.1f ms  game server %s:%u (%zu samples)\n", road.directDelay,
                kGameServerHost, port, road.directDelays.size());
    std::printf("relay   %6.1f ms  %s %s + %d ms rear delay (%zu samples)\n", road.relayDelay,
                road.relayNode.c_str(), road.relay.c_str(), kRearDelayMs, road.relayDelays.size());
    const char* on = !colour ? "" : benefit > 0 ? "\033[1;32m" : "\033[1;31m";
    std::printf("%sbenefit %6.1f ms  (%.0f%% of the direct delay)%s\n", on, benefit,
                road.directDelay > 0 ? 100 * benefit / road.directDelay : 0.0,
                colour ? "\033[0m" : "");
}

struct DemoOptions {
    std::string tunnelSide;  // set: this process is the demo's tunnel
    std::string gameServer;
};

Command demo("demo", "Run the kit's whole road on simulated nodes and a tunnel on loopback",
             [](CLI::App& app, Common& common) {
                 app.add_flag("--json", common.json, "Print data as JSON");
                 auto options = std::make_shared<DemoOptions>();
                 // The tunnel half of the demo, started by the demo itself.
                 app.add_option("--tunnel-side", options->tunnelSide)->group("");
                 app.add_option("--game-server", options->gameServer)->group("");
                 return [&common, options]() -> int {
                     if (!options->tunnelSide.empty())
                         return runDemoTunnelSide(options->tunnelSide, options->gameServer);
                     auto game = embedded<Game>(Json::parse(kEmbeddedGame), "game");
                     uint16_t port = 0;
                     auto echoes = startEchoes(port);
                     auto answer = embedded<AccAPIResponseObject>(embeddedAnswer(port), "answer");
                     if (!answer->accNodes)
                         throw Failure("embedded answer: no nodes");
                     NodeRunOptions run;
                     run.mode = NodeSelector::kModeBestNode;
                     run.timeout = 1.0;
                     run.port = port;
                     run.progress = !common.json && isatty(STDOUT_FILENO);
                     if (!common.json)
                         std::printf("%d simulated nodes answering on 127.0.0.1-%d, port %u\n\n",
                                     kSimulatedNodes, kSimulatedNodes, port);
                     auto result = runSelection(*answer->accNodes, AccConfig::defaultConfig(), run);
                     if (!common.json)
                         printNodeTable(result);
                     if (result.chosen.empty())
                         throw Failure("no node chosen: no start options to build");

                     auto built = buildOptions(game, answer, result.chosen);
                     if (!common.json)
                         printOptions(built);
                     DemoRoadRequest request;
                     request.startOptionsText = built.text;
                     request.gid = game->gid.value_or("");
                     request.gameServerHost = kGameServerHost;
                     request.gameServerPort = port;
                     if (!common.json)
                         request.progress = [](const std::string& line) {
                             std::printf("%s\n", line.c_str());
                             std::fflush(stdout);
                         };
                     auto road = runDemoRoad(request);
                     if (common.json) {
                         auto out = nodeResultJson(result);
                         out["road"] = roadJson(built, road, port);
                         std::puts(out.dump(2).c_str());
                     } else {
                         printRoad(road, port);
                     }
                     return 0;
                 };
             });

}  // namespace
}  // namespace lmkit::tool

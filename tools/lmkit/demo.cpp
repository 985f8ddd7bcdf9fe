// lmkit demo: the kit's main job on its embedded default — simulated nodes on loopback, a Best
// Node selection over them, the ranked table and the choice.
#include <cstdio>

#include <unistd.h>

#include "Command.hpp"
#include "NodeRun.hpp"
#include "lmkit/models/AccAPIResponseObject.hpp"
#include "lmkit/platform/EchoServer.hpp"

namespace lmkit::tool {
namespace {

constexpr int kSimulatedNodes = 40;

// The embedded acceleration answer: 40 nodes on 127.0.0.1 to 127.0.0.40 with varied load and
// ISP weights, as the service would deliver them.
Json embeddedAnswer() {
    Json nodes = Json::array();
    for (int i = 1; i <= kSimulatedNodes; ++i) {
        char id[16];
        std::snprintf(id, sizeof id, "demo-%02d", i);
        nodes.push_back({{"id", id},
                         {"ip", "127.0.0." + std::to_string(i)},
                         {"port", 443},
                         {"total", 1000},
                         {"online", (i * 173) % 1000},
                         {"weight", 50 + (i * 7) % 50}});
    }
    return {{"acc", nodes}};
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
    for (int attempt = 0; attempt < 5; ++attempt) {
        auto finder = EchoServer::start({EchoEndpointConfig{"127.0.0.1", 0, {}}});
        if (!finder)
            continue;
        port = finder->endpoints()[0].port;
        finder.reset();
        std::vector<EchoEndpointConfig> endpoints;
        for (int i = 1; i <= kSimulatedNodes; ++i)
            endpoints.push_back({"127.0.0." + std::to_string(i), port, faultsOf(i)});
        if (auto server = EchoServer::start(endpoints, 42))
            return server;
    }
    throw Failure("cannot start the simulated nodes on loopback");
}

Command demo("demo", "Run the kit's main job on simulated nodes on loopback",
             [](CLI::App& app, Common& common) {
                 app.add_flag("--json", common.json, "Print data as JSON");
                 return [&common]() -> int {
                     Error error;
                     auto answer =
                         JSONAdapter::modelOfClass<AccAPIResponseObject>(embeddedAnswer(), &error);
                     if (!answer || !answer->accNodes)
                         throw Failure("embedded answer: " + describe(error));
                     uint16_t port = 0;
                     auto echoes = startEchoes(port);
                     NodeRunOptions run;
                     run.mode = NodeSelector::kModeBestNode;
                     run.timeout = 1.0;
                     run.port = port;
                     run.progress = !common.json && isatty(STDOUT_FILENO);
                     if (!common.json)
                         std::printf("%d simulated nodes answering on 127.0.0.1-%d, port %u\n\n",
                                     kSimulatedNodes, kSimulatedNodes, port);
                     auto result = runSelection(*answer->accNodes, AccConfig::defaultConfig(), run);
                     if (common.json) {
                         std::puts(nodeResultJson(result).dump(2).c_str());
                     } else {
                         printNodeTable(result);
                     }
                     return 0;
                 };
             });

}  // namespace
}  // namespace lmkit::tool

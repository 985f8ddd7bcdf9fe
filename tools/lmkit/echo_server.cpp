// lmkit echo-server: UDP echo endpoints (with optional faults) for demos, tests and benchmarks.
#include <netinet/in.h>

#include <cstdio>

#include <nlohmann/json.hpp>

#include "Command.hpp"
#include "InterruptWatch.hpp"
#include "lmkit/testbed/EchoServer.hpp"

namespace lmkit::tool {
namespace {

struct EchoOptions {
    std::vector<std::string> listen;
    int loopbackCount = 0;
    int port = 9999;
    std::string faults;
    uint64_t seed = 1;
    double duration = 0;
};

std::vector<EchoEndpointConfig> collectEndpoints(const EchoOptions& options) {
    std::vector<std::string> specs = options.listen;
    // Many simulated nodes on one port: 127.0.0.1, 127.0.0.2, ... all answer on `port`.
    for (int i = 1; i <= options.loopbackCount; ++i) {
        specs.push_back("127.0.0." + std::to_string(i) + ":" + std::to_string(options.port));
    }
    if (specs.empty())
        specs.push_back("127.0.0.1:" + std::to_string(options.port));
    std::vector<EchoEndpointConfig> endpoints;
    for (auto spec : specs) {
        if (!options.faults.empty() && spec.find('/') == std::string::npos) {
            spec += "/" + options.faults;
        }
        Error error;
        auto parsed = EchoServer::parseEndpoints(spec, &error);
        if (!parsed)
            throw Failure(error.localizedDescription());
        endpoints.insert(endpoints.end(), parsed->begin(), parsed->end());
    }
    return endpoints;
}

Command echoServer(
    "echo-server",
    "Answer UDP probes on one or many endpoints, with optional delay, loss and faults",
    [](CLI::App& app, Common& common) {
        auto options = std::make_shared<EchoOptions>();
        app.add_flag("--json", common.json, "Print the endpoints as JSON");
        app.add_option("--listen", options->listen,
                       "HOST:PORT[-LAST][/delay=MS,jitter=MS,late=MS,loss=P,junk=N,duplicate,"
                       "reorder,garbage,other-port]; repeatable");
        app.add_option("--loopback", options->loopbackCount,
                       "Also answer on 127.0.0.1 to 127.0.0.N, all on --port")
            ->check(CLI::Range(0, 254));
        app.add_option("--port", options->port, "Port for --loopback (and the default endpoint)")
            ->check(CLI::Range(0, 65535));
        app.add_option("--faults", options->faults,
                       "Faults for every endpoint without its own, e.g. delay=20,loss=0.1");
        app.add_option("--seed", options->seed, "Seed of the delay jitter and loss draws");
        app.add_option("--duration", options->duration, "Stop after this many seconds (0: never)")
            ->check(CLI::Range(0.0, 86400.0 * 365));
        return [options, &common]() -> int {
            auto endpoints = collectEndpoints(*options);
            Error error;
            auto server = EchoServer::start(endpoints, options->seed, &error);
            if (!server)
                throw Failure(error.localizedDescription());

            if (common.json) {
                auto list = nlohmann::ordered_json::array();
                for (const auto& endpoint : server->endpoints()) {
                    list.push_back({{"host", endpoint.host}, {"port", endpoint.port}});
                }
                std::printf("%s\n", nlohmann::ordered_json{{"endpoints", list}}.dump().c_str());
            } else {
                // Printed once every socket is bound and the server waits for datagrams: a script
                // that waits for these lines can send at once.
                for (const auto& endpoint : server->endpoints()) {
                    const bool v6 = endpoint.family == AF_INET6;
                    std::printf("listening %s%s%s:%u\n", v6 ? "[" : "", endpoint.host.c_str(),
                                v6 ? "]" : "", endpoint.port);
                }
            }
            std::fflush(stdout);

            InterruptWatch().wait(options->duration);
            server->stop();
            if (!common.json) {
                std::printf("answered %llu of %llu requests\n",
                            static_cast<unsigned long long>(server->repliesSent()),
                            static_cast<unsigned long long>(server->requestsReceived()));
            }
            return 0;
        };
    });

}  // namespace
}  // namespace lmkit::tool

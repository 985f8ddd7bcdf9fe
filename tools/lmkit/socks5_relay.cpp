// lmkit socks5-relay: a SOCKS5-style UDP relay (token-checked, with optional delay and loss) for
// trying the proxy speed test on one machine.
#include <cstdio>

#include <nlohmann/json.hpp>

#include "Command.hpp"
#include "InterruptWatch.hpp"
#include "lmkit/foundation/Log.hpp"
#include "lmkit/testbed/Socks5Relay.hpp"

namespace lmkit::tool {
namespace {

struct RelayOptions {
    std::string host = "127.0.0.1";
    int port = 1080;
    std::uint32_t token = 0;
    double delay = 0;
    double loss = 0;
    double idleTimeout = Socks5RelayConfig::kDefaultIdleTimeoutSeconds;
    std::size_t maxClients = Socks5RelayConfig::kDefaultMaxAssociations;
    std::uint64_t seed = 1;
    double duration = 0;
};

Command socks5Relay(
    "socks5-relay",
    "Relay SOCKS5-style UDP requests to their targets, with optional delay and loss",
    [](CLI::App& app, Common& common) {
        auto options = std::make_shared<RelayOptions>();
        app.add_flag("--json", common.json, "Print the endpoint as JSON");
        app.add_option("--host", options->host, "Address to listen on");
        app.add_option("--port", options->port, "Port to listen on (0: any)")
            ->check(CLI::Range(0, 65535));
        app.add_option("--token", options->token, "Token every request must carry")->required();
        app.add_option("--delay", options->delay, "Milliseconds added before forwarding")
            ->check(CLI::Range(0.0, 600000.0));
        app.add_option("--loss", options->loss, "Probability of dropping a request")
            ->check(CLI::Range(0.0, 1.0));
        app.add_option("--idle-timeout", options->idleTimeout,
                       "Seconds after which a silent client's upstream socket is closed")
            ->check(CLI::Range(0.001, 86400.0));
        app.add_option("--max-clients", options->maxClients,
                       "Clients served at once; a new one beyond it replaces the least recently "
                       "used")
            ->check(CLI::Range(1, 65536));
        app.add_option("--seed", options->seed, "Seed of the loss draws");
        app.add_option("--duration", options->duration, "Stop after this many seconds (0: never)")
            ->check(CLI::Range(0.0, 86400.0 * 365));
        return [options, &common]() -> int {
            Socks5RelayConfig config;
            config.host = options->host;
            config.port = static_cast<uint16_t>(options->port);
            config.token = options->token;
            config.faults.delaySeconds = options->delay / 1000;
            config.faults.loss = options->loss;
            config.idleTimeoutSeconds = options->idleTimeout;
            config.maxAssociations = options->maxClients;
            // Closed and evicted associations are worth seeing where the relay runs.
            log::setStderrLevel(log::kError | log::kWarning | log::kInfo);
            Error error;
            auto relay = Socks5Relay::start(config, options->seed, &error);
            if (!relay)
                throw Failure(describe(error));
            auto endpoint = relay->endpoint();
            if (common.json) {
                std::printf("%s\n",
                            nlohmann::ordered_json{{"host", endpoint.host}, {"port", endpoint.port}}
                                .dump()
                                .c_str());
            } else {
                // Printed once the relay waits for requests.
                std::printf("listening %s:%u (socks5 relay)\n", endpoint.host.c_str(),
                            endpoint.port);
            }
            std::fflush(stdout);
            InterruptWatch().wait(options->duration);
            relay->stop();
            if (!common.json) {
                std::printf("relayed %llu of %llu requests (%llu rejected), %llu replies\n",
                            static_cast<unsigned long long>(relay->requestsForwarded()),
                            static_cast<unsigned long long>(relay->requestsReceived()),
                            static_cast<unsigned long long>(relay->requestsRejected()),
                            static_cast<unsigned long long>(relay->repliesRelayed()));
            }
            return 0;
        };
    });

}  // namespace
}  // namespace lmkit::tool

// lmkit monitor: watch the local network with the network monitor until it reaches a verdict.
#include <atomic>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "Command.hpp"
#include "InterruptWatch.hpp"
#include "lmkit/foundation/UserDefaults.hpp"
#include "lmkit/nodes/NetworkMonitor.hpp"
#include "lmkit/nodes/QosSpeedTestOperation.hpp"

namespace lmkit::tool {
namespace {

struct MonitorOptions {
    std::string target;
    double interval = 0;  // 0: the stored configuration's
    double duration = 0;  // 0: until the verdict or an interrupt
};

bool isLoopback(const std::string& host) {
    return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

int runMonitor(const MonitorOptions& options, const Common& common) {
    std::string host;
    long port = 0;
    if (!QosSpeedTestOperation::splitAddress(options.target, host, port))
        throw Failure("expected HOST or HOST:PORT, got \"" + options.target + "\"");

    auto monitor = NetworkMonitor::sharedMonitor();
    if (port > 0)
        monitor->setPingPort(port);
    if (options.interval > 0) {
        // Keep the stored loss and deviation limits; only the period is the tool's.
        auto config = std::make_shared<UnstableNetworkConfig>();
        if (auto stored = monitor->unstableNetworkConfig())
            *config = *stored;
        config->interval = Number(options.interval);
        monitor->setUnstableNetworkConfig(config);
    }
    // A loopback endpoint is reachable without any Wi-Fi or cellular address.
    if (isLoopback(host))
        monitor->setNetworkValidCheck([] { return true; });
    else if (!monitor->isNetworkValid())
        throw Failure(
            "no usable Wi-Fi or cellular address, so no probe would be sent "
            "(on Linux, LMKIT_INTERFACE_NAMING=linux counts eth*/wl* names)");

    // Shared with the observer, which a probe callback may still be running after the stop.
    struct Counts {
        std::atomic<long> probes{0}, lost{0};
    };
    auto counts = std::make_shared<Counts>();
    std::atomic<long>& probes = counts->probes;
    std::atomic<long>& lost = counts->lost;
    bool quiet = common.json;
    monitor->setOutcomeObserver([counts, quiet](const NodeSelectorResult& outcome) {
        long n = ++counts->probes;
        if (outcome.lossPercent >= 1)
            ++counts->lost;
        if (quiet)
            return;
        if (outcome.lossPercent >= 1)
            std::printf("probe %ld: lost\n", n);
        else
            std::printf("probe %ld: %.2f ms\n", n, outcome.delay);
        std::fflush(stdout);
    });
    if (!common.json) {
        std::printf("monitoring %s:%ld every %.3fs (loss limit %.2f, deviation limit %.2f ms)\n",
                    host.c_str(), monitor->pingPort(), monitor->tickPeriod(), monitor->maxLoss(),
                    monitor->maxDeviation());
        std::fflush(stdout);
    }

    InterruptWatch interrupts;
    monitor->startMonitorWithTargetAddress(host);
    interrupts.wait(options.duration, [&] { return !monitor->isRunning(); });
    monitor->stopMonitor();
    monitor->setOutcomeObserver(nullptr);

    bool unstable = monitor->result() == NetworkMonitor::kResultUnstable;
    auto defaults = UserDefaults::suite();
    auto stored = defaults->objectForKey(NetworkMonitor::kLocalNetworkUnStableKey);
    std::string where = defaults->path().string();
    if (common.json) {
        nlohmann::ordered_json out{{"target", host},
                                   {"port", monitor->pingPort()},
                                   {"probes", probes.load()},
                                   {"lost", lost.load()},
                                   {"unstable", unstable},
                                   {"key", NetworkMonitor::kLocalNetworkUnStableKey},
                                   {"stored", stored ? *stored : nlohmann::ordered_json()},
                                   {"suite", where}};
        std::printf("%s\n", out.dump().c_str());
        return 0;
    }
    if (unstable) {
        std::printf("verdict: unstable after %ld probes (%ld lost)\n", probes.load(), lost.load());
        std::printf("stored %s = true in %s\n", NetworkMonitor::kLocalNetworkUnStableKey,
                    where.c_str());
    } else {
        std::printf("verdict: not found unstable after %ld probes (%ld lost)\n", probes.load(),
                    lost.load());
        std::printf("nothing stored; %s in %s is %s\n", NetworkMonitor::kLocalNetworkUnStableKey,
                    where.c_str(), stored ? stored->dump().c_str() : "not set");
    }
    return 0;
}

Command monitor("monitor",
                "Probe one echo endpoint periodically until the local network is found unstable",
                [](CLI::App& app, Common& common) {
                    auto options = std::make_shared<MonitorOptions>();
                    app.add_option("TARGET", options->target,
                                   "Echo endpoint: HOST, or HOST:PORT (port 9999 by default)")
                        ->required();
                    app.add_flag("--json", common.json, "Print the verdict as JSON");
                    app.add_option("--interval", options->interval,
                                   "Seconds between probes (default: the stored configuration's, "
                                   "else 1)")
                        ->check(CLI::Range(0.05, 3600.0));
                    app.add_option("--duration", options->duration,
                                   "Stop after this many seconds (0: at the verdict or Ctrl-C)")
                        ->check(CLI::Range(0.0, 86400.0));
                    return [options, &common]() -> int { return runMonitor(*options, common); };
                });

}  // namespace
}  // namespace lmkit::tool

// The QoS operation over many answering servers: it must end when the slowest server has
// answered, not when its budget of one second per address runs out. 200 loopback echo
// endpoints answer with delays spread from 5 to 200 ms; each run prints its time, the ratio to
// the budget and the ratio to the largest injected delay. Exits 1 when a run needed more than
// the largest delay + 0.5 s or lost an answer.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "lmkit/nodes/OperationQueue.hpp"
#include "lmkit/nodes/QosSpeedTestOperation.hpp"
#include "lmkit/testbed/EchoServer.hpp"

using namespace lmkit;
using SteadyClock = std::chrono::steady_clock;

namespace {

constexpr int kServers = 200;
constexpr int kRuns = 3;
constexpr double kLargestDelayMs = 200;
// Time allowed beyond the slowest answer: probe pacing, 200 sockets' set-up and scheduling.
constexpr double kAllowanceSeconds = 0.5;

double injectedDelayMs(int index) {
    // 5, 6, ... ms, spread evenly up to the largest.
    return 5 + (kLargestDelayMs - 5) * index / (kServers - 1);
}

}  // namespace

int main() {
    // Settings the selectors read go to a scratch app group, not the user's.
    std::filesystem::path group =
        std::filesystem::temp_directory_path() / ("lmkit-bench-qos-" + std::to_string(getpid()));
    if (!std::getenv("LMKIT_APP_GROUP_DIR"))
        setenv("LMKIT_APP_GROUP_DIR", group.c_str(), 1);
    if (!std::getenv("LMKIT_LOG_DIR"))
        setenv("LMKIT_LOG_DIR", (group / "logs").c_str(), 1);

    std::vector<EchoEndpointConfig> endpoints;
    for (int i = 0; i < kServers; ++i) {
        EchoFaults faults;
        faults.delaySeconds = injectedDelayMs(i) / 1000;
        endpoints.push_back({"127.0.0." + std::to_string(i % 250 + 1), 0, faults});
    }
    Error error;
    auto server = EchoServer::start(endpoints, 1, &error);
    if (!server) {
        std::fprintf(stderr, "bench_qos: echo endpoints: %s\n", describe(error).c_str());
        return 1;
    }
    std::vector<std::string> addresses;
    for (const auto& endpoint : server->endpoints())
        addresses.push_back(endpoint.host + ":" + std::to_string(endpoint.port));

    int status = 0;
    OperationQueue queue;
    for (int run = 1; run <= kRuns; ++run) {
        auto operation = QosSpeedTestOperation::create(addresses);
        auto start = SteadyClock::now();
        queue.addOperation(operation);
        queue.waitUntilAllOperationsAreFinished();
        double seconds = std::chrono::duration<double>(SteadyClock::now() - start).count();
        std::size_t answered = operation->results().size();
        double limit = kLargestDelayMs / 1000 + kAllowanceSeconds;
        bool ok = seconds <= limit && answered == addresses.size();
        std::printf(
            "run %d: %zu of %zu answered in %.3f s; ratio to budget (%.2f s) %.4f; ratio to "
            "largest delay (%.3f s) %.2f; limit %.3f s %s\n",
            run, answered, addresses.size(), seconds, operation->timeBudget(),
            seconds / operation->timeBudget(), kLargestDelayMs / 1000,
            seconds / (kLargestDelayMs / 1000), limit, ok ? "ok" : "EXCEEDED");
        if (!ok)
            status = 1;
    }
    server->stop();
    std::error_code ignored;
    std::filesystem::remove_all(group, ignored);
    return status;
}

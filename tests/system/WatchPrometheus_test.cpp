// test-labels: system
// Two `lmkit watch` processes (two vantage points) measure the same echo nodes; the real
// Prometheus scrapes both, and its query for the best node across them must name the node with
// the smallest injected delay. `promtool check metrics` must accept the page.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "lmkit/testbed/EchoServer.hpp"
#include "support/TestSupport.hpp"

using namespace lmkit;
using json = nlohmann::json;
using lmkit::testing::runCommand;
using lmkit::testing::waitFor;

namespace {

uint16_t freePort() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

// Starts `command` in the background; its process id.
pid_t background(const std::string& command, const std::filesystem::path& log) {
    auto pid = runCommand("exec " + command + " > '" + log.string() + "' 2>&1 & echo $!");
    return static_cast<pid_t>(std::stol(pid));
}

std::string httpGet(const std::string& url) {
    return runCommand("curl -s --max-time 5 '" + url + "'");
}

json query(uint16_t port, const std::string& promql) {
    auto text = runCommand("curl -s --max-time 5 -G 'http://127.0.0.1:" + std::to_string(port) +
                           "/api/v1/query' --data-urlencode 'query=" + promql + "'");
    auto parsed = json::parse(text, nullptr, false);
    return parsed.is_discarded() ? json() : parsed;
}

}  // namespace

TEST(WatchPrometheus, TheBestNodeAcrossTwoVantagePointsIsTheFastest) {
    if (std::string(LMKIT_TOOL_PATH).empty())
        GTEST_SKIP() << "the tool is not built";
    for (const char* program : {"prometheus", "promtool", "curl"})
        if (runCommand(std::string("command -v ") + program).empty())
            GTEST_SKIP() << program << " is not installed (scripts/setup installs it)";

    auto first = EchoServer::start({EchoEndpointConfig{"127.0.0.2", 0, {0.003}}});
    ASSERT_TRUE(first);
    const auto echoPort = first->endpoints()[0].port;
    auto others = EchoServer::start({EchoEndpointConfig{"127.0.0.3", echoPort, {0.015}},
                                     EchoEndpointConfig{"127.0.0.4", echoPort, {0.040}}});
    ASSERT_TRUE(others);
    std::string nodes;
    for (const char* host : {"127.0.0.2", "127.0.0.3", "127.0.0.4"})
        nodes += std::string(" ") + host + ":" + std::to_string(echoPort);

    lmkit::testing::TempDir dir;
    std::vector<pid_t> processes;
    std::vector<uint16_t> metricPorts;
    for (const char* vantage : {"a", "b"}) {
        metricPorts.push_back(freePort());
        processes.push_back(background(
            "env LMKIT_APP_GROUP_DIR='" + (dir.path() / vantage).string() + "' '" +
                LMKIT_TOOL_PATH + "' watch" + nodes +
                " --every 0.5 --metrics-listen 127.0.0.1:" + std::to_string(metricPorts.back()),
            dir.path() / (std::string(vantage) + ".log")));
    }
    const uint16_t prometheusPort = freePort();
    {
        std::ofstream config(dir.path() / "prometheus.yml");
        config << "global: {scrape_interval: 1s, evaluation_interval: 1s}\n"
               << "scrape_configs:\n  - job_name: lmkit\n    static_configs:\n"
               << "      - targets: ['127.0.0.1:" << metricPorts[0] << "']\n"
               << "        labels: {vantage: a}\n"
               << "      - targets: ['127.0.0.1:" << metricPorts[1] << "']\n"
               << "        labels: {vantage: b}\n";
    }
    processes.push_back(
        background("prometheus --config.file='" + (dir.path() / "prometheus.yml").string() +
                       "' --storage.tsdb.path='" + (dir.path() / "tsdb").string() +
                       "' --web.listen-address=127.0.0.1:" + std::to_string(prometheusPort),
                   dir.path() / "prometheus.log"));

    // Two scrapes of each vantage point.
    bool scraped = waitFor(
        [&] {
            auto result = query(prometheusPort, "count_over_time(up{job=\"lmkit\"}[5m]) >= 2");
            return result["data"]["result"].size() == 2;
        },
        40);
    json best, delay;
    if (scraped) {
        best = query(prometheusPort, "topk(1, avg by (node) (lmkit_node_score))");
        delay = query(prometheusPort,
                      "sum by (node) (lmkit_node_delay_seconds_sum) / "
                      "sum by (node) (lmkit_node_delay_seconds_count)");
    }
    int status = -1;
    runCommand("curl -s 'http://127.0.0.1:" + std::to_string(metricPorts[0]) +
                   "/metrics' | promtool check metrics",
               &status);
    for (pid_t pid : processes)
        ::kill(pid, SIGTERM);

    ASSERT_TRUE(scraped) << runCommand("tail -5 '" + (dir.path() / "prometheus.log").string() +
                                       "'");
    EXPECT_EQ(status, 0) << httpGet("http://127.0.0.1:" + std::to_string(metricPorts[0]) +
                                    "/metrics");
    const std::string fastest = "127.0.0.2:" + std::to_string(echoPort);
    ASSERT_EQ(best["data"]["result"].size(), 1u) << best.dump();
    EXPECT_EQ(best["data"]["result"][0]["metric"]["node"], fastest);
    bool seen = false;
    for (const auto& series : delay["data"]["result"]) {
        if (series["metric"]["node"] != fastest)
            continue;
        seen = true;
        const double seconds = std::stod(series["value"][1].get<std::string>());
        // 3 ms injected; the next node is 15 ms away, so anything below 9 ms is this one's own
        // delay, even in an instrumented build on a busy machine.
        EXPECT_GE(seconds, 0.003);
        EXPECT_LT(seconds, 0.009);
    }
    EXPECT_TRUE(seen) << delay.dump();
}

// lmkit proxy-test: delay and loss of the path through a SOCKS5-style UDP proxy to an echo
// endpoint, as the kit's proxy speed test measures it.
#include <arpa/inet.h>

#include <condition_variable>
#include <cstdio>
#include <mutex>

#include <nlohmann/json.hpp>

#include "Command.hpp"
#include "lmkit/nodes/ProxySpeedTest.hpp"

namespace lmkit::tool {
namespace {

struct ProxyOptions {
    std::string proxy;
    std::string token;
    std::string target;
    long count = 10;
    double interval = 0;
};

std::pair<std::string, long> splitHostPort(const std::string& text, const char* what) {
    auto colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size())
        throw Failure(std::string("bad ") + what + " \"" + text + "\": expected HOST:PORT");
    std::string host = text.substr(0, colon);
    if (host.size() > 1 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    char* end = nullptr;
    long port = std::strtol(text.c_str() + colon + 1, &end, 10);
    if (*end != '\0' || port < 1 || port > 65535)
        throw Failure(std::string("bad ") + what + " \"" + text +
                      "\": the port must be 1 to 65535");
    return {host, port};
}

struct Result {
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    double delay = 0;
    double loss = 0;
    std::optional<Error> error;
};

Command proxyTest(
    "proxy-test", "Measure delay and loss through a SOCKS5-style UDP proxy to an echo endpoint",
    [](CLI::App& app, Common& common) {
        auto options = std::make_shared<ProxyOptions>();
        app.add_flag("--json", common.json, "Print the result as JSON");
        app.add_option("--proxy", options->proxy, "Proxy HOST:PORT")->required();
        app.add_option("--token", options->token, "Decimal authorisation token")->required();
        app.add_option("--target", options->target, "Echo endpoint IPv4:PORT behind the proxy")
            ->required();
        app.add_option("--count", options->count, "Datagrams to send")
            ->check(CLI::Range(1L, 100000L));
        app.add_option("--interval", options->interval, "Seconds between datagrams (0: burst)")
            ->check(CLI::Range(0.0, 3600.0));
        return [options, &common]() -> int {
            auto [proxyHost, proxyPort] = splitHostPort(options->proxy, "proxy");
            auto [targetHost, targetPort] = splitHostPort(options->target, "target");
            in_addr parsed{};
            if (inet_pton(AF_INET, targetHost.c_str(), &parsed) != 1)
                throw Failure("bad target \"" + options->target +
                              "\": the proxy is told an IPv4 address");
            auto test = ProxySpeedTest::create(options->interval, options->count, 0, proxyHost,
                                               proxyPort, options->token);
            if (!test)
                throw Failure("the proxy, the token and a count are needed");
            auto result = std::make_shared<Result>();
            auto finish = [result](auto&& fill) {
                std::lock_guard guard(result->mutex);
                fill(*result);
                result->finished = true;
                result->done.notify_all();
            };
            test->speedTestToTargetAddress(
                targetHost, targetPort,
                [finish](double delay, double loss) {
                    finish([&](Result& r) {
                        r.delay = delay;
                        r.loss = loss;
                    });
                },
                [finish](const std::optional<Error>& error) {
                    finish([&](Result& r) {
                        r.error =
                            error ? *error
                                  : Error::withDescription(ProxySpeedTest::kErrorDomain,
                                                           ProxySpeedTest::kErrorSocketClosed,
                                                           ProxySpeedTest::kDidCloseDescription);
                    });
                });
            std::unique_lock lock(result->mutex);
            // Sending takes count x interval, then the receive deadline; the margin only
            // guards against a stuck system.
            double patience = static_cast<double>(options->count) * options->interval +
                              ProxySpeedTest::kPacketReceiveTimeout + 5;
            result->done.wait_for(lock, std::chrono::duration<double>(patience),
                                  [&] { return result->finished; });
            const long late = test->lateReplyCount();
            const long duplicates = test->duplicateReplyCount();
            test->stop();
            if (!result->finished)
                throw Failure("no result from the proxy speed test");
            if (result->error)
                throw Failure(options->proxy + ": " + describe(*result->error));
            if (common.json) {
                nlohmann::ordered_json out = {
                    {"proxy", options->proxy}, {"target", options->target},
                    {"sent", options->count},  {"avg_ms", result->delay},
                    {"loss", result->loss},    {"late", late},
                    {"duplicates", duplicates}};
                std::printf("%s\n", out.dump().c_str());
            } else {
                std::printf(
                    "proxy %s -> %s: %ld sent, average delay %.3f ms, loss %.1f%%, %ld late, "
                    "+%ld duplicates\n",
                    options->proxy.c_str(), options->target.c_str(), options->count, result->delay,
                    result->loss * 100, late, duplicates);
            }
            return 0;
        };
    });

}  // namespace
}  // namespace lmkit::tool

// lmkit ping: measure one UDP echo endpoint the way ping(8) measures a host, one timestamp
// datagram per round, and summarise delay, deviation and loss.
#include <arpa/inet.h>
#include <netdb.h>

#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Command.hpp"
#include "lmkit/nodes/ProbePacket.hpp"
#include "lmkit/nodes/SimplePinger.hpp"

namespace lmkit::tool {
namespace {

struct PingOptions {
    std::string target;
    int count = 5;
    double interval = 1.0;
    double timeout = 1.0;
    std::string interface = "any";
};

// "HOST", "HOST:PORT", "[V6]:PORT" or a bare IPv6 literal.
SimplePingNode parseTarget(const std::string& text) {
    std::string host = text;
    long port = probe::kDefaultProbePort;
    std::string portText;
    if (!text.empty() && text.front() == '[') {
        auto close = text.find(']');
        if (close == std::string::npos)
            throw Failure("bad target \"" + text + "\": expected [IPv6]:PORT");
        host = text.substr(1, close - 1);
        if (close + 1 < text.size()) {
            if (text[close + 1] != ':')
                throw Failure("bad target \"" + text + "\": expected [IPv6]:PORT");
            portText = text.substr(close + 2);
        }
    } else if (auto colon = text.rfind(':');
               colon != std::string::npos && text.find(':') == colon) {
        host = text.substr(0, colon);
        portText = text.substr(colon + 1);
    }
    if (!portText.empty() || (text.size() > 0 && text.back() == ':')) {
        char* end = nullptr;
        port = std::strtol(portText.c_str(), &end, 10);
        if (portText.empty() || *end != '\0' || port < 1 || port > 65535)
            throw Failure("bad target \"" + text + "\": the port must be 1 to 65535");
    }
    if (host.empty())
        throw Failure("bad target \"" + text + "\": no host");
    in6_addr v6{};
    if (host.find(':') != std::string::npos && inet_pton(AF_INET6, host.c_str(), &v6) != 1)
        throw Failure("bad target \"" + text + "\": expected HOST[:PORT] or [IPv6]:PORT");
    return SimplePingNode(host, port);
}

// A name that does not resolve would otherwise look like an endpoint that never answers.
void requireResolvable(const std::string& host) {
    in6_addr v6{};
    in_addr v4{};
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1 || inet_pton(AF_INET6, host.c_str(), &v6) == 1)
        return;
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* results = nullptr;
    int status = getaddrinfo(host.c_str(), nullptr, &hints, &results);
    if (results)
        freeaddrinfo(results);
    if (status != 0)
        throw Failure(host + ": the name does not resolve (" + gai_strerror(status) + ")");
}

long interfaceType(const std::string& name) {
    if (name == "any")
        return SimplePinger::kInterfaceAny;
    if (name == "wifi")
        return SimplePinger::kInterfaceWiFi;
    if (name == "cellular")
        return SimplePinger::kInterfaceCellular;
    throw Failure("bad interface \"" + name + "\": use any, wifi or cellular");
}

// One measurement's outcome, waited for on the tool's thread.
struct Round {
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    std::optional<double> delay;
    std::optional<Error> error;
};

std::optional<double> pingOnce(SimplePinger& pinger, std::optional<Error>& error) {
    auto round = std::make_shared<Round>();
    pinger.testPing(
        [round](double delay) {
            std::lock_guard guard(round->mutex);
            round->delay = delay;
            round->finished = true;
            round->done.notify_all();
        },
        [round](const std::optional<Error>& failure) {
            std::lock_guard guard(round->mutex);
            round->error = failure;
            round->finished = true;
            round->done.notify_all();
        });
    std::unique_lock lock(round->mutex);
    // The pinger always answers within its time-out, unless the node has no address; the
    // margin only guards against a stuck system.
    round->done.wait_for(lock, std::chrono::duration<double>(pinger.testPingTimeout() + 5),
                         [&] { return round->finished; });
    if (!round->finished)
        error = Error::withDescription(SimplePinger::kErrorDomain, SimplePinger::kErrorTimeout,
                                       SimplePinger::kTimeoutDescription);
    else if (!round->delay)
        error = round->error ? *round->error
                             : Error::withDescription(SimplePinger::kErrorDomain,
                                                      SimplePinger::kErrorSocketClosed,
                                                      SimplePinger::kDidCloseDescription);
    return round->delay;
}

Command ping(
    "ping", "Measure the UDP echo delay to one endpoint, like ping(8)",
    [](CLI::App& app, Common& common) {
        auto options = std::make_shared<PingOptions>();
        app.add_flag("--json", common.json, "Print the rounds and summary as JSON");
        app.add_option("TARGET", options->target, "HOST[:PORT] (port 9999 by default)")->required();
        app.add_option("-c,--count", options->count, "Rounds to send (default 5)")
            ->check(CLI::Range(1, 100000));
        app.add_option("-i,--interval", options->interval,
                       "Seconds from one round's start to the next (default 1)")
            ->check(CLI::Range(0.0, 3600.0));
        app.add_option("--timeout", options->timeout,
                       "Seconds to wait for each echo (default 1); a later echo counts as late")
            ->check(CLI::Range(0.001, 3600.0));
        app.add_option("--interface", options->interface, "any, wifi or cellular");
        return [options, &common]() -> int {
            auto node = parseTarget(options->target);
            requireResolvable(node.address);
            auto pinger =
                SimplePinger::create(interfaceType(options->interface), options->timeout, node);
            std::string where = fmt::format("{}:{}", node.address, node.port);
            if (!common.json)
                std::printf("PING %s (udp echo)\n", where.c_str());
            std::vector<double> delays;
            std::optional<Error> lastError;
            auto rounds = nlohmann::ordered_json::array();
            // Rounds start on a fixed schedule, as ping(8) sends: a slow echo does not push the
            // following rounds back.
            const auto begin = std::chrono::steady_clock::now();
            for (int seq = 0; seq < options->count; ++seq) {
                if (seq > 0)
                    std::this_thread::sleep_until(
                        begin + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                    std::chrono::duration<double>(options->interval * seq)));
                std::optional<Error> error;
                auto delay = pingOnce(*pinger, error);
                if (delay) {
                    delays.push_back(*delay);
                    rounds.push_back({{"seq", seq}, {"time_ms", *delay}});
                    if (!common.json)
                        std::printf("reply from %s: seq=%d time=%.3f ms\n", where.c_str(), seq,
                                    *delay);
                } else {
                    lastError = error;
                    rounds.push_back({{"seq", seq}, {"error", describe(*error)}});
                    // A socket or interface failure will not heal by retrying.
                    if (error->code != SimplePinger::kErrorTimeout)
                        break;
                    if (!common.json)
                        std::printf("no reply from %s: seq=%d (%s)\n", where.c_str(), seq,
                                    describe(*error).c_str());
                }
                std::fflush(stdout);
            }
            // An echo of the last round may still be on its way: give it the round's time-out to
            // be counted late rather than silently lost.
            if (!rounds.empty() && rounds.back().contains("error"))
                std::this_thread::sleep_for(std::chrono::duration<double>(
                    std::min(options->timeout, std::max(options->interval, 0.05))));
            const long late = pinger->lateReplyCount();
            const long duplicates = pinger->duplicateReplyCount();
            pinger->stop();
            if (delays.empty())
                throw Failure(where + ": " + describe(*lastError) +
                              (late > 0 ? fmt::format(" ({} late)", late) : ""));

            std::size_t sent = rounds.size();
            double min = delays[0], max = delays[0], sum = 0, squares = 0;
            for (double d : delays) {
                min = std::min(min, d);
                max = std::max(max, d);
                sum += d;
            }
            double avg = sum / static_cast<double>(delays.size());
            for (double d : delays)
                squares += (d - avg) * (d - avg);
            double deviation = std::sqrt(squares / static_cast<double>(delays.size()));
            double loss = 1.0 - static_cast<double>(delays.size()) / static_cast<double>(sent);
            if (common.json) {
                nlohmann::ordered_json out = {{"target", where},
                                              {"sent", sent},
                                              {"received", delays.size()},
                                              {"loss", loss},
                                              {"late", late},
                                              {"duplicates", duplicates},
                                              {"min_ms", min},
                                              {"avg_ms", avg},
                                              {"max_ms", max},
                                              {"deviation_ms", deviation},
                                              {"rounds", rounds}};
                std::printf("%s\n", out.dump().c_str());
            } else {
                std::printf("--- %s ping statistics ---\n", where.c_str());
                std::string extra;
                if (late > 0)
                    extra += fmt::format(", {} late", late);
                if (duplicates > 0)
                    extra += fmt::format(", +{} duplicates", duplicates);
                std::printf("%zu sent, %zu received, %.1f%% loss%s\n", sent, delays.size(),
                            loss * 100, extra.c_str());
                std::printf("min/avg/max/deviation = %.3f/%.3f/%.3f/%.3f ms\n", min, avg, max,
                            deviation);
            }
            return 0;
        };
    });

}  // namespace
}  // namespace lmkit::tool

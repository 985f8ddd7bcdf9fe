// Latency of the app-tunnel message channel between two processes, from the pass operation in
// one process to the handler call in the other, against a UNIX datagram socket ping-pong
// between the same two kinds of process measured in the same run.
//
// The bench re-executes itself as the echoing process. Each round trip is two one-way trips
// (there and back); both are timed on CLOCK_MONOTONIC, which the two processes share. Prints
// median and p99 of the one-way latency of both carriers, their ratios, and whether the channel
// meets its targets (median at most 1 ms, p99 at most 5 ms).
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "BenchTable.hpp"
#include "lmkit/foundation/Log.hpp"
#include "lmkit/tunnel/WormholeManager.hpp"

extern char** environ;

using namespace lmkit;

namespace {

constexpr int kWarmUp = 200;
constexpr int kRoundTrips = 3000;
constexpr double kTargetMedianMs = 1.0;
constexpr double kTargetP99Ms = 5.0;
constexpr const char* kPing = "BenchPing";
constexpr const char* kPong = "BenchPong";

std::int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

pid_t spawnSelf(const std::vector<std::string>& args) {
    std::vector<std::string> all = {"/proc/self/exe"};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : all)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, "/proc/self/exe", nullptr, nullptr, argv.data(), environ) != 0)
        return -1;
    return pid;
}

void stopChild(pid_t pid) {
    ::kill(pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);
}

// The echoing side of the channel: every ping comes back as a pong with its arrival time.
[[noreturn]] void channelEcho(const std::string& container) {
    auto manager = WormholeManager::create(container);
    manager->listenForMessageWithCmd(kPing, [manager](const WormholeMessageObject& object) {
        auto arrived = nowNs();
        auto root = object.root;
        root["arrived"] = arrived;
        manager->executeCmd(kPong, WormholeMessageObject::dictionary(std::move(root)));
    });
    for (;;)
        ::pause();
}

// The echoing side of the socket pair.
[[noreturn]] void socketEcho(int fd) {
    std::int64_t stamps[2];
    for (;;) {
        ssize_t n = ::recv(fd, stamps, sizeof stamps, 0);
        if (n <= 0)
            std::_Exit(0);
        stamps[1] = nowNs();
        if (::send(fd, stamps, sizeof stamps, 0) < 0)
            std::_Exit(0);
    }
}

struct Stats {
    double median = 0;
    double p99 = 0;
    double max = 0;
    std::size_t samples = 0;
};

Stats statsOf(std::vector<double> ms) {
    Stats s;
    if (ms.empty())
        return s;
    s.samples = ms.size();
    s.median = bench::median(ms);
    s.p99 = bench::percentile(ms, 0.99);
    s.max = *std::max_element(ms.begin(), ms.end());
    return s;
}

// One-way latencies (ms) of the socket ping-pong.
std::vector<double> measureSocket() {
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_DGRAM, 0, pair) != 0) {
        std::perror("socketpair");
        std::exit(1);
    }
    pid_t child = spawnSelf({"socket-echo", std::to_string(pair[1])});
    ::close(pair[1]);
    std::vector<double> legs;
    for (int i = 0; i < kWarmUp + kRoundTrips; ++i) {
        std::int64_t stamps[2] = {nowNs(), 0};
        if (::send(pair[0], stamps, sizeof stamps, 0) < 0 ||
            ::recv(pair[0], stamps, sizeof stamps, 0) != sizeof stamps)
            break;
        auto back = nowNs();
        if (i >= kWarmUp) {
            legs.push_back((stamps[1] - stamps[0]) / 1e6);
            legs.push_back((back - stamps[1]) / 1e6);
        }
    }
    ::close(pair[0]);
    stopChild(child);
    return legs;
}

// One-way latencies (ms) of the channel: pass in one process to handler call in the other.
std::vector<double> measureChannel(const std::filesystem::path& container) {
    auto manager = WormholeManager::create(container);
    std::mutex mutex;
    std::condition_variable arrived;
    std::int64_t sent = 0, echoed = 0, received = 0;
    int pongs = 0;
    manager->listenForMessageWithCmd(kPong, [&](const WormholeMessageObject& object) {
        auto now = nowNs();
        std::lock_guard lock(mutex);
        if (!object.root.contains("sent") || !object.root.contains("arrived"))
            return;
        if (object.root["sent"].get<std::int64_t>() != sent)
            return;  // a late pong of an earlier round
        echoed = object.root["arrived"].get<std::int64_t>();
        received = now;
        ++pongs;
        arrived.notify_all();
    });
    pid_t child = spawnSelf({"channel-echo", container.string()});
    // The echo is ready once a ping comes back.
    std::vector<double> legs;
    int lost = 0, startAttempts = 0;
    for (int i = 0; i < kWarmUp + kRoundTrips; ++i) {
        int before;
        {
            std::lock_guard lock(mutex);
            sent = nowNs();
            before = pongs;
        }
        manager->executeCmd(kPing, WormholeMessageObject::dictionary({{"sent", sent}}));
        std::unique_lock lock(mutex);
        // The first ping may go out before the echo listens: wait long, then resend.
        if (!arrived.wait_for(lock, std::chrono::seconds(i == 0 ? 5 : 1),
                              [&] { return pongs > before; })) {
            if (i == 0) {
                if (++startAttempts > 5)
                    break;
                --i;
            } else {
                ++lost;
            }
            continue;
        }
        if (i >= kWarmUp) {
            legs.push_back((echoed - sent) / 1e6);
            legs.push_back((received - echoed) / 1e6);
        }
    }
    stopChild(child);
    if (lost)
        std::printf("channel: %d pings without answer in time\n", lost);
    return legs;
}

}  // namespace

int main(int argc, char** argv) {
    log::setFileLoggingEnabled(false);
    if (argc == 3 && std::strcmp(argv[1], "channel-echo") == 0)
        channelEcho(argv[2]);
    if (argc == 3 && std::strcmp(argv[1], "socket-echo") == 0)
        socketEcho(std::atoi(argv[2]));

    char pattern[] = "/tmp/lmkit-bench-channel-XXXXXX";
    if (!::mkdtemp(pattern)) {
        std::perror("mkdtemp");
        return 1;
    }
    std::filesystem::path container(pattern);

    auto socket = statsOf(measureSocket());
    auto channel = statsOf(measureChannel(container));
    std::error_code ignored;
    std::filesystem::remove_all(container, ignored);

    std::printf("one-way latency between two processes, %d round trips each (%s)\n", kRoundTrips,
                container.c_str());
    std::printf("%-28s %10s %10s %10s %8s\n", "carrier", "median ms", "p99 ms", "max ms",
                "samples");
    std::printf("%-28s %10.4f %10.4f %10.4f %8zu\n", "unix datagram socket", socket.median,
                socket.p99, socket.max, socket.samples);
    std::printf("%-28s %10.4f %10.4f %10.4f %8zu\n", "message channel (Wormhole)", channel.median,
                channel.p99, channel.max, channel.samples);
    if (socket.median > 0 && socket.p99 > 0)
        std::printf("ratio channel/socket: median %.1fx, p99 %.1fx\n",
                    channel.median / socket.median, channel.p99 / socket.p99);
    bool medianOk = channel.samples > 0 && channel.median <= kTargetMedianMs;
    bool p99Ok = channel.samples > 0 && channel.p99 <= kTargetP99Ms;
    std::printf("target median <= %.1f ms: %s; target p99 <= %.1f ms: %s\n", kTargetMedianMs,
                medianOk ? "met" : "MISSED", kTargetP99Ms, p99Ok ? "met" : "MISSED");
    char measured[96];
    std::snprintf(measured, sizeof measured, "median %.3f, p99 %.3f ms (socket %.3f / %.3f)",
                  channel.median, channel.p99, socket.median, socket.p99);
    bench::result("message channel: send to a waiting listener", "median <= 1 ms, p99 <= 5 ms",
                  measured, medianOk && p99Ok);
    return medianOk && p99Ok ? 0 : 1;
}

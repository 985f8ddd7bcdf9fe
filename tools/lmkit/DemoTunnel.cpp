// The demo's road after the choice: the app hands the start options to a tunnel running as a
// second process, the tunnel measures the game's direct and relayed delays, and the app asks for
// them over the message channel, as the app and its tunnel extension do.
#include "DemoTunnel.hpp"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <numeric>
#include <optional>
#include <thread>

#include <fmt/format.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Command.hpp"
#include "DataFiles.hpp"
#include "InterruptWatch.hpp"
#include "lmkit/foundation/LogProcessStream.hpp"
#include "lmkit/platform/Clock.hpp"
#include "lmkit/tunnel/BoostEffectDataManager.hpp"
#include "lmkit/tunnel/VPNStartOptionsTransport.hpp"
#include "lmkit/tunnel/WormholeManager.hpp"

extern char** environ;

namespace lmkit::tool {
namespace {

namespace fs = std::filesystem;

// The start request's text, as the tunnel finds it in the app-group directory.
constexpr const char* kStartOptionsFile = "start-options.json";
// Rounds every half second: a handful of samples within the demo's few seconds.
constexpr double kSendTimeInterval = 0.5;
// The relay's own delay to the game server when the node does not say.
constexpr double kDefaultRearDelay = 15;
// A tunnel whose app vanished without stopping it stops on its own.
constexpr int kTunnelLifetimeSeconds = 60;
constexpr double kStartWaitSeconds = 5;
constexpr double kAnswerWaitSeconds = 3;
// Asking again for samples that are not there yet: a few more seconds at most.
constexpr int kSampleQueries = 5;
constexpr double kSampleQueryPause = 1;
constexpr double kStopWaitSeconds = 2;

// ---- tunnel side -------------------------------------------------------------------------

std::optional<std::pair<std::string, long>> hostAndPort(const std::string& text) {
    auto colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0)
        return std::nullopt;
    char* end = nullptr;
    long port = std::strtol(text.c_str() + colon + 1, &end, 10);
    if (*end != '\0' || port < 1 || port > 65535)
        return std::nullopt;
    return std::make_pair(text.substr(0, colon), port);
}

std::shared_ptr<SocksInfo> firstRelay(const VPNSimpleStartOptions& options) {
    if (options.socksInfos)
        for (const auto& relay : *options.socksInfos)
            if (relay && relay->ip && !relay->ip->empty() && relay->netaskPort)
                return relay;
    return nullptr;
}

std::vector<Number> numbers(const std::optional<std::vector<double>>& values) {
    std::vector<Number> out;
    if (values)
        out.assign(values->begin(), values->end());
    return out;
}

// The tunnel measures on loopback: no Wi-Fi or cellular side, no dual channel.
BoostEffectEnvironment loopbackEnvironment(const std::shared_ptr<WormholeManager>& manager) {
    BoostEffectEnvironment environment;
    environment.isNetworkAvailable = [](int) { return false; };
    environment.isDualChannelEnabled = [] { return false; };
    environment.currentNetworkInterface = [] { return std::string("loopback"); };
    environment.dualChannelInterfaces = [] {
        return std::make_pair(std::string("lo"), std::string());
    };
    std::weak_ptr<WormholeManager> weak = manager;
    environment.passMessageForNetworkChange = [weak] {
        if (auto channel = weak.lock())
            channel->passMessageForNetworkChange();
    };
    return environment;
}

// ---- app side ----------------------------------------------------------------------------

// The scratch app-group directory, removed with everything in it.
class ScratchDirectory {
  public:
    ScratchDirectory() {
        std::string pattern = (fs::temp_directory_path() / "lmkit-demo-XXXXXX").string();
        if (!mkdtemp(pattern.data()))
            throw Failure(std::string("cannot make a scratch directory: ") + std::strerror(errno));
        path_ = pattern;
    }
    ~ScratchDirectory() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;
    const fs::path& path() const { return path_; }

  private:
    fs::path path_;
};

// The tunnel process: stopped and reaped however the app side ends.
class TunnelProcess {
  public:
    TunnelProcess(const fs::path& groupDirectory, const std::string& gameServer) {
        std::error_code error;
        const fs::path self = fs::read_symlink("/proc/self/exe", error);
        if (error)
            throw Failure("cannot find this program to start the tunnel: " + error.message());
        std::vector<std::string> args = {
            "lmkit", "demo", "--tunnel-side", groupDirectory.string(), "--game-server", gameServer};
        // The same environment, with the app group pointing at the scratch directory.
        std::vector<std::string> env;
        for (char** entry = environ; *entry; ++entry)
            if (std::strncmp(*entry, "LMKIT_APP_GROUP_DIR=", 20) != 0)
                env.emplace_back(*entry);
        env.push_back("LMKIT_APP_GROUP_DIR=" + groupDirectory.string());
        auto pointers = [](std::vector<std::string>& strings) {
            std::vector<char*> out;
            for (auto& s : strings)
                out.push_back(s.data());
            out.push_back(nullptr);
            return out;
        };
        auto argv = pointers(args);
        auto envp = pointers(env);
        int rc = posix_spawn(&pid_, self.c_str(), nullptr, nullptr, argv.data(), envp.data());
        if (rc != 0)
            throw Failure(std::string("cannot start the tunnel: ") + std::strerror(rc));
    }
    ~TunnelProcess() { stop(); }
    TunnelProcess(const TunnelProcess&) = delete;
    TunnelProcess& operator=(const TunnelProcess&) = delete;

    pid_t pid() const { return pid_; }

    /// The exit status once the tunnel has ended by itself, else nullopt.
    std::optional<int> exited() {
        if (reaped_)
            return status_;
        int raw = 0;
        if (waitpid(pid_, &raw, WNOHANG) != pid_)
            return std::nullopt;
        reap(raw);
        return status_;
    }

    /// Asks the tunnel to stop, waits for it (killing it if it does not go), reaps it.
    int stop() {
        if (reaped_ || exited())
            return status_;
        kill(pid_, SIGTERM);
        const double deadline = Clock::nowMilliseconds() + kStopWaitSeconds * 1000;
        while (!exited() && Clock::nowMilliseconds() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (!reaped_) {
            kill(pid_, SIGKILL);
            int raw = 0;
            while (waitpid(pid_, &raw, 0) < 0 && errno == EINTR) {
            }
            reap(raw);
        }
        return status_;
    }

  private:
    void reap(int raw) {
        reaped_ = true;
        status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    }

    pid_t pid_ = -1;
    bool reaped_ = false;
    int status_ = 0;
};

// What the channel brought from the tunnel; filled on the channel's queue.
struct TunnelNews {
    std::mutex mutex;
    std::condition_variable changed;
    std::string status;
    std::string error;
    std::string relayNode;
    std::string relay;
    std::shared_ptr<VPNMessageDelayResponse> answer;

    template <class Ready>
    bool waitFor(double seconds, Ready ready) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::duration<double>(seconds), ready);
    }
};

std::vector<double> doubles(const std::optional<std::vector<Number>>& values) {
    std::vector<double> out;
    if (values)
        for (const auto& value : *values)
            out.push_back(value.doubleValue());
    return out;
}

double mean(const std::vector<double>& values) {
    return values.empty() ? 0 : std::accumulate(values.begin(), values.end(), 0.0) / values.size();
}

}  // namespace

int runDemoTunnelSide(const std::string& directory, const std::string& gameServer) {
    log::setProcessStream(log::Stream::Tunnel);
    // Stop requests are taken by sigtimedwait below; every thread started from here on
    // inherits the blocked mask, so none of them dies of the signal.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    prctl(PR_SET_PDEATHSIG, SIGTERM);

    auto manager = WormholeManager::create(directory);
    auto fail = [&](const std::string& text) {
        manager->passMessageForTunnel(std::nullopt, text);
        return 1;
    };
    auto direct = hostAndPort(gameServer);
    if (!direct)
        return fail("the game server must be HOST:PORT, got \"" + gameServer + "\"");
    Data text;
    try {
        text = readInput((fs::path(directory) / kStartOptionsFile).string());
    } catch (const Failure& failure) {
        return fail(failure.what());
    }
    Error error;
    std::shared_ptr<const VPNSimpleStartOptions> options = VPNStartOptionsTransport::decode(
        std::string_view(reinterpret_cast<const char*>(text.data()), text.size()), &error);
    if (!options)
        return fail("the start options do not decode: " + describe(error));
    auto relay = firstRelay(*options);
    if (!relay)
        return fail("the start options name no relay with an echo port");
    if (!options->game || !options->game->gid)
        return fail("the start options name no game");

    // The data manager belongs to one queue, as in the tunnel.
    auto tunnelQueue = DispatchQueue::serial("lmkit.demo.tunnel");
    BoostEffectDataManager data;
    const std::string gid = *options->game->gid;
    bool started = false;
    tunnelQueue.sync([&] {
        auto rear = relay->rearDelay ? *relay->rearDelay : Number(kDefaultRearDelay);
        started =
            data.startSpeedTestWithOption(
                options, false, Number(static_cast<std::int64_t>(Clock::nowSeconds())),
                kSendTimeInterval, std::make_shared<const std::string>(*relay->ip),
                relay->netaskPort->intValue(), std::make_shared<const std::string>(direct->first),
                direct->second, rear, loopbackEnvironment(manager)) != nullptr;
    });
    if (!started)
        return fail("the boost-effect measurement did not start");
    manager->listenForMessageOfDelayQuery([&data, tunnelQueue,
                                           weak = std::weak_ptr<WormholeManager>(manager)](
                                              auto query) {
        if (!query || !query->gid)
            return;
        tunnelQueue.async([&data, weak, query] {
            const long limit = query->latestLimitCount ? query->latestLimitCount->intValue() : 0;
            VPNMessageDelayResponse response;
            response.delaysBefore = numbers(data.directServerDelaysWithGameId(*query->gid, limit));
            response.delaysAfter = numbers(data.proxyServerDelaysWithGameId(*query->gid, limit));
            if (auto channel = weak.lock())
                channel->passMessageForDelayResponse(response);
        });
    });

    manager->passMessageForPickedNode(*relay);
    manager->passMessageForTunnel(std::string("measuring"), std::nullopt);

    timespec lifetime{kTunnelLifetimeSeconds, 0};
    while (sigtimedwait(&stopSignals, nullptr, &lifetime) < 0 && errno == EINTR) {
    }
    // Nothing may still use the data manager once it goes: no new query, none in flight.
    manager->listenForMessageOfDelayQuery(nullptr);
    manager->wormhole()->queue().sync([] {});
    tunnelQueue.sync([&] { data.stopWithGameId(gid); });
    return 0;
}

DemoRoadResult runDemoRoad(const DemoRoadRequest& request) {
    auto progress = [&](const std::string& line) {
        if (request.progress)
            request.progress(line);
    };
    InterruptWatch interrupts;
    ScratchDirectory group;
    writeOutput((group.path() / kStartOptionsFile).string(),
                Data(request.startOptionsText.begin(), request.startOptionsText.end()));

    auto news = std::make_shared<TunnelNews>();
    auto manager = WormholeManager::create(group.path());
    manager->listenForMessageOfTunnel([news](const std::string& message, const std::string& error) {
        std::lock_guard lock(news->mutex);
        news->status = message;
        news->error = error;
        news->changed.notify_all();
    });
    manager->listenForMessageOfPickedNode([news](std::shared_ptr<SocksInfo> node) {
        std::lock_guard lock(news->mutex);
        // The relay as the tunnel measures it: the node's echo port, not its relay port.
        if (node) {
            news->relayNode = node->accIdentifier.value_or("-");
            news->relay = fmt::format("{}:{}", node->ip.value_or("-"),
                                      node->netaskPort ? node->netaskPort->intValue() : 0);
        }
        news->changed.notify_all();
    });

    const std::string gameServer =
        fmt::format("{}:{}", request.gameServerHost, request.gameServerPort);
    TunnelProcess tunnel(group.path(), gameServer);
    progress(fmt::format("tunnel started (pid {}) in {}", tunnel.pid(), group.path().string()));

    // Waits up to `seconds` for `ready` (checked under the news lock); an interruption or a
    // tunnel that ended ends the wait with a failure, which stops everything in order.
    auto await = [&](double seconds, auto ready) {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < deadline) {
            if (news->waitFor(0.1, ready))
                return true;
            if (InterruptWatch::interrupted())
                throw Failure("interrupted");
            if (auto status = tunnel.exited())
                throw Failure(fmt::format("the tunnel ended early (exit status {})", *status));
        }
        return false;
    };
    if (!await(kStartWaitSeconds, [&] { return !news->status.empty() || !news->error.empty(); }))
        throw Failure(
            fmt::format("the tunnel did not start measuring within {} s", kStartWaitSeconds));
    {
        std::lock_guard lock(news->mutex);
        if (!news->error.empty())
            throw Failure("tunnel: " + news->error);
    }
    progress(fmt::format("tunnel measuring for {} s", request.measureSeconds));
    await(request.measureSeconds, [] { return false; });

    // A round counts once both of its paths have answered; on a busy machine the first rounds
    // may not have, so an answer without samples is asked again while time remains.
    DemoRoadResult result;
    for (int query = 0;; ++query) {
        {
            std::lock_guard lock(news->mutex);
            news->answer.reset();
        }
        manager->passMessageForDelayQuery(
            VPNMessageDelayQuery(request.gid, Number(request.latestLimitCount)),
            [news](std::shared_ptr<VPNMessageDelayResponse> response) {
                std::lock_guard lock(news->mutex);
                news->answer = std::move(response);
                news->changed.notify_all();
            });
        if (!await(kAnswerWaitSeconds, [&] { return news->answer != nullptr; }))
            throw Failure(
                fmt::format("no delay answer from the tunnel within {} s", kAnswerWaitSeconds));
        {
            std::lock_guard lock(news->mutex);
            result.relayNode = news->relayNode;
            result.relay = news->relay;
            result.directDelays = doubles(news->answer->delaysBefore);
            result.relayDelays = doubles(news->answer->delaysAfter);
        }
        if (!result.directDelays.empty() && !result.relayDelays.empty())
            break;
        if (query + 1 >= kSampleQueries)
            throw Failure(fmt::format("the tunnel had no delay samples after {} s",
                                      request.measureSeconds + query * kSampleQueryPause));
        await(kSampleQueryPause, [] { return false; });
    }
    result.tunnelExitStatus = tunnel.stop();
    // Handlers hold the manager weakly: none runs once it is released.
    manager->setDelayResponseBlock(nullptr);
    manager.reset();
    result.directDelay = mean(result.directDelays);
    result.relayDelay = mean(result.relayDelays);
    return result;
}

}  // namespace lmkit::tool

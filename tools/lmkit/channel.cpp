// lmkit channel: the message channel between the app and the tunnel, from a shell. Two shells
// over one app-group directory (LMKIT_APP_GROUP_DIR) act as the two processes: one listens, the
// other sends.
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "Command.hpp"
#include "lmkit/foundation/Log.hpp"
#include "lmkit/platform/AppGroup.hpp"
#include "lmkit/platform/Clock.hpp"
#include "lmkit/tunnel/WormholeManager.hpp"

namespace lmkit::tool {
namespace {

// The message kinds by the short names the tool accepts, with their identifiers.
struct Kind {
    const char* name;
    const char* cmd;
};
constexpr Kind kKinds[] = {
    {"tunnel", kWormholeCmdTunnel},
    {"picked-node", kWormholeCmdPickedNode},
    {"network-change", kWormholeCmdNetworkChange},
    {"delay-query", kWormholeCmdDelayQuery},
    {"delay-response", kWormholeCmdDelayResponse},
    {"loss-query", kWormholeCmdLossQuery},
    {"loss-response", kWormholeCmdLossResponse},
};

struct ChannelOptions {
    // listen
    int count = 0;         // stop after this many messages (0: never)
    double timeout = 0;    // stop after this many seconds (0: never)
    bool current = false;  // print the stored newest message of each kind first
    // send
    std::string message;
    std::string error;
    bool hasMessage = false;
    bool hasError = false;
    std::string nodeJson;
    std::string gid;
    double limit = 0;
    std::vector<double> before;
    std::vector<double> after;
    double lossBefore = 0;
    double lossAfter = 0;
    double wait = 0;  // queries: seconds to wait for the answer
};

std::shared_ptr<WormholeManager> openChannel() {
    auto manager = WormholeManager::create(AppGroup::containerDirectory());
    // Files the channel moves aside are worth a line where the person is looking, as well as in
    // the log.
    manager->wormhole()->setDiagnosticHandler([](const std::string& line) {
        log::warning("[Wormhole] " + line);
        std::fprintf(stderr, "lmkit channel: %s\n", line.c_str());
    });
    if (!std::filesystem::is_directory(manager->wormhole()->directory()))
        throw Failure("cannot use the channel directory " +
                      manager->wormhole()->directory().string());
    return manager;
}

std::string timestamp() {
    auto ms = static_cast<std::int64_t>(Clock::nowMilliseconds());
    std::time_t seconds = static_cast<std::time_t>(ms / 1000);
    std::tm local{};
    localtime_r(&seconds, &local);
    return fmt::format("{:02}:{:02}:{:02}.{:03}", local.tm_hour, local.tm_min, local.tm_sec,
                       static_cast<long long>(ms) % 1000);
}

// One line per message, flushed at once so that a script sees it; false when it could not be
// written.
bool printMessage(const std::string& cmd, const WormholeMessageObject& object, bool json,
                  bool stored) {
    int written;
    if (json) {
        Json line = {{"cmd", cmd}, {"class", object.className}, {"object", object.root}};
        if (stored)
            line["stored"] = true;
        written = std::printf("%s\n", line.dump().c_str());
    } else {
        written = std::printf("%s %-26s %-24s %s%s\n", timestamp().c_str(), cmd.c_str(),
                              object.className.c_str(), object.root.dump().c_str(),
                              stored ? "  (stored)" : "");
    }
    return written >= 0 && std::fflush(stdout) == 0;
}

Failure outputFailure() {
    return Failure(std::string("cannot write standard output: ") + std::strerror(errno));
}

int listen(const ChannelOptions& options, const Common& common) {
    auto manager = openChannel();
    std::mutex mutex;
    std::condition_variable changed;
    int received = 0;
    bool outputFailed = false;  // guarded by mutex

    if (options.current) {
        for (const auto& kind : kKinds)
            if (auto object = manager->messageWithCmd(kind.cmd))
                if (!printMessage(kind.cmd, *object, common.json, true))
                    throw outputFailure();
    }
    // Every kind is shown as it arrives, whatever its class: this is a window on the channel,
    // not one of its typed listeners.
    for (const auto& kind : kKinds) {
        std::string cmd = kind.cmd;
        manager->listenForMessageWithCmd(cmd, [&, cmd](const WormholeMessageObject& object) {
            bool printed = printMessage(cmd, object, common.json, false);
            std::lock_guard lock(mutex);
            ++received;
            outputFailed = outputFailed || !printed;
            changed.notify_all();
        });
    }
    // On standard error, so that a script can wait for it without reading the data.
    std::fprintf(stderr, "listening on %s\n", manager->wormhole()->directory().c_str());

    std::unique_lock lock(mutex);
    auto done = [&] { return outputFailed || (options.count > 0 && received >= options.count); };
    if (options.timeout > 0) {
        changed.wait_for(lock, std::chrono::duration<double>(options.timeout), done);
    } else {
        changed.wait(lock, done);
    }
    bool short_ = options.count > 0 && received < options.count;
    bool failed = outputFailed;
    lock.unlock();
    for (const auto& kind : kKinds)
        manager->wormhole()->stopListeningForMessageWithIdentifier(kind.cmd);
    if (failed)
        throw Failure("cannot write standard output");
    if (short_)
        throw Failure(
            fmt::format("{} of {} messages within {} s", received, options.count, options.timeout));
    return 0;
}

std::vector<Number> numbers(const std::vector<double>& values) {
    std::vector<Number> out;
    for (double value : values) {
        if (value == static_cast<double>(static_cast<long long>(value)))
            out.emplace_back(static_cast<long long>(value));
        else
            out.emplace_back(value);
    }
    return out;
}

// Waits for the answer to a query, which reaches the callback the query stored.
template <class Response>
struct AnswerWait : std::enable_shared_from_this<AnswerWait<Response>> {
    std::mutex mutex;
    std::condition_variable arrived;
    std::shared_ptr<Response> response;

    std::function<void(std::shared_ptr<Response>)> callback() {
        // The channel's queue may still hold the callback after the tool stops waiting.
        return [self = this->shared_from_this()](std::shared_ptr<Response> answer) {
            std::lock_guard lock(self->mutex);
            self->response = std::move(answer);
            self->arrived.notify_all();
        };
    }
    void await(double seconds, const char* what, bool json) {
        std::unique_lock lock(mutex);
        if (!arrived.wait_for(lock, std::chrono::duration<double>(seconds),
                              [&] { return response != nullptr; }))
            throw Failure(fmt::format("no {} within {} s", what, seconds));
        auto dictionary = response->toJSONDictionary();
        std::printf("%s\n", dictionary ? dictionary->dump(json ? -1 : 2).c_str() : "{}");
    }
};

Command channel(
    "channel", "Send and listen on the app-tunnel message channel",
    [](CLI::App& app, Common& common) {
        auto options = std::make_shared<ChannelOptions>();
        app.require_subcommand(1);
        app.add_flag("--json", common.json, "Print data as JSON");

        auto* listen = app.add_subcommand("listen", "Print every message as it arrives");
        listen->add_option("--count", options->count, "Stop after this many messages")
            ->check(CLI::Range(0, 1000000000));
        listen->add_option("--timeout", options->timeout, "Stop after this many seconds")
            ->check(CLI::Range(0.0, 86400.0));
        listen->add_flag("--current", options->current,
                         "First print the newest stored message of each kind");
        listen->add_flag("--json", common.json, "One JSON object per line");

        auto* send = app.add_subcommand("send", "Send one message (KIND and its values)");
        send->require_subcommand(1);
        auto* tunnel = send->add_subcommand("tunnel", "The tunnel's status text and error text");
        tunnel->add_option("--message", options->message, "Status text (default: none)")
            ->each([options](const std::string&) { options->hasMessage = true; });
        tunnel->add_option("--error", options->error, "Error text (default: none)")
            ->each([options](const std::string&) { options->hasError = true; });
        auto* picked = send->add_subcommand("picked-node", "The relay the tunnel chose");
        picked
            ->add_option("SOCKSINFO", options->nodeJson,
                         "The relay as JSON, e.g. '{\"ip\":\"10.0.0.1\",\"port\":443}'")
            ->required();
        auto* network = send->add_subcommand("network-change", "The network changed");
        auto* delayQuery = send->add_subcommand("delay-query", "Ask for a game's delay samples");
        delayQuery->add_option("GID", options->gid, "Game id")->required();
        delayQuery->add_option("--limit", options->limit, "How many of the latest samples");
        delayQuery->add_option("--wait", options->wait, "Seconds to wait for and print the answer");
        auto* delayResponse =
            send->add_subcommand("delay-response", "Answer with delay samples (ms)");
        delayResponse->add_option("--before", options->before, "Samples without acceleration")
            ->delimiter(',');
        delayResponse->add_option("--after", options->after, "Samples with acceleration")
            ->delimiter(',');
        auto* lossQuery = send->add_subcommand("loss-query", "Ask for a game's loss rates");
        lossQuery->add_option("GID", options->gid, "Game id")->required();
        lossQuery->add_option("--wait", options->wait, "Seconds to wait for and print the answer");
        auto* lossResponse = send->add_subcommand("loss-response", "Answer with loss rates");
        lossResponse->add_option("BEFORE", options->lossBefore, "Loss without acceleration")
            ->required();
        lossResponse->add_option("AFTER", options->lossAfter, "Loss with acceleration")->required();
        for (auto* sub :
             {tunnel, picked, network, delayQuery, delayResponse, lossQuery, lossResponse})
            sub->add_flag("--json", common.json, "Print data as JSON");

        return [=, &common]() -> int {
            if (listen->parsed())
                return lmkit::tool::listen(*options, common);

            auto manager = openChannel();
            auto pass = [&](const std::string& cmd,
                            const std::optional<WormholeMessageObject>& object) {
                if (!object || !manager->executeCmd(cmd, *object))
                    throw Failure("cannot send " + cmd + " into " +
                                  manager->wormhole()->directory().string());
            };
            std::string error;
            if (tunnel->parsed()) {
                Json dictionary = {
                    {kWormholeTunnelMsgKey, options->hasMessage ? options->message : ""},
                    {kWormholeTunnelErrorKey, options->hasError ? options->error : ""}};
                pass(kWormholeCmdTunnel, WormholeMessageObject::dictionary(dictionary));
            } else if (picked->parsed()) {
                auto json = Json::parse(options->nodeJson, nullptr, false);
                if (json.is_discarded() || !json.is_object())
                    throw Failure("SOCKSINFO must be a JSON object");
                Error failure;
                auto node = JSONAdapter::modelOfClass<SocksInfo>(json, &failure);
                if (!node)
                    throw Failure("not a relay: " + failure.localizedDescription());
                pass(kWormholeCmdPickedNode, WormholeMessageObject::record(*node, error));
            } else if (network->parsed()) {
                pass(kWormholeCmdNetworkChange, WormholeMessageObject::dictionary(Json::object()));
            } else if (delayQuery->parsed()) {
                VPNMessageDelayQuery query(options->gid, numbers({options->limit}).front());
                auto wait = std::make_shared<AnswerWait<VPNMessageDelayResponse>>();
                manager->setDelayResponseBlock(wait->callback());
                pass(kWormholeCmdDelayQuery, WormholeMessageObject::record(query, error));
                if (options->wait > 0)
                    wait->await(options->wait, "delay response", common.json);
                manager->setDelayResponseBlock(nullptr);
            } else if (delayResponse->parsed()) {
                VPNMessageDelayResponse response;
                response.delaysBefore = numbers(options->before);
                response.delaysAfter = numbers(options->after);
                pass(kWormholeCmdDelayResponse, WormholeMessageObject::record(response, error));
            } else if (lossQuery->parsed()) {
                VPNMessageLossQuery query(options->gid);
                auto wait = std::make_shared<AnswerWait<VPNMessageLossResponse>>();
                manager->setLossResponseBlock(wait->callback());
                pass(kWormholeCmdLossQuery, WormholeMessageObject::record(query, error));
                if (options->wait > 0)
                    wait->await(options->wait, "loss response", common.json);
                manager->setLossResponseBlock(nullptr);
            } else if (lossResponse->parsed()) {
                VPNMessageLossResponse response(numbers({options->lossBefore}).front(),
                                                numbers({options->lossAfter}).front());
                pass(kWormholeCmdLossResponse, WormholeMessageObject::record(response, error));
            }
            return 0;
        };
    });

}  // namespace
}  // namespace lmkit::tool

#pragma once

#include <functional>
#include <memory>

#include "lmkit/platform/DispatchQueue.hpp"
#include "lmkit/platform/Error.hpp"

namespace lmkit {

/// Tells when the system's links, addresses or routes change (rtnetlink). A burst of kernel
/// messages (an interface coming up brings several) becomes one call, made on the given queue.
class NetworkChangeWatcher {
  public:
    /// How long to gather kernel messages before reporting them as one change.
    static constexpr double kCoalesceSeconds = 0.05;

    /// Starts watching; nullptr and `error` when the netlink socket cannot be opened.
    static std::unique_ptr<NetworkChangeWatcher> start(DispatchQueue queue,
                                                       std::function<void()> onChange,
                                                       Error* error = nullptr);
    /// Stops; a call already queued may still run, none is queued afterwards.
    ~NetworkChangeWatcher();
    void stop();

    struct State;

  private:
    explicit NetworkChangeWatcher(std::shared_ptr<State> state) : state_(std::move(state)) {}
    std::shared_ptr<State> state_;
};

}  // namespace lmkit

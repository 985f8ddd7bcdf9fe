#pragma once

#include <csignal>
#include <functional>

namespace lmkit::tool {

/// While one lives, Ctrl-C and SIGTERM no longer end the process: they set a flag that the
/// subcommand polls, so that it stops cleanly (servers closed, the history written, a child
/// reaped). The handlers that were there before come back when it goes.
class InterruptWatch {
  public:
    InterruptWatch();
    ~InterruptWatch();
    InterruptWatch(const InterruptWatch&) = delete;
    InterruptWatch& operator=(const InterruptWatch&) = delete;

    /// Whether a signal came since this watch began.
    static bool interrupted();

    /// Returns once a signal comes, once `seconds` have passed when above zero, or once
    /// `finished` (when given) says the work ended of itself; it looks every 20 ms.
    void wait(double seconds, const std::function<bool()>& finished = {}) const;

  private:
    struct sigaction previousInt_ {};
    struct sigaction previousTerm_ {};
};

}  // namespace lmkit::tool

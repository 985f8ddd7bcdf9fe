#pragma once

#include <csignal>

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

  private:
    struct sigaction previousInt_ {};
    struct sigaction previousTerm_ {};
};

}  // namespace lmkit::tool

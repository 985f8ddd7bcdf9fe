#pragma once

#include <functional>
#include <memory>

#include "lmkit/platform/DispatchQueue.hpp"

namespace lmkit {

/// A repeating timer on a queue (dispatch source timer): once resumed, calls its handler every
/// `interval` seconds on the queue until cancelled. Ticks are scheduled from the start time, not
/// from the previous handler's end, so a slow handler does not stretch the period.
class DispatchTimerSource : public std::enable_shared_from_this<DispatchTimerSource> {
  public:
    static std::shared_ptr<DispatchTimerSource> create(DispatchQueue queue, double interval,
                                                       std::function<void()> handler,
                                                       double startDelay = -1);
    ~DispatchTimerSource();

    /// Starts the ticks: the first after `startDelay` (the interval when negative).
    void resume();
    /// Stops the ticks; a tick already on the queue does not run. Idempotent, any thread.
    void cancel();
    bool isCancelled() const;

    struct Impl;

  private:
    explicit DispatchTimerSource(std::unique_ptr<Impl> impl);
    void arm();
    void tick();
    std::unique_ptr<Impl> impl_;
};

}  // namespace lmkit

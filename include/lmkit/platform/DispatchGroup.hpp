#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

#include "lmkit/platform/DispatchQueue.hpp"

namespace lmkit {

/// Counts outstanding work: enter() before each piece, leave() after it. wait() blocks until the
/// count is zero or a time-out passes; notify() queues a block for the moment it reaches zero.
class DispatchGroup {
  public:
    void enter();
    /// A leave() without a matching enter() is ignored rather than driving the count below zero.
    void leave();
    /// Waits until the count is zero; true when it got there, false when `seconds` passed first.
    /// A negative `seconds` waits for ever.
    bool wait(double seconds = -1);
    /// Runs `block` on `queue` once the count is zero (at once when it already is).
    void notify(const DispatchQueue& queue, DispatchQueue::Block block);

  private:
    std::mutex mutex_;
    std::condition_variable zero_;
    long count_ = 0;
    std::vector<std::pair<DispatchQueue, DispatchQueue::Block>> waiting_;
};

}  // namespace lmkit

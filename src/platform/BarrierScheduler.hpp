#pragma once

// The order of a concurrent queue: blocks run side by side, except a barrier block, which waits
// for every block submitted before it and runs alone; blocks submitted after a barrier wait for
// it. Blocks start in submission order.

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace lmkit::detail {

class BarrierScheduler {
  public:
    using Block = std::function<void()>;
    /// Hands a block that may start now to the thread pool.
    using Post = std::function<void(Block)>;

    explicit BarrierScheduler(Post post) : post_(std::move(post)) {}

    /// Queues `block`; it runs on the pool when its turn comes.
    void submit(Block block, bool barrier);
    /// Runs `block` on the calling thread when its turn comes, and returns after it ran. The
    /// caller's thread waits instead of a pool thread, and runs a barrier it waits behind itself
    /// when no pool thread has taken it yet, so a full pool cannot stall it.
    void runHere(const Block& block, bool barrier);

  private:
    struct Waiter {
        bool ready = false;
    };
    struct Item {
        Block block;
        bool barrier = false;
        Waiter* waiter = nullptr;
    };
    // A barrier handed to the pool; whichever thread takes it first runs it.
    struct Job {
        Block block;
        std::atomic<bool> taken{false};
    };

    // Starts what may start now; blocks for the pool are returned to be posted unlocked.
    void startLocked(std::deque<Block>& toPost, bool& woke);
    void finish(bool barrier);
    void release(std::deque<Block>& toPost, bool woke);

    Post post_;
    std::mutex mutex_;
    std::condition_variable started_;
    std::deque<Item> pending_;     // guarded by mutex_
    std::size_t running_ = 0;      // non-barrier blocks running; guarded by mutex_
    bool barrierRunning_ = false;  // guarded by mutex_
    // The running barrier while it waits for a pool thread; guarded by mutex_.
    std::shared_ptr<Job> waitingBarrier_;
};

}  // namespace lmkit::detail

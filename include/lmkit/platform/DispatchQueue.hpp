#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace lmkit {

/// Quality of service of the global concurrent queues.
enum class QoS { UserInteractive, UserInitiated, Default, Utility, Background };

/// A handle to a queue of work on the kit's process-wide thread pool.
///
/// Serial queues run one block at a time in submission order; global queues run blocks
/// concurrently. A concurrent queue of one's own runs blocks side by side too, but a barrier
/// block submitted to it waits for everything submitted before and runs alone, and everything
/// submitted after it waits for it (a reader/writer queue without a lock held by the writer). The
/// label of the queue running the current block is readable from that block (currentLabel()), so
/// log lines can name it. Handles are cheap to copy; a queue lives as long as any handle or pending
/// block refers to it.
class DispatchQueue {
  public:
    using Block = std::function<void()>;

    /// A new serial queue.
    static DispatchQueue serial(std::string label);
    /// A new concurrent queue that honours barrier blocks.
    static DispatchQueue concurrent(std::string label);
    /// The shared concurrent queue for `qos`.
    static DispatchQueue global(QoS qos = QoS::Default);
    /// The main queue: serial. The kit serves it on its own pool unless the application hands it
    /// an executor of its own loop with setMainExecutor().
    static DispatchQueue main();
    /// Makes the main queue run its blocks through `executor` (which must run them one at a time,
    /// in order). An empty function gives the main queue back to the kit's pool.
    static void setMainExecutor(std::function<void(Block)> executor);

    /// The label of the queue running the calling code, or "" outside any queue.
    static std::string currentLabel();

    DispatchQueue() = delete;

    const std::string& label() const;
    bool isSerial() const;
    /// True when the calling code runs on this queue.
    bool isCurrent() const;

    void async(Block block) const;
    /// As async(), for a block submitted as the last act of a block that runs on the kit's
    /// threads: no other thread is woken for it; unless the queue is running elsewhere already,
    /// it runs on this thread once the current block returns. A hand-over per received batch
    /// would otherwise cost a wake-up and two context switches. The caller must return promptly
    /// and must not wait for the block. From any other thread it is a plain async().
    void asyncHandOff(Block block) const;
    /// As async(), and on a queue from concurrent() the block waits for every block submitted
    /// before it, runs alone, and holds back every block submitted after it. On serial and global
    /// queues it is a plain async().
    void asyncBarrier(Block block) const;
    /// Runs `block` on the queue and returns when it has run. Called from the queue itself (a
    /// serial queue would deadlock), it runs the block at once. On a queue from concurrent() the
    /// block runs on the calling thread, once the barriers submitted before it have run.
    void sync(const Block& block) const;
    /// Runs `block` on the queue after `seconds` (at once for zero or less).
    void asyncAfter(double seconds, Block block) const;

    bool operator==(const DispatchQueue& other) const { return impl_ == other.impl_; }

    struct Impl;

  private:
    explicit DispatchQueue(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}
    std::shared_ptr<Impl> impl_;
    friend class DispatchTimerSource;
    friend class WeakTimer;
};

/// Runs a block once per process, however many threads ask at once (dispatch_once).
class DispatchOnce {
  public:
    void operator()(const std::function<void()>& block);

  private:
    std::once_flag flag_;
};

}  // namespace lmkit

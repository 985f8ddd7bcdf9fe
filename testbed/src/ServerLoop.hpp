#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace lmkit::testbed {

/// The event loop of a test server: a thread of its own that waits on the server's sockets and
/// on a queue of timed actions.
///
/// Each timed action runs at its own deadline: a timerfd wakes the thread four milliseconds before
/// the earliest one and the thread polls its sockets without sleeping until it falls due, so a
/// reply held for 5 ms never waits behind another reply's deadline nor for the thread to wake
/// up (a millisecond poll time-out would round every deadline up by up to a millisecond).
/// Everything but start() and stop() runs on the loop's thread, or before start().
class ServerLoop {
  public:
    using Clock = std::chrono::steady_clock;  // CLOCK_MONOTONIC, the timerfd's clock
    using Action = std::function<void()>;

    /// A loop ready to watch sockets; nullptr and `reason` when the system refuses one.
    static std::unique_ptr<ServerLoop> create(std::string& reason);
    ~ServerLoop();
    ServerLoop(const ServerLoop&) = delete;
    ServerLoop& operator=(const ServerLoop&) = delete;

    /// Calls `onReadable` on the loop's thread whenever `fd` has data to read.
    bool watch(int fd, Action onReadable);
    /// Stops watching `fd` (the caller closes it).
    void unwatch(int fd);
    /// Keeps the thread polling its sockets without sleeping for `seconds` from now, for a server
    /// that expects a datagram soon and must pass it on without a wake-up's delay.
    void stayAwakeFor(double seconds);
    /// Ends a stayAwakeFor() early: what was expected has come.
    void maySleep();
    /// Runs `action` on the loop's thread at `due` (at once when it has passed).
    void at(Clock::time_point due, Action action);
    void after(double seconds, Action action);
    /// Calls `action` after each pass that ran timed actions: what they produced can be finished
    /// together.
    void afterDueActions(Action action);

    /// Starts the thread and returns once it waits for events: a datagram sent after start()
    /// returns is answered without any start-up cost of the server's.
    void start();
    /// Stops the thread; timed actions still waiting are dropped.
    void stop();

  private:
    struct Timed {
        Clock::time_point due;
        std::uint64_t sequence;
        Action action;
    };

    ServerLoop() = default;
    void run();
    void runDueActions();
    void armTimer();

    int epollFd_ = -1;
    int wakeFd_ = -1;
    int timerFd_ = -1;
    std::thread thread_;
    bool stopping_ = false;  // loop thread only
    bool started_ = false;
    std::unordered_map<int, Action> readers_;
    std::vector<Timed> timed_;  // a min-heap on (due, sequence)
    Action afterDueActions_;
    std::uint64_t sequence_ = 0;
    Clock::time_point armedFor_ = Clock::time_point::max();
    Clock::time_point awakeUntil_;  // loop thread only
};

}  // namespace lmkit::testbed

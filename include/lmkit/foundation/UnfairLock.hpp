#pragma once

#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>
#include <utility>

namespace lmkit {

/// A non-recursive mutual-exclusion lock for short critical sections.
///
/// The lock word lives in storage of its own, allocated with the lock, so it never moves while
/// the lock exists; the lock itself is neither copyable nor movable. Locking twice on one thread
/// deadlocks, and only the thread that locked it may unlock it.
class UnfairLock {
  public:
    UnfairLock();
    ~UnfairLock();
    UnfairLock(const UnfairLock&) = delete;
    UnfairLock& operator=(const UnfairLock&) = delete;

    void lock();
    void unlock();
    /// True when the lock was free and is now held by the caller.
    bool tryLock();

    /// Runs `body` with the lock held and returns its result. Should `body` throw, the lock is
    /// released before the exception leaves.
    template <class Body>
    decltype(auto) execute(Body&& body) {
        std::lock_guard guard(*word_);
        return std::forward<Body>(body)();
    }

    /// Runs `body` with the lock held, captures its value or its exception, releases the lock
    /// and only then returns the value or rethrows the exception unchanged.
    template <class Body>
    auto tryExecute(Body&& body) -> std::invoke_result_t<Body&&> {
        using Result = std::invoke_result_t<Body&&>;
        std::exception_ptr failure;
        if constexpr (std::is_void_v<Result>) {
            lock();
            try {
                std::forward<Body>(body)();
            } catch (...) {
                failure = std::current_exception();
            }
            unlock();
            if (failure)
                std::rethrow_exception(failure);
        } else {
            std::optional<Result> value;
            lock();
            try {
                value.emplace(std::forward<Body>(body)());
            } catch (...) {
                failure = std::current_exception();
            }
            unlock();
            if (failure)
                std::rethrow_exception(failure);
            return std::move(*value);
        }
    }

    // The standard Lockable names, so std::lock_guard and std::unique_lock work with it.
    bool try_lock() { return tryLock(); }

  private:
    std::unique_ptr<std::mutex> word_;
};

}  // namespace lmkit

#pragma once

#include <utility>

#include "lmkit/foundation/UnfairLock.hpp"

namespace lmkit {

/// A value guarded by its own UnfairLock: every access takes the lock, so a value shared between
/// threads can be read, replaced or changed in place without a data race.
///
/// Bodies passed to read(), write() and modify() run with the lock held: they must not touch the
/// same wrapper again (the lock is not recursive).
template <class Value>
class ThreadSafe {
  public:
    ThreadSafe() : value_() {}
    explicit ThreadSafe(Value wrappedValue) : value_(std::move(wrappedValue)) {}
    ThreadSafe(const ThreadSafe&) = delete;
    ThreadSafe& operator=(const ThreadSafe&) = delete;

    /// A copy of the value taken under the lock.
    Value get() const {
        std::lock_guard guard(lock_);
        return value_;
    }

    /// Replaces the value. The replaced value is destroyed after the lock is released, so its
    /// destructor may use this wrapper.
    void set(Value value) {
        {
            std::lock_guard guard(lock_);
            std::swap(value_, value);
        }
        // `value` now holds the replaced value and dies here, outside the lock.
    }

    /// Runs `body` on a copy of the value made under the lock; the copy is destroyed and the
    /// lock released before the result is returned.
    template <class Body>
    decltype(auto) read(Body&& body) const {
        std::lock_guard guard(lock_);
        const Value copy = value_;
        return std::forward<Body>(body)(copy);
    }

    /// Runs `body` with exclusive in-place access to the stored value, so a compound update (an
    /// increment, an append to a stored list) is atomic.
    template <class Body>
    decltype(auto) write(Body&& body) {
        std::lock_guard guard(lock_);
        return std::forward<Body>(body)(value_);
    }

    /// In-place access that holds the lock from its creation to its destruction:
    ///     ++*counter.modify();  counter.modify()->push_back(x);
    class Access {
      public:
        explicit Access(ThreadSafe& owner) : owner_(&owner) { owner_->lock_.lock(); }
        ~Access() {
            if (owner_)
                owner_->lock_.unlock();
        }
        Access(Access&& other) noexcept : owner_(std::exchange(other.owner_, nullptr)) {}
        Access(const Access&) = delete;
        Access& operator=(const Access&) = delete;
        Access& operator=(Access&&) = delete;

        Value& operator*() const { return owner_->value_; }
        Value* operator->() const { return &owner_->value_; }

      private:
        ThreadSafe* owner_;
    };
    Access modify() { return Access(*this); }

  private:
    mutable UnfairLock lock_;
    Value value_;  // guarded by lock_
};

}  // namespace lmkit

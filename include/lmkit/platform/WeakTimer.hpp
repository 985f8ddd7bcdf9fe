#pragma once

#include <functional>
#include <memory>

#include "lmkit/platform/DispatchQueue.hpp"

namespace lmkit {

/// A one-shot or repeating timer that fires on a given queue and holds its target weakly: once
/// the target is released the timer stops firing (and invalidates itself). The timer itself is
/// owned by whoever keeps the returned pointer; releasing it invalidates the timer too.
///
/// invalidate() is idempotent and safe from any thread; a firing already queued when it is
/// called does not reach the target.
class WeakTimer : public std::enable_shared_from_this<WeakTimer> {
  public:
    /// Schedules a timer calling `action(target, timer)` after `interval` seconds on `queue`.
    template <class T>
    static std::shared_ptr<WeakTimer> scheduledTimer(double interval, std::weak_ptr<T> target,
                                                     std::function<void(T&, WeakTimer&)> action,
                                                     bool repeats, DispatchQueue queue) {
        auto fire = [target = std::move(target), action = std::move(action)](WeakTimer& timer) {
            auto strong = target.lock();
            if (!strong)
                return false;
            action(*strong, timer);
            return true;
        };
        auto timer = create(interval, std::move(fire), repeats, std::move(queue));
        timer->schedule();
        return timer;
    }

    ~WeakTimer();

    /// Fires now on the timer's queue (a one-shot timer is then invalidated).
    void fire();
    void invalidate();
    bool isValid() const;
    double timeInterval() const { return interval_; }
    bool repeats() const { return repeats_; }

    struct Impl;

  private:
    using Fire = std::function<bool(WeakTimer&)>;
    static std::shared_ptr<WeakTimer> create(double interval, Fire fire, bool repeats,
                                             DispatchQueue queue);
    WeakTimer(double interval, bool repeats);
    void schedule();
    void arm();
    void deliver();

    double interval_;
    bool repeats_;
    std::unique_ptr<Impl> impl_;
};

}  // namespace lmkit

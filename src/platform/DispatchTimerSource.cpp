#include "lmkit/platform/DispatchTimerSource.hpp"

#include <atomic>
#include <chrono>
#include <mutex>

#include <asio/steady_timer.hpp>

#include "platform/ThreadPool.hpp"

namespace lmkit {

using Duration = asio::steady_timer::duration;

static Duration toDuration(double seconds) {
    return std::chrono::duration_cast<Duration>(std::chrono::duration<double>(seconds));
}

struct DispatchTimerSource::Impl {
    Impl(DispatchQueue queue, double interval, std::function<void()> handler, double startDelay)
        : queue(std::move(queue)),
          interval(toDuration(interval)),
          startDelay(toDuration(startDelay < 0 ? interval : startDelay)),
          handler(std::move(handler)),
          timer(detail::poolExecutor()) {}

    DispatchQueue queue;
    Duration interval;
    Duration startDelay;
    std::function<void()> handler;
    std::mutex mutex;  // guards timer and next: asio timers are not safe across threads
    asio::steady_timer timer;
    asio::steady_timer::time_point next;
    bool resumed = false;
    std::atomic<bool> cancelled{false};
};

std::shared_ptr<DispatchTimerSource> DispatchTimerSource::create(DispatchQueue queue,
                                                                 double interval,
                                                                 std::function<void()> handler,
                                                                 double startDelay) {
    return std::shared_ptr<DispatchTimerSource>(new DispatchTimerSource(
        std::make_unique<Impl>(std::move(queue), interval, std::move(handler), startDelay)));
}

DispatchTimerSource::DispatchTimerSource(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

DispatchTimerSource::~DispatchTimerSource() {
    cancel();
}

// Arms the next tick (impl_->mutex held); the wait holds the source weakly so that a released
// source simply stops.
void DispatchTimerSource::arm() {
    impl_->timer.expires_at(impl_->next);
    impl_->timer.async_wait([weak = weak_from_this()](const std::error_code& error) {
        if (error)
            return;
        if (auto self = weak.lock())
            self->tick();
    });
}

void DispatchTimerSource::tick() {
    if (impl_->cancelled)
        return;
    {
        std::lock_guard lock(impl_->mutex);
        impl_->next += impl_->interval;
        arm();
    }
    impl_->queue.async([weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self || self->impl_->cancelled)
            return;
        self->impl_->handler();
    });
}

void DispatchTimerSource::resume() {
    std::lock_guard lock(impl_->mutex);
    if (impl_->resumed || impl_->cancelled)
        return;
    impl_->resumed = true;
    impl_->next = asio::steady_timer::clock_type::now() + impl_->startDelay;
    arm();
}

void DispatchTimerSource::cancel() {
    if (impl_->cancelled.exchange(true))
        return;
    std::lock_guard lock(impl_->mutex);
    impl_->timer.cancel();
}

bool DispatchTimerSource::isCancelled() const {
    return impl_->cancelled;
}

}  // namespace lmkit

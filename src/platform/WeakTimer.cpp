#include "lmkit/platform/WeakTimer.hpp"

#include <atomic>
#include <chrono>
#include <mutex>

#include <asio/steady_timer.hpp>

#include "platform/ThreadPool.hpp"

namespace lmkit {

struct WeakTimer::Impl {
    Impl(Fire fire, DispatchQueue queue)
        : fire(std::move(fire)), queue(std::move(queue)), timer(detail::poolExecutor()) {}

    Fire fire;
    DispatchQueue queue;
    std::mutex mutex;  // guards timer and next: asio timers are not safe across threads
    asio::steady_timer timer;
    asio::steady_timer::time_point next;
    std::atomic<bool> valid{true};
};

std::shared_ptr<WeakTimer> WeakTimer::create(double interval, Fire fire, bool repeats,
                                             DispatchQueue queue) {
    std::shared_ptr<WeakTimer> timer(new WeakTimer(interval, repeats));
    timer->impl_ = std::make_unique<Impl>(std::move(fire), std::move(queue));
    return timer;
}

WeakTimer::WeakTimer(double interval, bool repeats) : interval_(interval), repeats_(repeats) {}

WeakTimer::~WeakTimer() {
    invalidate();
}

void WeakTimer::schedule() {
    std::lock_guard lock(impl_->mutex);
    impl_->next = asio::steady_timer::clock_type::now() +
                  std::chrono::duration_cast<asio::steady_timer::duration>(
                      std::chrono::duration<double>(std::max(0.0, interval_)));
    arm();
}

// impl_->mutex held.
void WeakTimer::arm() {
    impl_->timer.expires_at(impl_->next);
    impl_->timer.async_wait([weak = weak_from_this()](const std::error_code& error) {
        if (error)
            return;
        auto self = weak.lock();
        if (!self || !self->isValid())
            return;
        if (self->repeats_) {
            std::lock_guard lock(self->impl_->mutex);
            self->impl_->next += std::chrono::duration_cast<asio::steady_timer::duration>(
                std::chrono::duration<double>(std::max(0.001, self->interval_)));
            self->arm();
        }
        self->impl_->queue.async([weak] {
            if (auto timer = weak.lock())
                timer->deliver();
        });
    });
}

// On the timer's queue.
void WeakTimer::deliver() {
    if (!isValid())
        return;
    if (!repeats_)
        impl_->valid = false;
    if (!impl_->fire(*this))
        invalidate();  // the target is gone
}

void WeakTimer::fire() {
    impl_->queue.async([weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self || !self->isValid())
            return;
        if (!self->repeats_) {
            std::lock_guard lock(self->impl_->mutex);
            self->impl_->timer.cancel();
        }
        self->deliver();
    });
}

void WeakTimer::invalidate() {
    if (!impl_)
        return;
    impl_->valid = false;
    std::lock_guard lock(impl_->mutex);
    impl_->timer.cancel();
}

bool WeakTimer::isValid() const {
    return impl_ && impl_->valid;
}

}  // namespace lmkit

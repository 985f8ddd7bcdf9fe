#include "platform/BarrierScheduler.hpp"

namespace lmkit::detail {

void BarrierScheduler::startLocked(std::deque<Block>& toPost, bool& woke) {
    while (!pending_.empty() && !barrierRunning_) {
        Item& next = pending_.front();
        if (next.barrier) {
            if (running_ > 0)
                return;
            barrierRunning_ = true;
        } else {
            ++running_;
        }
        if (next.waiter) {
            next.waiter->ready = true;
            woke = true;
        } else if (next.barrier) {
            // Callers blocked behind it may run it before a pool thread comes round.
            auto job = std::make_shared<Job>();
            job->block = std::move(next.block);
            waitingBarrier_ = job;
            woke = true;
            toPost.push_back([this, job] {
                if (job->taken.exchange(true))
                    return;
                job->block();
                finish(true);
            });
        } else {
            toPost.push_back([this, block = std::move(next.block)] {
                block();
                finish(false);
            });
        }
        pending_.pop_front();
    }
}

void BarrierScheduler::release(std::deque<Block>& toPost, bool woke) {
    if (woke)
        started_.notify_all();
    for (auto& block : toPost)
        post_(std::move(block));
}

void BarrierScheduler::finish(bool barrier) {
    std::deque<Block> toPost;
    bool woke = false;
    {
        std::lock_guard lock(mutex_);
        if (barrier) {
            barrierRunning_ = false;
            waitingBarrier_.reset();
        } else
            --running_;
        startLocked(toPost, woke);
    }
    release(toPost, woke);
}

void BarrierScheduler::submit(Block block, bool barrier) {
    std::deque<Block> toPost;
    bool woke = false;
    {
        std::lock_guard lock(mutex_);
        pending_.push_back({std::move(block), barrier, nullptr});
        startLocked(toPost, woke);
    }
    release(toPost, woke);
}

void BarrierScheduler::runHere(const Block& block, bool barrier) {
    Waiter waiter;
    std::deque<Block> toPost;
    bool woke = false;
    {
        std::unique_lock lock(mutex_);
        pending_.push_back({nullptr, barrier, &waiter});
        startLocked(toPost, woke);
        if (!waiter.ready) {
            lock.unlock();
            release(toPost, woke);
            toPost.clear();
            woke = false;
            lock.lock();
            while (!waiter.ready) {
                // Waiting for a pool thread to run the barrier ahead would cost this thread a
                // wake-up, and with every pool thread blocked like this one it would never come.
                if (waitingBarrier_ && !waitingBarrier_->taken.exchange(true)) {
                    auto job = std::move(waitingBarrier_);
                    lock.unlock();
                    job->block();
                    finish(true);
                    lock.lock();
                    continue;
                }
                started_.wait(lock);
            }
        }
    }
    release(toPost, woke);
    try {
        block();
    } catch (...) {
        // The queue's order must survive a throwing block.
    }
    finish(barrier);
}

}  // namespace lmkit::detail

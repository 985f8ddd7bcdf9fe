#include "lmkit/platform/DispatchGroup.hpp"

#include <chrono>

namespace lmkit {

void DispatchGroup::enter() {
    std::lock_guard lock(mutex_);
    ++count_;
}

void DispatchGroup::leave() {
    std::vector<std::pair<DispatchQueue, DispatchQueue::Block>> ready;
    {
        std::lock_guard lock(mutex_);
        if (count_ == 0)
            return;
        if (--count_ > 0)
            return;
        ready.swap(waiting_);
    }
    zero_.notify_all();
    for (auto& [queue, block] : ready)
        queue.async(std::move(block));
}

bool DispatchGroup::wait(double seconds) {
    std::unique_lock lock(mutex_);
    if (seconds < 0) {
        zero_.wait(lock, [this] { return count_ == 0; });
        return true;
    }
    return zero_.wait_for(lock, std::chrono::duration<double>(seconds),
                          [this] { return count_ == 0; });
}

void DispatchGroup::notify(const DispatchQueue& queue, DispatchQueue::Block block) {
    {
        std::lock_guard lock(mutex_);
        if (count_ > 0) {
            waiting_.emplace_back(queue, std::move(block));
            return;
        }
    }
    queue.async(std::move(block));
}

}  // namespace lmkit

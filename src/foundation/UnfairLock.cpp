#include "lmkit/foundation/UnfairLock.hpp"

namespace lmkit {

UnfairLock::UnfairLock() : word_(std::make_unique<std::mutex>()) {}
UnfairLock::~UnfairLock() = default;

void UnfairLock::lock() {
    word_->lock();
}
void UnfairLock::unlock() {
    word_->unlock();
}
bool UnfairLock::tryLock() {
    return word_->try_lock();
}

}  // namespace lmkit

#include "lmkit/nodes/Operation.hpp"

#include <chrono>
#include <vector>

namespace lmkit {

void Operation::start() {
    if (!claimStart())
        return;
    if (isCancelled()) {
        setFinished(true);
        return;
    }
    setExecuting(true);
    main();
    finishExecuting();
}

bool Operation::claimStart() {
    std::lock_guard guard(mutex_);
    if (started_ || finished_)
        return false;
    started_ = true;
    return true;
}

void Operation::cancel() {
    {
        std::lock_guard guard(mutex_);
        if (cancelled_ || finished_)
            return;
    }
    notify(kIsCancelledKey, Change::Will);
    {
        std::lock_guard guard(mutex_);
        cancelled_ = true;
    }
    notify(kIsCancelledKey, Change::Did);
}

bool Operation::isCancelled() const {
    std::lock_guard guard(mutex_);
    return cancelled_;
}

bool Operation::isExecuting() const {
    std::lock_guard guard(mutex_);
    return executing_;
}

bool Operation::isFinished() const {
    std::lock_guard guard(mutex_);
    return finished_;
}

Operation::ObserverToken Operation::addObserver(Observer observer) {
    std::lock_guard guard(observersMutex_);
    ObserverToken token = nextToken_++;
    observers_.emplace(token, std::move(observer));
    return token;
}

void Operation::removeObserver(ObserverToken token) {
    std::lock_guard guard(observersMutex_);
    observers_.erase(token);
}

bool Operation::waitUntilFinished(double seconds) const {
    std::unique_lock lock(mutex_);
    if (seconds < 0) {
        finishedCondition_.wait(lock, [this] { return finished_; });
        return true;
    }
    return finishedCondition_.wait_for(lock, std::chrono::duration<double>(seconds),
                                       [this] { return finished_; });
}

void Operation::setExecuting(bool executing) {
    if (isExecuting() == executing)
        return;
    notify(kIsExecutingKey, Change::Will);
    {
        std::lock_guard guard(mutex_);
        executing_ = executing;
    }
    notify(kIsExecutingKey, Change::Did);
}

void Operation::setFinished(bool finished) {
    if (isFinished() == finished)
        return;
    notify(kIsFinishedKey, Change::Will);
    {
        std::lock_guard guard(mutex_);
        finished_ = finished;
    }
    finishedCondition_.notify_all();
    notify(kIsFinishedKey, Change::Did);
}

void Operation::finishExecuting() {
    if (isFinished())
        return;
    notify(kIsFinishedKey, Change::Will);
    notify(kIsExecutingKey, Change::Will);
    {
        std::lock_guard guard(mutex_);
        executing_ = false;
        finished_ = true;
    }
    finishedCondition_.notify_all();
    notify(kIsExecutingKey, Change::Did);
    notify(kIsFinishedKey, Change::Did);
}

void Operation::notify(const std::string& keyPath, Change change) {
    // Observers run outside the lock on a copy, so that one may look at the operation's flags or
    // drop its last reference to another object without deadlocking.
    std::vector<Observer> observers;
    {
        std::lock_guard guard(observersMutex_);
        observers.reserve(observers_.size());
        for (const auto& [token, observer] : observers_)
            observers.push_back(observer);
    }
    for (const auto& observer : observers)
        observer(*this, keyPath, change);
}

}  // namespace lmkit

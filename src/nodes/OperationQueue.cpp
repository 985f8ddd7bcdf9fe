#include "lmkit/nodes/OperationQueue.hpp"

#include <algorithm>
#include <chrono>

namespace lmkit {

OperationQueue::OperationQueue(QoS qos)
    : queue_(DispatchQueue::global(qos)), shared_(std::make_shared<Shared>()) {}

OperationQueue::~OperationQueue() = default;

void OperationQueue::addOperation(const std::shared_ptr<Operation>& operation) {
    if (!operation || operation->isFinished())
        return;
    {
        std::lock_guard guard(shared_->mutex);
        for (const auto& entry : shared_->running) {
            if (entry.first == operation)
                return;
        }
        // The observer holds the queue's bookkeeping weakly: a queue destroyed first leaves the
        // operation to finish alone.
        auto token = operation->addObserver(
            [weak = std::weak_ptr<Shared>(shared_)](Operation& op, const std::string& keyPath,
                                                    Operation::Change change) {
                if (change != Operation::Change::Did || keyPath != Operation::kIsFinishedKey ||
                    !op.isFinished())
                    return;
                if (auto shared = weak.lock())
                    remove(shared, op);
            });
        shared_->running.emplace_back(operation, token);
    }
    queue_.async([operation] { operation->start(); });
    // An operation finished between the check above and the observer's registration is
    // removed here instead.
    if (operation->isFinished())
        remove(shared_, *operation);
}

void OperationQueue::remove(const std::shared_ptr<Shared>& shared, Operation& operation) {
    std::shared_ptr<Operation> keep;  // released outside the lock
    {
        std::lock_guard guard(shared->mutex);
        auto it = std::find_if(shared->running.begin(), shared->running.end(),
                               [&](const auto& entry) { return entry.first.get() == &operation; });
        if (it == shared->running.end())
            return;
        keep = std::move(it->first);
        keep->removeObserver(it->second);
        shared->running.erase(it);
    }
    shared->drained.notify_all();
}

std::vector<std::shared_ptr<Operation>> OperationQueue::operations() const {
    std::lock_guard guard(shared_->mutex);
    std::vector<std::shared_ptr<Operation>> list;
    for (const auto& entry : shared_->running)
        list.push_back(entry.first);
    return list;
}

std::size_t OperationQueue::operationCount() const {
    std::lock_guard guard(shared_->mutex);
    return shared_->running.size();
}

void OperationQueue::cancelAllOperations() {
    for (const auto& operation : operations())
        operation->cancel();
}

bool OperationQueue::waitUntilAllOperationsAreFinished(double seconds) const {
    std::unique_lock lock(shared_->mutex);
    auto empty = [this] { return shared_->running.empty(); };
    if (seconds < 0) {
        shared_->drained.wait(lock, empty);
        return true;
    }
    return shared_->drained.wait_for(lock, std::chrono::duration<double>(seconds), empty);
}

}  // namespace lmkit

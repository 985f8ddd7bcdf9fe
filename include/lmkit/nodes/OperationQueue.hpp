#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "lmkit/nodes/Operation.hpp"
#include "lmkit/platform/DispatchQueue.hpp"

namespace lmkit {

/// Runs operations on a global dispatch queue and keeps each alive until it is finished.
/// Operations start in the order they were added, all at once: nothing limits how many run
/// together.
class OperationQueue {
  public:
    explicit OperationQueue(QoS qos = QoS::Default);
    /// Waits for nothing: operations still running keep themselves alive and finish on their own.
    ~OperationQueue();
    OperationQueue(const OperationQueue&) = delete;
    OperationQueue& operator=(const OperationQueue&) = delete;

    /// Starts `operation` on the queue. An operation already finished, or already in this queue,
    /// is not added again.
    void addOperation(const std::shared_ptr<Operation>& operation);
    /// The operations added and not yet finished, in the order they were added.
    std::vector<std::shared_ptr<Operation>> operations() const;
    std::size_t operationCount() const;
    void cancelAllOperations();
    /// Blocks until every added operation is finished; false when `seconds` (when not negative)
    /// passed first.
    bool waitUntilAllOperationsAreFinished(double seconds = -1) const;

  private:
    struct Shared {
        mutable std::mutex mutex;
        std::condition_variable drained;
        // Guarded by mutex: each operation with the token of the queue's observer on it.
        std::vector<std::pair<std::shared_ptr<Operation>, Operation::ObserverToken>> running;
    };
    static void remove(const std::shared_ptr<Shared>& shared, Operation& operation);

    DispatchQueue queue_;
    std::shared_ptr<Shared> shared_;
};

}  // namespace lmkit

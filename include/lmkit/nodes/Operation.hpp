#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace lmkit {

/// A unit of work that runs once: ready → executing → finished, or straight to finished when it
/// was cancelled before it started. Observers hear about every change of "isExecuting" and
/// "isFinished" (and "isCancelled"), once before it (willChange) and once after (didChange), on
/// the thread that made the change.
///
/// A synchronous operation does its work in main() during start() and is finished when start()
/// returns. An asynchronous one (isAsynchronous() true) overrides start(), marks itself
/// executing, and finishes later through setFinished().
///
/// Always create operations as std::shared_ptr: a queue keeps them alive while they run.
class Operation : public std::enable_shared_from_this<Operation> {
  public:
    static constexpr const char* kIsExecutingKey = "isExecuting";
    static constexpr const char* kIsFinishedKey = "isFinished";
    static constexpr const char* kIsCancelledKey = "isCancelled";

    enum class Change { Will, Did };
    /// Called with the operation, the key path that changes and whether it is about to change or
    /// has changed. Observers must not add or remove observers of the same operation.
    using Observer = std::function<void(Operation&, const std::string& keyPath, Change change)>;
    using ObserverToken = std::uint64_t;

    Operation() = default;
    virtual ~Operation() = default;
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

    /// Runs the operation: a cancelled one only becomes finished; otherwise main() runs and the
    /// operation is finished afterwards. Starting twice does nothing the second time.
    virtual void start();
    /// The work of a synchronous operation.
    virtual void main() {}
    /// Marks the operation cancelled; it is up to the work to look at isCancelled().
    virtual void cancel();

    virtual bool isAsynchronous() const { return false; }
    bool isCancelled() const;
    bool isExecuting() const;
    bool isFinished() const;

    ObserverToken addObserver(Observer observer);
    void removeObserver(ObserverToken token);

    /// Blocks until the operation is finished; false when `seconds` (when not negative) passed
    /// first. Must not be called from the operation's own work.
    bool waitUntilFinished(double seconds = -1) const;

  protected:
    /// Changes a flag and tells the observers around the change (nothing when it holds already).
    void setExecuting(bool executing);
    void setFinished(bool finished);
    /// Both at once, as asynchronous operations end: "isFinished" and "isExecuting" change
    /// inside one pair of notifications.
    void finishExecuting();
    /// Claims the one start an operation gets; false when it was started before.
    bool claimStart();

  private:
    void notify(const std::string& keyPath, Change change);

    mutable std::mutex mutex_;
    mutable std::condition_variable finishedCondition_;
    bool started_ = false;    // guarded by mutex_
    bool cancelled_ = false;  // guarded by mutex_
    bool executing_ = false;  // guarded by mutex_
    bool finished_ = false;   // guarded by mutex_

    std::mutex observersMutex_;
    ObserverToken nextToken_ = 1;                  // guarded by observersMutex_
    std::map<ObserverToken, Observer> observers_;  // guarded by observersMutex_
};

}  // namespace lmkit

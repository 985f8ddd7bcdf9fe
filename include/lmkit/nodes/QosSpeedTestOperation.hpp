#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "lmkit/models/NodeInfo.hpp"
#include "lmkit/nodes/NodeSelector.hpp"
#include "lmkit/nodes/Operation.hpp"
#include "lmkit/platform/DispatchQueue.hpp"

namespace lmkit {

/// Probes every server address of a quality-of-service answer at once, one node selector each,
/// and collects one NodeInfo (delay, loss, deviation) per address that answered, in the order
/// the answers arrived. It finishes as soon as every selector has reported, or after a budget
/// of one second per address.
///
/// An address is a host name or IP literal probed on the echo port (9999), or "host:port"
/// ("[v6]:port" for IPv6) to probe another port.
///
/// main() runs on the operation's serial queue and blocks it while waiting. Answers that arrive
/// after the budget still land in results(): the selectors are stopped at the end, but a
/// callback already on its way is not taken back.
class QosSpeedTestOperation : public Operation {
  public:
    /// Time granted to each address before the operation stops waiting.
    static constexpr double kBudgetPerAddress = 1.0;
    /// Added to the budget so that a selector whose own time-out equals the budget still reports.
    static constexpr double kBudgetSlack = 0.01;

    static std::shared_ptr<QosSpeedTestOperation> create(std::vector<std::string> addresses);

    const std::vector<std::string>& addresses() const { return addresses_; }
    std::string sendDataPrefix() const;
    void setSendDataPrefix(const std::string& prefix);
    std::vector<std::shared_ptr<NodeSelector>> nodeSelectors() const;
    /// A copy of the items collected so far.
    std::vector<std::shared_ptr<NodeInfo>> results() const;
    const DispatchQueue& queue() const { return queue_; }
    /// The budget of the wait: addresses + kBudgetSlack seconds.
    double timeBudget() const;

    bool isAsynchronous() const override { return true; }
    /// A cancelled operation finishes at once; otherwise it becomes executing and main() is
    /// queued on queue().
    void start() override;
    void main() override;
    /// Stops every node selector.
    void cleanup();

    /// Splits "host", "host:port" or "[v6]:port"; the port is 0 when none is given. False for
    /// an empty host or a port that is not 1 to 65535.
    static bool splitAddress(const std::string& address, std::string& host, long& port);

  private:
    explicit QosSpeedTestOperation(std::vector<std::string> addresses);

    const std::vector<std::string> addresses_;
    const DispatchQueue queue_;

    mutable std::mutex mutex_;
    std::string sendDataPrefix_;                                // guarded by mutex_
    std::vector<std::shared_ptr<NodeSelector>> nodeSelectors_;  // guarded by mutex_
    // Appended from the selectors' callback queues, several at once.
    std::vector<std::shared_ptr<NodeInfo>> resultItems_;  // guarded by mutex_
};

}  // namespace lmkit

#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "lmkit/netinfo/InterfaceNaming.hpp"
#include "lmkit/platform/DispatchQueue.hpp"
#include "lmkit/platform/InterfaceAddresses.hpp"

namespace lmkit {

class NetworkChangeWatcher;

/// Whether the network can be reached, and over which kind of link, judged from the interface
/// list: any up, non-loopback interface with a usable address makes the network reachable; it
/// counts as cellular only when every such interface is a cellular one. Changes are noticed
/// through the kernel's network change messages.
class Reachability {
  public:
    using InterfaceSource = std::function<std::optional<std::vector<InterfaceAddress>>()>;

    static constexpr uint32_t kFlagReachable = 0x2;
    static constexpr uint32_t kFlagIsWWAN = 0x40000;
    enum Status : int { NotReachable = 0, ReachableViaWWAN = 1, ReachableViaWiFi = 2 };

    explicit Reachability(InterfaceSource source = interfaceAddresses,
                          InterfaceNaming naming = InterfaceNaming::platformNames());
    ~Reachability();

    uint32_t flags() const;
    Status currentStatus() const;
    static Status statusOfFlags(uint32_t flags);

    /// Calls `onChange` on `queue` (a serial queue) with the new status whenever the flags change.
    /// False when changes cannot be watched (the status can still be read).
    bool startNotifier(DispatchQueue queue, std::function<void(int status)> onChange);
    void stopNotifier();

    /// Fixes the flags (nullopt: read the interfaces again) and reports the change as the
    /// system would.
    void setFlags(std::optional<uint32_t> flags);
    void setInterfaceNaming(InterfaceNaming naming);

  private:
    void reevaluate();

    InterfaceSource source_;
    mutable std::mutex mutex_;
    InterfaceNaming naming_;                         // guarded by mutex_
    std::optional<uint32_t> fixedFlags_;             // guarded by mutex_
    std::optional<uint32_t> lastFlags_;              // guarded by mutex_
    std::optional<DispatchQueue> queue_;             // guarded by mutex_
    std::function<void(int)> onChange_;              // guarded by mutex_
    std::unique_ptr<NetworkChangeWatcher> watcher_;  // guarded by mutex_
};

}  // namespace lmkit

#include "lmkit/netinfo/Reachability.hpp"

#include <net/if.h>
#include <sys/socket.h>

#include "lmkit/netinfo/VPNNetworkStatusMonitor.hpp"
#include "lmkit/platform/NetworkChangeWatcher.hpp"

namespace lmkit {

Reachability::Reachability(InterfaceSource source, InterfaceNaming naming)
    : source_(std::move(source)), naming_(std::move(naming)) {}

Reachability::~Reachability() {
    stopNotifier();
}

uint32_t Reachability::flags() const {
    InterfaceNaming naming;
    {
        std::lock_guard lock(mutex_);
        if (fixedFlags_)
            return *fixedFlags_;
        naming = naming_;
    }
    auto entries = source_();
    if (!entries)
        return 0;
    bool cellular = false;
    bool other = false;
    for (const auto& entry : *entries) {
        if (!entry.isUp() || (entry.flags & IFF_LOOPBACK) != 0)
            continue;
        if (entry.family != AF_INET && entry.family != AF_INET6)
            continue;
        if (!VPNNetworkStatusMonitor::isValidIPAddress(entry.address, entry.family == AF_INET)) {
            continue;
        }
        (naming.isCellular(entry.name) ? cellular : other) = true;
    }
    if (!cellular && !other)
        return 0;
    return kFlagReachable | (other ? 0 : kFlagIsWWAN);
}

Reachability::Status Reachability::statusOfFlags(uint32_t flags) {
    if ((flags & kFlagReachable) == 0)
        return NotReachable;
    return (flags & kFlagIsWWAN) != 0 ? ReachableViaWWAN : ReachableViaWiFi;
}

Reachability::Status Reachability::currentStatus() const {
    return statusOfFlags(flags());
}

bool Reachability::startNotifier(DispatchQueue queue, std::function<void(int status)> onChange) {
    stopNotifier();
    uint32_t now = flags();
    std::lock_guard lock(mutex_);
    queue_ = queue;
    onChange_ = std::move(onChange);
    lastFlags_ = now;
    // The watcher calls back on the notifier's queue; the object outlives it (stopNotifier in
    // the destructor waits until no further call is queued).
    watcher_ = NetworkChangeWatcher::start(queue, [this] { reevaluate(); });
    return watcher_ != nullptr;
}

void Reachability::stopNotifier() {
    std::unique_ptr<NetworkChangeWatcher> watcher;
    std::optional<DispatchQueue> queue;
    {
        std::lock_guard lock(mutex_);
        watcher = std::move(watcher_);
        onChange_ = nullptr;
        queue.swap(queue_);
    }
    if (watcher)
        watcher->stop();
    // Blocks already queued refer to this object: let them finish (the queue is serial).
    if (queue)
        queue->sync([] {});
}

void Reachability::setFlags(std::optional<uint32_t> flags) {
    std::optional<DispatchQueue> queue;
    {
        std::lock_guard lock(mutex_);
        fixedFlags_ = flags;
        queue = queue_;
    }
    if (queue)
        queue->async([this] { reevaluate(); });
}

void Reachability::setInterfaceNaming(InterfaceNaming naming) {
    std::lock_guard lock(mutex_);
    naming_ = std::move(naming);
}

void Reachability::reevaluate() {
    uint32_t now = flags();
    std::function<void(int)> onChange;
    {
        std::lock_guard lock(mutex_);
        if (lastFlags_ == now || !onChange_)
            return;
        lastFlags_ = now;
        onChange = onChange_;
    }
    onChange(statusOfFlags(now));
}

}  // namespace lmkit

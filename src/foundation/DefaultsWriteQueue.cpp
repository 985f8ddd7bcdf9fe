#include "lmkit/foundation/DefaultsWriteQueue.hpp"

#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>

#include "lmkit/foundation/Log.hpp"

namespace lmkit {

namespace {

// How long a normal exit waits for writes still queued. Each write is one SQLite commit and a
// flush, a few milliseconds; the bound keeps an exit from hanging on a stuck disk, or when exit()
// is called from a block on the queue itself (which the drain would otherwise wait for forever).
constexpr auto kExitDrainLimit = std::chrono::seconds(3);

void drainAtExit() {
    auto done = std::make_shared<std::promise<void>>();
    auto finished = done->get_future();
    defaultsWriteQueue().async([done] { done->set_value(); });
    if (finished.wait_for(kExitDrainLimit) != std::future_status::ready)
        log::error("[AppDefault] writes still queued at exit were not all written");
}

}  // namespace

DispatchQueue defaultsWriteQueue() {
    static const DispatchQueue queue = DispatchQueue::serial("com.lmkit.userDefault.queue");
    // Exit runs handlers and static destructors in reverse order of registration: the drain is
    // registered after the queue is fully made, and after one block has brought up the threads
    // the queue runs on, so it runs while both still exist.
    [[maybe_unused]] static const bool drainRegistered = [] {
        queue.sync([] {});
        return std::atexit(drainAtExit) == 0;
    }();
    return queue;
}

}  // namespace lmkit

#include "platform/ThreadPool.hpp"

#include <algorithm>
#include <thread>

namespace lmkit::detail {

namespace {
// Enough threads that a handful of blocked synchronous waits cannot starve the pool.
constexpr unsigned kMinimumThreads = 16;
}  // namespace

asio::thread_pool& threadPool() {
    // Never destroyed: blocks and timers may still be pending when static destructors run.
    static auto* pool =
        new asio::thread_pool(std::max(kMinimumThreads, 4 * std::thread::hardware_concurrency()));
    return *pool;
}

asio::any_io_executor poolExecutor() {
    return threadPool().get_executor();
}

}  // namespace lmkit::detail

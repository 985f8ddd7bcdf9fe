#pragma once

#include <asio/any_io_executor.hpp>
#include <asio/thread_pool.hpp>

namespace lmkit::detail {

/// The one process-wide pool that runs every queue, timer and socket of the kit. Sized
/// generously: blocks may wait synchronously on other queues (sync, group waits), and a pool
/// with as few threads as cores would let such waits starve the work they wait for.
asio::thread_pool& threadPool();
asio::any_io_executor poolExecutor();

}  // namespace lmkit::detail

#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <asio/strand.hpp>

#include "lmkit/platform/DispatchQueue.hpp"
#include "platform/BarrierScheduler.hpp"
#include "platform/ThreadPool.hpp"

namespace lmkit {

struct DispatchQueue::Impl {
    std::string label;
    bool serial = false;
    bool isMain = false;
    std::optional<asio::strand<asio::any_io_executor>> strand;
    // Set for the kit's own concurrent queues, which keep barrier blocks in order; the global
    // queues have none and run every block as it comes.
    std::unique_ptr<detail::BarrierScheduler> barriers;

    /// `handOff`: the block continues the calling pool thread's work (see asyncHandOff).
    void post(Block block, bool barrier = false, bool handOff = false);
    /// Runs `block` with this queue marked as the current one on the calling thread.
    void runMarked(const Block& block);
};

}  // namespace lmkit

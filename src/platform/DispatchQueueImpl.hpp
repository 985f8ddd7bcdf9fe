#pragma once

#include <functional>
#include <optional>
#include <string>

#include <asio/strand.hpp>

#include "lmkit/platform/DispatchQueue.hpp"
#include "platform/ThreadPool.hpp"

namespace lmkit {

struct DispatchQueue::Impl {
    std::string label;
    bool serial = false;
    bool isMain = false;
    std::optional<asio::strand<asio::any_io_executor>> strand;

    void post(Block block);
    /// Runs `block` with this queue marked as the current one on the calling thread.
    void runMarked(const Block& block);
};

}  // namespace lmkit

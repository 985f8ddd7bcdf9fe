#include "lmkit/platform/NetworkChangeWatcher.hpp"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <future>
#include <system_error>

#include <asio/bind_executor.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/strand.hpp>

#include "platform/ThreadPool.hpp"

namespace lmkit {

struct NetworkChangeWatcher::State : std::enable_shared_from_this<State> {
    State(DispatchQueue queue, std::function<void()> onChange)
        : queue(std::move(queue)),
          onChange(std::move(onChange)),
          strand(asio::make_strand(detail::poolExecutor())) {}

    const DispatchQueue queue;
    const std::function<void()> onChange;
    asio::strand<asio::any_io_executor> strand;
    std::optional<asio::posix::stream_descriptor> descriptor;  // strand only
    std::atomic<bool> stopped{false};
    std::atomic<bool> reportPending{false};

    void arm() {
        descriptor->async_wait(
            asio::posix::descriptor_base::wait_read,
            asio::bind_executor(strand, [weak = weak_from_this()](const std::error_code& ec) {
                auto self = weak.lock();
                if (!self || ec || self->stopped || !self->descriptor)
                    return;
                self->readAll();
                self->arm();
            }));
    }

    void readAll() {
        std::array<char, 16384> buffer;
        bool any = false;
        while (::recv(descriptor->native_handle(), buffer.data(), buffer.size(), MSG_DONTWAIT) >
               0) {
            any = true;
        }
        // ENOBUFS (the kernel dropped messages) also means something changed.
        if (!any && errno != ENOBUFS)
            return;
        if (reportPending.exchange(true))
            return;
        queue.asyncAfter(kCoalesceSeconds, [weak = weak_from_this()] {
            auto self = weak.lock();
            if (!self)
                return;
            self->reportPending = false;
            if (!self->stopped)
                self->onChange();
        });
    }
};

std::unique_ptr<NetworkChangeWatcher> NetworkChangeWatcher::start(DispatchQueue queue,
                                                                  std::function<void()> onChange,
                                                                  Error* error) {
    int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE |
                      RTMGRP_IPV6_ROUTE;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
        int code = errno;
        if (fd >= 0)
            ::close(fd);
        if (error) {
            *error = Error::withDescription(
                "NSPOSIXErrorDomain", code,
                "cannot watch network changes: " + std::system_category().message(code));
        }
        return nullptr;
    }
    auto state = std::make_shared<State>(std::move(queue), std::move(onChange));
    std::promise<void> armed;
    asio::post(state->strand, [&] {
        state->descriptor.emplace(state->strand, fd);
        state->arm();
        armed.set_value();
    });
    armed.get_future().wait();
    return std::unique_ptr<NetworkChangeWatcher>(new NetworkChangeWatcher(std::move(state)));
}

NetworkChangeWatcher::~NetworkChangeWatcher() {
    stop();
}

void NetworkChangeWatcher::stop() {
    if (state_->stopped.exchange(true))
        return;
    std::promise<void> closed;
    asio::post(state_->strand, [&] {
        std::error_code ignored;
        if (state_->descriptor)
            state_->descriptor->close(ignored);
        state_->descriptor.reset();
        closed.set_value();
    });
    closed.get_future().wait();
}

}  // namespace lmkit

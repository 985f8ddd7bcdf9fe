#include "lmkit/testbed/Socks5Relay.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <random>
#include <unordered_map>
#include <vector>

#include <fmt/format.h>

#include "ServerLoop.hpp"
#include "Sockets.hpp"
#include "lmkit/foundation/Log.hpp"

namespace lmkit {

using testbed::ServerLoop;

namespace {

constexpr const char* kRelayErrorDomain = "Socks5RelayErrorDomain";
constexpr const char* kLogTag = "[Socks5Relay] ";
constexpr std::size_t kRequestHeader = 16;
constexpr std::size_t kReplyHeader = 14;
constexpr std::size_t kMaxDatagram = 65536;
// Idle associations are looked for this often at most: a minute's time-out need not be met to
// the millisecond, and a test's short one still is closely.
constexpr double kLongestSweepSeconds = 1.0;
// While a forwarded request's reply is awaited, at most this long, the relay's thread does not
// sleep: a thread woken by the reply after a long sleep passes it on late, by a millisecond or
// more on a virtual machine, and that would count as the path's delay.
constexpr double kAwaitReplySeconds = 0.5;
// Once the awaited replies are in, the thread stays awake this much longer: a client that has
// its reply usually sends its next request within moments (the next datagram of a test, the next
// test), and a sleeping thread would take that in late in the same way.
constexpr double kAwaitNextRequestSeconds = 0.2;

Error relayFailure(const std::string& text) {
    return Error::withDescription(kRelayErrorDomain, 1, text);
}

std::string addressKey(const sockaddr_storage& address, socklen_t length) {
    return std::string(reinterpret_cast<const char*>(&address), length);
}

std::string describe(const sockaddr_storage& address) {
    char text[INET6_ADDRSTRLEN] = {};
    std::uint16_t port = 0;
    if (address.ss_family == AF_INET6) {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(&address);
        inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof text);
        port = ntohs(in6->sin6_port);
        return fmt::format("[{}]:{}", text, port);
    }
    const auto* in = reinterpret_cast<const sockaddr_in*>(&address);
    inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
    return fmt::format("{}:{}", text, ntohs(in->sin_port));
}

}  // namespace

struct Socks5Relay::Impl {
    // One client and the socket its requests leave from.
    struct Association {
        sockaddr_storage client{};
        socklen_t clientLength = 0;
        int upstreamFd = -1;
        ServerLoop::Clock::time_point lastUsed;
    };

    Socks5RelayConfig config;
    std::mt19937_64 random;
    std::unique_ptr<ServerLoop> loop;
    int listenFd = -1;
    std::atomic<bool> stopped{false};
    std::atomic<std::uint64_t> received{0};
    std::atomic<std::uint64_t> rejected{0};
    std::atomic<std::uint64_t> forwarded{0};
    std::atomic<std::uint64_t> relayed{0};
    std::uint64_t awaiting = 0;  // loop thread only: requests forwarded whose reply has not come
    std::atomic<std::size_t> open{0};
    std::atomic<std::uint64_t> expired{0};
    std::atomic<std::uint64_t> evicted{0};
    // The loop's own state: associations by client address, and which client an upstream
    // socket serves.
    std::unordered_map<std::string, Association> byClient;
    std::unordered_map<int, std::string> clientOfUpstream;
    std::vector<std::uint8_t> buffer = std::vector<std::uint8_t>(kMaxDatagram);

    ~Impl() {
        loop.reset();  // the thread first: it uses the descriptors
        for (auto& [key, association] : byClient)
            ::close(association.upstreamFd);
        if (listenFd >= 0)
            ::close(listenFd);
    }

    std::chrono::duration<double> idleTimeout() const {
        return std::chrono::duration<double>(config.idleTimeoutSeconds);
    }

    void close(const std::string& key) {
        auto found = byClient.find(key);
        if (found == byClient.end())
            return;
        int fd = found->second.upstreamFd;
        loop->unwatch(fd);
        ::close(fd);
        clientOfUpstream.erase(fd);
        byClient.erase(found);
        open = byClient.size();
    }

    void evictLeastRecentlyUsed() {
        auto oldest = std::min_element(byClient.begin(), byClient.end(), [](auto& a, auto& b) {
            return a.second.lastUsed < b.second.lastUsed;
        });
        if (oldest == byClient.end())
            return;
        log::info(fmt::format("{}{} associations open: closing the least recently used, {}",
                              kLogTag, byClient.size(), describe(oldest->second.client)));
        ++evicted;
        close(oldest->first);
    }

    void sweepIdle() {
        auto now = ServerLoop::Clock::now();
        std::vector<std::string> idle;
        for (const auto& [key, association] : byClient) {
            if (now - association.lastUsed >= idleTimeout())
                idle.push_back(key);
        }
        for (const auto& key : idle) {
            log::info(fmt::format("{}association of {} idle for {:g} s: closed", kLogTag,
                                  describe(byClient[key].client), config.idleTimeoutSeconds));
            // Counted once closed: whoever sees the count sees the association gone.
            close(key);
            ++expired;
        }
        scheduleSweep();
    }

    void scheduleSweep() {
        loop->after(std::clamp(config.idleTimeoutSeconds / 4, 0.001, kLongestSweepSeconds),
                    [this] { sweepIdle(); });
    }

    Association* associationFor(const sockaddr_storage& client, socklen_t length) {
        auto key = addressKey(client, length);
        if (auto found = byClient.find(key); found != byClient.end())
            return &found->second;
        if (byClient.size() >= std::max<std::size_t>(1, config.maxAssociations))
            evictLeastRecentlyUsed();
        sockaddr_storage any{};
        any.ss_family = AF_INET;
        std::string reason;
        int fd = testbed::openBound(any, sizeof(sockaddr_in), testbed::kBufferBytes, reason);
        if (fd < 0) {
            log::error(
                fmt::format("{}no upstream socket for {}: {}", kLogTag, describe(client), reason));
            return nullptr;
        }
        if (!loop->watch(fd, [this, fd] { receiveReplies(fd); })) {
            ::close(fd);
            return nullptr;
        }
        clientOfUpstream[fd] = key;
        auto& association = byClient[key];
        association = {client, length, fd, ServerLoop::Clock::now()};
        open = byClient.size();
        return &association;
    }

    bool acceptable(const std::uint8_t* data, std::size_t size) const {
        if (size < kRequestHeader || data[2] != 0 || data[3] != 1)
            return false;
        std::uint32_t token = (std::uint32_t(data[10]) << 24) | (std::uint32_t(data[11]) << 16) |
                              (std::uint32_t(data[12]) << 8) | std::uint32_t(data[13]);
        return token == config.token;
    }

    void forward(int upstreamFd, const sockaddr_in& target,
                 const std::vector<std::uint8_t>& payload) {
        if (::sendto(upstreamFd, payload.data(), payload.size(), 0,
                     reinterpret_cast<const sockaddr*>(&target), sizeof target) >= 0) {
            ++forwarded;
            ++awaiting;
            loop->stayAwakeFor(kAwaitReplySeconds);
        }
    }

    void receiveRequests() {
        for (;;) {
            sockaddr_storage from{};
            iovec vector{buffer.data(), buffer.size()};
            alignas(cmsghdr) char control[testbed::kArrivalControlBytes];
            msghdr message{};
            message.msg_name = &from;
            message.msg_namelen = sizeof from;
            message.msg_iov = &vector;
            message.msg_iovlen = 1;
            message.msg_control = control;
            message.msg_controllen = sizeof control;
            ssize_t size = ::recvmsg(listenFd, &message, MSG_DONTWAIT);
            if (size < 0)
                return;
            const socklen_t length = message.msg_namelen;
            const auto arrived = testbed::ArrivalClock().arrival(message);
            ++received;
            const auto* data = buffer.data();
            if (!acceptable(data, static_cast<std::size_t>(size))) {
                ++rejected;
                continue;
            }
            auto* association = associationFor(from, length);
            if (!association) {
                ++rejected;
                continue;
            }
            association->lastUsed = arrived;
            const auto& faults = config.faults;
            std::uniform_real_distribution<double> unit(0.0, 1.0);
            if (faults.loss > 0 && unit(random) < faults.loss)
                continue;
            sockaddr_in target{};
            target.sin_family = AF_INET;
            std::memcpy(&target.sin_addr.s_addr, data + 4, 4);
            std::memcpy(&target.sin_port, data + 8, 2);
            std::vector<std::uint8_t> payload(data + kRequestHeader, data + size);
            if (faults.delaySeconds <= 0) {
                forward(association->upstreamFd, target, payload);
                continue;
            }
            // The request is held from its arrival, on its own deadline; its association may
            // have been closed by then, and the request goes with it.
            auto due = arrived + std::chrono::duration_cast<ServerLoop::Clock::duration>(
                                     std::chrono::duration<double>(faults.delaySeconds));
            loop->at(due,
                     [this, key = addressKey(from, length), target, payload = std::move(payload)] {
                         if (auto found = byClient.find(key); found != byClient.end())
                             forward(found->second.upstreamFd, target, payload);
                     });
        }
    }

    void receiveReplies(int upstreamFd) {
        auto client = clientOfUpstream.find(upstreamFd);
        if (client == clientOfUpstream.end())
            return;
        auto& association = byClient[client->second];
        for (;;) {
            sockaddr_in from{};
            socklen_t length = sizeof from;
            ssize_t size =
                ::recvfrom(upstreamFd, buffer.data() + kReplyHeader, buffer.size() - kReplyHeader,
                           MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &length);
            if (size < 0)
                return;
            association.lastUsed = ServerLoop::Clock::now();
            std::vector<std::uint8_t> reply(kReplyHeader + static_cast<std::size_t>(size));
            const auto& faults = config.faults;
            reply[2] = faults.replyFrag;
            reply[3] = faults.replyAddressType;
            std::memcpy(reply.data() + 4, &from.sin_addr.s_addr, 4);
            std::memcpy(reply.data() + 8, &from.sin_port, 2);
            for (int i = 0; i < 4; ++i)
                reply[10 + i] = static_cast<std::uint8_t>(config.token >> (24 - 8 * i));
            std::memcpy(reply.data() + kReplyHeader, buffer.data() + kReplyHeader,
                        static_cast<std::size_t>(size));
            if (faults.truncateReplyTo > 0 && faults.truncateReplyTo < reply.size())
                reply.resize(faults.truncateReplyTo);
            if (faults.garbageReplies) {
                for (auto& byte : reply)
                    byte = static_cast<std::uint8_t>(random());
            }
            if (::sendto(listenFd, reply.data(), reply.size(), 0,
                         reinterpret_cast<const sockaddr*>(&association.client),
                         association.clientLength) >= 0) {
                ++relayed;
            }
            if (awaiting > 0 && --awaiting == 0) {
                loop->maySleep();
                loop->stayAwakeFor(kAwaitNextRequestSeconds);
            }
        }
    }
};

Socks5Relay::Socks5Relay(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

Socks5Relay::~Socks5Relay() {
    stop();
}

std::unique_ptr<Socks5Relay> Socks5Relay::start(const Socks5RelayConfig& config, std::uint64_t seed,
                                                Error* error) {
    auto fail = [&](const std::string& text) -> std::unique_ptr<Socks5Relay> {
        if (error)
            *error = relayFailure(text);
        return nullptr;
    };
    if (config.faults.loss < 0 || config.faults.loss > 1 || config.faults.delaySeconds < 0)
        return fail("loss must lie in [0, 1] and delay must not be negative");
    if (!(config.idleTimeoutSeconds > 0) || config.maxAssociations < 1)
        return fail("the idle time-out must be positive and at least one association allowed");
    auto impl = std::make_unique<Impl>();
    impl->config = config;
    impl->random.seed(seed);
    std::string reason;
    impl->loop = ServerLoop::create(reason);
    if (!impl->loop)
        return fail(reason);
    socklen_t length = 0;
    auto address = testbed::makeAddress(config.host, config.port, length);
    if (!address)
        return fail("not an IP address: " + config.host);
    impl->listenFd = testbed::openBound(*address, length, testbed::kBufferBytes, reason);
    if (impl->listenFd < 0)
        return fail("cannot listen on " + config.host + ":" + std::to_string(config.port) + ": " +
                    reason);
    impl->config.port = testbed::boundPort(impl->listenFd);
    auto* raw = impl.get();
    if (!impl->loop->watch(impl->listenFd, [raw] { raw->receiveRequests(); }))
        return fail("cannot watch the relay's socket");
    impl->scheduleSweep();
    impl->loop->start();
    return std::unique_ptr<Socks5Relay>(new Socks5Relay(std::move(impl)));
}

void Socks5Relay::stop() {
    if (!impl_ || impl_->stopped.exchange(true))
        return;
    impl_->loop->stop();
}

SocketAddress Socks5Relay::endpoint() const {
    const auto& host = impl_->config.host;
    bool v6 = host.find(':') != std::string::npos;
    return {host, impl_->config.port, v6 ? AF_INET6 : AF_INET};
}

std::uint64_t Socks5Relay::requestsReceived() const {
    return impl_->received;
}
std::uint64_t Socks5Relay::requestsRejected() const {
    return impl_->rejected;
}
std::uint64_t Socks5Relay::requestsForwarded() const {
    return impl_->forwarded;
}
std::uint64_t Socks5Relay::repliesRelayed() const {
    return impl_->relayed;
}
std::size_t Socks5Relay::associationCount() const {
    return impl_->open;
}
std::uint64_t Socks5Relay::associationsExpired() const {
    return impl_->expired;
}
std::uint64_t Socks5Relay::associationsEvicted() const {
    return impl_->evicted;
}

}  // namespace lmkit

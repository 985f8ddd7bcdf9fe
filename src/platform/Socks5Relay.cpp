#include "lmkit/platform/Socks5Relay.hpp"
#include "platform/SocketAddress.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <queue>
#include <random>
#include <system_error>
#include <thread>
#include <vector>

namespace lmkit {

namespace {

constexpr const char* kErrorDomain = "Socks5RelayErrorDomain";
constexpr std::size_t kRequestHeader = 16;
constexpr std::size_t kReplyHeader = 14;
constexpr std::size_t kMaxDatagram = 65536;
// One upstream socket per client; a test or benchmark has a handful of clients, and a bound
// keeps a stray sender from exhausting descriptors.
constexpr std::size_t kMaxAssociations = 256;
constexpr std::uint64_t kWakeTag = UINT64_MAX;
constexpr std::uint64_t kListenTag = 0;
constexpr int kBufferBytes = 4 * 1024 * 1024;

using SteadyClock = std::chrono::steady_clock;

Error failure(const std::string& text) {
    return Error::withDescription(kErrorDomain, 1, text);
}

using detail::makeAddress;

int openBound(int family, const sockaddr* address, socklen_t length, std::string* reason) {
    int fd = ::socket(family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *reason = std::system_category().message(errno);
        return -1;
    }
    int size = kBufferBytes;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    if (::bind(fd, address, length) != 0) {
        *reason = std::system_category().message(errno);
        ::close(fd);
        return -1;
    }
    return fd;
}

std::uint16_t boundPort(int fd) {
    sockaddr_storage bound{};
    socklen_t length = sizeof bound;
    getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length);
    if (bound.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port);
    return ntohs(reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
}

std::string addressKey(const sockaddr_storage& address, socklen_t length) {
    return std::string(reinterpret_cast<const char*>(&address), length);
}

}  // namespace

struct Socks5Relay::Impl {
    // One client and the socket its requests leave from.
    struct Association {
        sockaddr_storage client{};
        socklen_t clientLength = 0;
        int upstreamFd = -1;
    };
    struct Pending {
        SteadyClock::time_point due;
        std::uint64_t sequence;
        std::size_t association;
        sockaddr_in target;
        std::vector<std::uint8_t> payload;
        bool operator>(const Pending& other) const {
            return due != other.due ? due > other.due : sequence > other.sequence;
        }
    };

    Socks5RelayConfig config;
    std::mt19937_64 random;
    int listenFd = -1;
    int epollFd = -1;
    int wakeFd = -1;
    std::thread thread;
    std::atomic<bool> stopped{false};
    std::atomic<std::uint64_t> received{0};
    std::atomic<std::uint64_t> rejected{0};
    std::atomic<std::uint64_t> forwarded{0};
    std::atomic<std::uint64_t> relayed{0};
    // The relay thread's own state.
    std::vector<Association> associations;
    std::map<std::string, std::size_t> byClient;
    std::priority_queue<Pending, std::vector<Pending>, std::greater<>> pending;
    std::uint64_t sequence = 0;
    std::vector<std::uint8_t> buffer = std::vector<std::uint8_t>(kMaxDatagram);

    ~Impl() {
        for (auto& association : associations) {
            if (association.upstreamFd >= 0)
                ::close(association.upstreamFd);
        }
        for (int fd : {listenFd, epollFd, wakeFd}) {
            if (fd >= 0)
                ::close(fd);
        }
    }

    std::optional<std::size_t> associationFor(const sockaddr_storage& client, socklen_t length) {
        auto key = addressKey(client, length);
        if (auto found = byClient.find(key); found != byClient.end())
            return found->second;
        if (associations.size() >= kMaxAssociations)
            return std::nullopt;
        sockaddr_in any{};
        any.sin_family = AF_INET;
        std::string reason;
        int fd = openBound(AF_INET, reinterpret_cast<const sockaddr*>(&any), sizeof any, &reason);
        if (fd < 0)
            return std::nullopt;
        std::size_t index = associations.size();
        associations.push_back({client, length, fd});
        byClient.emplace(std::move(key), index);
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = index + 1;
        epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event);
        return index;
    }

    bool acceptable(const std::uint8_t* data, std::size_t size) const {
        if (size < kRequestHeader || data[2] != 0 || data[3] != 1)
            return false;
        std::uint32_t token = (std::uint32_t(data[10]) << 24) | (std::uint32_t(data[11]) << 16) |
                              (std::uint32_t(data[12]) << 8) | std::uint32_t(data[13]);
        return token == config.token;
    }

    void forward(const Pending& item) {
        const auto& association = associations[item.association];
        if (::sendto(association.upstreamFd, item.payload.data(), item.payload.size(), 0,
                     reinterpret_cast<const sockaddr*>(&item.target), sizeof item.target) >= 0) {
            ++forwarded;
        }
    }

    void receiveRequests() {
        for (;;) {
            sockaddr_storage from{};
            socklen_t length = sizeof from;
            ssize_t size = ::recvfrom(listenFd, buffer.data(), buffer.size(), MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr*>(&from), &length);
            if (size < 0)
                return;
            ++received;
            const auto* data = buffer.data();
            if (!acceptable(data, static_cast<std::size_t>(size))) {
                ++rejected;
                continue;
            }
            auto association = associationFor(from, length);
            if (!association) {
                ++rejected;
                continue;
            }
            const auto& faults = config.faults;
            std::uniform_real_distribution<double> unit(0.0, 1.0);
            if (faults.loss > 0 && unit(random) < faults.loss)
                continue;
            Pending item{};
            item.association = *association;
            item.target.sin_family = AF_INET;
            std::memcpy(&item.target.sin_addr.s_addr, data + 4, 4);
            std::memcpy(&item.target.sin_port, data + 8, 2);
            item.payload.assign(data + kRequestHeader, data + size);
            if (faults.delaySeconds <= 0) {
                forward(item);
                continue;
            }
            item.due = SteadyClock::now() + std::chrono::duration_cast<SteadyClock::duration>(
                                                std::chrono::duration<double>(faults.delaySeconds));
            item.sequence = sequence++;
            pending.push(std::move(item));
        }
    }

    void receiveReplies(std::size_t index) {
        const auto& association = associations[index];
        for (;;) {
            sockaddr_in from{};
            socklen_t length = sizeof from;
            ssize_t size = ::recvfrom(association.upstreamFd, buffer.data() + kReplyHeader,
                                      buffer.size() - kReplyHeader, MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr*>(&from), &length);
            if (size < 0)
                return;
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
        }
    }

    void run() {
        std::array<epoll_event, 64> events{};
        while (!stopped) {
            int timeout = -1;
            if (!pending.empty()) {
                auto wait = std::chrono::ceil<std::chrono::milliseconds>(pending.top().due -
                                                                         SteadyClock::now());
                timeout = static_cast<int>(std::max<std::int64_t>(0, wait.count()));
            }
            int count =
                epoll_wait(epollFd, events.data(), static_cast<int>(events.size()), timeout);
            for (int i = 0; i < count; ++i) {
                auto tag = events[i].data.u64;
                if (tag == kWakeTag)
                    continue;
                if (tag == kListenTag)
                    receiveRequests();
                else
                    receiveReplies(static_cast<std::size_t>(tag - 1));
            }
            auto now = SteadyClock::now();
            while (!pending.empty() && pending.top().due <= now) {
                forward(pending.top());
                pending.pop();
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
            *error = failure(text);
        return nullptr;
    };
    if (config.faults.loss < 0 || config.faults.loss > 1 || config.faults.delaySeconds < 0)
        return fail("loss must lie in [0, 1] and delay must not be negative");
    auto impl = std::make_unique<Impl>();
    impl->config = config;
    impl->random.seed(seed);
    socklen_t length = 0;
    auto address = makeAddress(config.host, config.port, length);
    if (!address)
        return fail("not an IP address: " + config.host);
    std::string reason;
    impl->listenFd = openBound(address->ss_family, reinterpret_cast<const sockaddr*>(&*address),
                               length, &reason);
    if (impl->listenFd < 0)
        return fail("cannot listen on " + config.host + ":" + std::to_string(config.port) + ": " +
                    reason);
    impl->config.port = boundPort(impl->listenFd);
    impl->epollFd = epoll_create1(EPOLL_CLOEXEC);
    impl->wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (impl->epollFd < 0 || impl->wakeFd < 0)
        return fail("cannot create the event loop");
    epoll_event wake{};
    wake.events = EPOLLIN;
    wake.data.u64 = kWakeTag;
    epoll_ctl(impl->epollFd, EPOLL_CTL_ADD, impl->wakeFd, &wake);
    epoll_event listen{};
    listen.events = EPOLLIN;
    listen.data.u64 = kListenTag;
    epoll_ctl(impl->epollFd, EPOLL_CTL_ADD, impl->listenFd, &listen);
    auto* raw = impl.get();
    impl->thread = std::thread([raw] { raw->run(); });
    return std::unique_ptr<Socks5Relay>(new Socks5Relay(std::move(impl)));
}

void Socks5Relay::stop() {
    if (!impl_ || impl_->stopped.exchange(true))
        return;
    std::uint64_t one = 1;
    [[maybe_unused]] auto ignored = ::write(impl_->wakeFd, &one, sizeof one);
    if (impl_->thread.joinable())
        impl_->thread.join();
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

}  // namespace lmkit
